#pragma once
// Input lines of bounded length, for the commands that read routes or
// queries from files and standard input.
#include <istream>
#include <string>
#include <string_view>

namespace DepotTrieTool {

// The longest input line taken as it is; a longer one is an error for that
// line, reported with its start, and costs no more memory than this.
constexpr size_t maxLineBytes = 4096;
// The line without the blanks around it.
std::string_view trimmed(std::string_view line);
// "line longer than 4096 bytes: 'START...'".
std::string tooLongMessage(std::string_view start);
// One line of at most maxLineBytes from in; a longer one is consumed whole,
// its first bytes kept, and tooLong set. False at the end of the input.
bool readBoundedLine(std::istream& in, std::string& line, bool& tooLong);

}  // namespace DepotTrieTool
