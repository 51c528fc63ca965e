#include "Lines.h"

#include <fmt/format.h>

namespace DepotTrieTool {

std::string_view trimmed(std::string_view line) {
  constexpr const char* blanks = " \t\r\v\f";
  const size_t first = line.find_first_not_of(blanks);
  if (first == std::string_view::npos) return {};
  return line.substr(first, line.find_last_not_of(blanks) - first + 1);
}

std::string tooLongMessage(std::string_view start) {
  return fmt::format("line longer than {} bytes: '{}...'", maxLineBytes, start.substr(0, 40));
}

bool readBoundedLine(std::istream& in, std::string& line, bool& tooLong) {
  line.clear();
  tooLong = false;
  std::streambuf* buf = in.rdbuf();
  for (bool any = false;; any = true) {
    const int c = buf->sbumpc();
    if (c == std::char_traits<char>::eof()) {
      in.setstate(std::ios::eofbit);
      return any;
    }
    if (c == '\n') break;
    if (line.size() < maxLineBytes) line.push_back(char(c));
    else tooLong = true;
  }
  if (!tooLong && !line.empty() && line.back() == '\r') line.pop_back();
  return true;
}

}  // namespace DepotTrieTool
