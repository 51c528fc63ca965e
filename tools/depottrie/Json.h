#pragma once
// JSON text for the commands' --json output, built by hand: values are JSON
// text, strings are escaped as RFC 8259 asks.
#include <initializer_list>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "Addrkit/Prefix.h"

namespace DepotTrieTool {

// A JSON string: quotes, backslashes and control characters escaped; bytes
// that are not UTF-8 (a file name may hold any) become U+FFFD.
std::string jsonString(std::string_view text);
// The prefix as a JSON string, or null for the empty prefix (no answer).
std::string jsonPrefix(const Addrkit::IpGenPrefix& p);
// {"key":value,...} from keys and JSON values, in the order given.
std::string jsonObject(std::initializer_list<std::pair<std::string_view, std::string>> fields);
// [value,...] from JSON values.
std::string jsonArray(const std::vector<std::string>& values);

}  // namespace DepotTrieTool
