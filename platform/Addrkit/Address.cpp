#include "Addrkit/Address.h"

#include <arpa/inet.h>
#include <fmt/format.h>

#include <ostream>

#include "Addrkit/Parse.h"
#include "Basis/Exception.h"

namespace Addrkit {

namespace parse {

namespace {
bool isDigit(char c) { return c >= '0' && c <= '9'; }
}  // namespace

bool ip4(std::string_view text, U8* out) {
  size_t i = 0;
  for (unsigned part = 0; part < 4; ++part) {
    if (part > 0) {
      if (i == text.size() || text[i] != '.') return false;
      ++i;
    }
    const size_t start = i;
    unsigned v = 0;
    while (i < text.size() && i - start < 3 && isDigit(text[i])) v = v * 10 + unsigned(text[i++] - '0');
    if (i == start || v > 255 || (text[start] == '0' && i - start > 1)) return false;
    out[part] = U8(v);
  }
  return i == text.size();
}

std::string leadingZeroNote(std::string_view text) {
  text = text.substr(0, text.find('/'));
  for (size_t i = 0; i < text.size(); ++i) {
    const bool octetStart = i == 0 || text[i - 1] == '.' || text[i - 1] == ':';
    if (!octetStart || text[i] != '0' || i + 1 == text.size() || !isDigit(text[i + 1])) continue;
    size_t end = i;
    while (end < text.size() && isDigit(text[end])) ++end;
    // Only a dotted octet: "0012" in an IPv6 group is plain hexadecimal.
    if ((end < text.size() && text[end] == '.') || (i > 0 && text[i - 1] == '.'))
      return fmt::format(": '{}' has a leading zero, which some tools read as octal", text.substr(i, end - i));
  }
  return {};
}

bool ip6(std::string_view text, U8* out) {
  char buf[INET6_ADDRSTRLEN];
  if (text.size() >= sizeof buf || text.find('\0') != std::string_view::npos) return false;
  text.copy(buf, text.size());
  buf[text.size()] = '\0';
  return inet_pton(AF_INET6, buf, out) == 1;
}

bool length(std::string_view text, U32 max, U32& out) {
  if (text.empty() || text.size() > 3) return false;
  U32 v = 0;
  for (char c : text) {
    if (!isDigit(c)) return false;
    v = v * 10 + U32(c - '0');
  }
  if (v > max) return false;
  out = v;
  return true;
}

}  // namespace parse

Ip4Address::Ip4Address(std::string_view text) {
  if (!parse::ip4(text, b_.data())) {
    throw Basis::RangeException(fmt::format("invalid IPv4 address '{}'{}", text, parse::leadingZeroNote(text)));
  }
}

std::string Ip4Address::stringValue() const {
  return fmt::format("{}.{}.{}.{}", b_[0], b_[1], b_[2], b_[3]);
}

Ip6Address::Ip6Address(std::string_view text) {
  if (!parse::ip6(text, b_.data())) {
    throw Basis::RangeException(fmt::format("invalid IPv6 address '{}'{}", text, parse::leadingZeroNote(text)));
  }
}

U32 Ip6Address::bit(U32 n) const {
  if (n > 127) throw Basis::RangeException(fmt::format("IPv6 address bit index {} above 127", n));
  return (word(n / 32) >> (31 - n % 32)) & 1u;
}

std::string Ip6Address::stringValue() const {
  char buf[INET6_ADDRSTRLEN];
  inet_ntop(AF_INET6, b_.data(), buf, sizeof buf);
  return buf;
}

std::ostream& operator<<(std::ostream& os, const Ip4Address& a) { return os << a.stringValue(); }
std::ostream& operator<<(std::ostream& os, const Ip6Address& a) { return os << a.stringValue(); }

}  // namespace Addrkit
