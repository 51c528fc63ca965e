#include "Kiln/Text.h"

#include <fmt/format.h>

#include <charconv>

namespace Kiln {

namespace {

// How much of the unread text an error message quotes.
constexpr size_t excerptLength = 8;

std::string excerpt(std::string_view rest) {
  if (rest.empty()) return "end of text";
  if (rest.size() <= excerptLength) return fmt::format("'{}'", rest);
  return fmt::format("'{}...'", rest.substr(0, excerptLength));
}

bool isTokenEnd(char c) { return c == ',' || c == ')' || c == ' '; }

}  // namespace

void CharRange::fail(std::string_view expected) const {
  throw ParseException(fmt::format("expected {} at position {}, found {}", expected, pos_, excerpt(rest())));
}

// A mismatch leaves the cursor on the first character that differs, which
// the message names when it is not the literal's first.
void CharRange::expect(std::string_view literal) {
  const std::string_view r = rest();
  size_t same = 0;
  while (same < literal.size() && same < r.size() && r[same] == literal[same]) ++same;
  const size_t start = pos_;
  pos_ += same;
  if (same == literal.size()) return;
  std::string message = fmt::format("expected '{}' at position {}, found {}", literal, start, excerpt(r));
  if (same > 0) message += fmt::format(" (first difference at position {})", pos_);
  throw ParseException(message);
}

bool CharRange::consumeIf(std::string_view literal) {
  if (!rest().starts_with(literal)) return false;
  pos_ += literal.size();
  return true;
}

std::string_view CharRange::readToken() {
  const std::string_view r = rest();
  size_t n = 0;
  while (n < r.size() && !isTokenEnd(r[n])) ++n;
  if (n == 0) fail("a value");
  pos_ += n;
  return r.substr(0, n);
}

// The typed readers look at the token first and consume it only when it
// parses, so that an error names the token's own position.
U32 CharRange::readU32() {
  const size_t start = pos_;
  const std::string_view token = readToken();
  U32 v = 0;
  const auto [end, ec] = std::from_chars(token.data(), token.data() + token.size(), v);
  if (ec != std::errc() || end != token.data() + token.size()) {
    pos_ = start;
    fail("an unsigned 32-bit number");
  }
  return v;
}

bool CharRange::readBool() {
  if (consumeIf("true")) return true;
  if (consumeIf("false")) return false;
  fail("'true' or 'false'");
}

Addrkit::Prefix CharRange::readPrefix() {
  const size_t start = pos_;
  const std::string_view token = readToken();
  try {
    return Addrkit::Prefix(token);
  } catch (const Basis::RangeException& e) {
    pos_ = start;
    throw ParseException(fmt::format("expected an IPv4 prefix at position {}, found '{}': {}", start, token, e.what()));
  }
}

Addrkit::Ip6Prefix CharRange::readIp6Prefix() {
  const size_t start = pos_;
  const std::string_view token = readToken();
  try {
    return Addrkit::Ip6Prefix(token);
  } catch (const Basis::RangeException& e) {
    pos_ = start;
    throw ParseException(fmt::format("expected an IPv6 prefix at position {}, found '{}': {}", start, token, e.what()));
  }
}

void CharRange::beginValue(std::string_view typeName) { expect(fmt::format("{}(", typeName)); }

void CharRange::attribute(std::string_view name, bool first) {
  if (!first) expect(", ");
  expect(fmt::format("{}=", name));
}

void CharRange::endValue() { expect(")"); }

TextWriter::TextWriter(std::string_view typeName) : out_(fmt::format("{}(", typeName)) {}

TextWriter& TextWriter::raw(std::string_view name, const std::string& value) {
  if (!first_) out_ += ", ";
  first_ = false;
  fmt::format_to(std::back_inserter(out_), "{}={}", name, value);
  return *this;
}

}  // namespace Kiln
