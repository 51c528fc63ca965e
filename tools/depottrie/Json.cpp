#include "Json.h"

#include <fmt/format.h>

namespace DepotTrieTool {
namespace {

// The length of the UTF-8 sequence at text[i], or 0 when it is not one
// (overlong forms, surrogates and values past U+10FFFF included).
size_t utf8Length(std::string_view text, size_t i) {
  const unsigned char c = static_cast<unsigned char>(text[i]);
  size_t n = 0;
  unsigned min = 0, value = 0;
  if (c >= 0xC2 && c <= 0xDF) n = 2, min = 0x80, value = c & 0x1F;
  else if (c >= 0xE0 && c <= 0xEF) n = 3, min = 0x800, value = c & 0x0F;
  else if (c >= 0xF0 && c <= 0xF4) n = 4, min = 0x10000, value = c & 0x07;
  else return 0;
  if (i + n > text.size()) return 0;
  for (size_t k = 1; k < n; ++k) {
    const unsigned char next = static_cast<unsigned char>(text[i + k]);
    if ((next & 0xC0) != 0x80) return 0;
    value = value << 6 | (next & 0x3F);
  }
  const bool surrogate = value >= 0xD800 && value <= 0xDFFF;
  return value < min || surrogate || value > 0x10FFFF ? 0 : n;
}

}  // namespace

std::string jsonString(std::string_view text) {
  std::string out = "\"";
  for (size_t i = 0; i < text.size();) {
    const unsigned char c = static_cast<unsigned char>(text[i]);
    if (c >= 0x80) {
      const size_t n = utf8Length(text, i);
      out += n > 0 ? text.substr(i, n) : "\\ufffd";
      i += n > 0 ? n : 1;
      continue;
    }
    switch (c) {
      case '"': out += "\\\""; break;
      case '\\': out += "\\\\"; break;
      case '\n': out += "\\n"; break;
      case '\t': out += "\\t"; break;
      case '\r': out += "\\r"; break;
      default:
        if (c < 0x20 || c == 0x7F) out += fmt::format("\\u{:04x}", c);
        else out += char(c);
    }
    ++i;
  }
  return out + "\"";
}

std::string jsonPrefix(const Addrkit::IpGenPrefix& p) { return p.isEmpty() ? "null" : jsonString(p.stringValue()); }

std::string jsonObject(std::initializer_list<std::pair<std::string_view, std::string>> fields) {
  std::string out = "{";
  for (const auto& [key, value] : fields) {
    if (out.size() > 1) out += ',';
    out += jsonString(key) + ':' + value;
  }
  return out + "}";
}

std::string jsonArray(const std::vector<std::string>& values) { return fmt::format("[{}]", fmt::join(values, ",")); }

}  // namespace DepotTrieTool
