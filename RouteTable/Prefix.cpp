// Text, order and cutting of the route table's prefixes.
#include <emmintrin.h>
#include <fmt/format.h>

#include <algorithm>
#include <cstring>
#include <ostream>

#include "Addrkit/Parse.h"
#include "Addrkit/Prefix.h"
#include "Basis/Exception.h"
#include "RouteTable/Convert.h"
#include "RouteTable/RouteTable.h"

namespace depottrie {

namespace {

// Text of an IPv4 prefix or address with no bit set beyond its length,
// parsed straight into a prefix's fields: a batch of lookups from text
// (the Python module's) spends much of its own time here. Anything else,
// and every error with its message, is left to the full parser.
bool parsedIpv4(std::string_view text, std::array<std::uint8_t, 16>& bytes, std::uint8_t& length) {
  const size_t slash = text.find('/');
  Basis::U32 len = 32;
  if (!Addrkit::parse::ip4(text.substr(0, slash), bytes.data()) ||
      (slash != std::string_view::npos && !Addrkit::parse::length(text.substr(slash + 1), 32, len)))
    return false;
  const Basis::U32 address =
      Basis::U32(bytes[0]) << 24 | Basis::U32(bytes[1]) << 16 | Basis::U32(bytes[2]) << 8 | bytes[3];
  if (len < 32 && (address << len) != 0) return false;
  length = std::uint8_t(len);
  return true;
}

}  // namespace

Prefix::Prefix(std::string_view text) {
  if (text.find(':') == std::string_view::npos && parsedIpv4(text, bytes_, length_)) return;
  try {
    *this = detail::fromGen(Addrkit::IpGenPrefix(text));
  } catch (const Basis::Exception& e) {
    throw Error(e.what());
  }
}

std::optional<Prefix> Prefix::parse(std::string_view text) {
  try {
    return Prefix(text);
  } catch (const Error&) {
    return std::nullopt;
  }
}

Prefix Prefix::fromBytes(std::span<const std::uint8_t> address, unsigned length) {
  if (address.size() != 4 && address.size() != 16)
    throw Error(fmt::format("an address has 4 or 16 bytes, not {}", address.size()));
  Prefix p;
  p.family_ = address.size() == 4 ? Family::ipv4 : Family::ipv6;
  if (length > p.maxLength())
    throw Error(fmt::format("length {} is longer than an {} address", length, p.family_ == Family::ipv4 ? "IPv4" : "IPv6"));
  // Cut as two whole words and stored in one 16-byte store: a later copy
  // of the prefix loads 16 bytes, which waits when it spans several
  // smaller stores.
  std::array<std::uint64_t, 2> words{};
  std::memcpy(words.data(), address.data(), address.size());
  for (unsigned k = 0; k < 2; ++k) {
    const unsigned bits = std::clamp(int(length) - int(64 * k), 0, 64);
    const std::uint64_t keep = bits == 0 ? 0 : ~std::uint64_t(0) << (64 - bits);
    words[k] &= __builtin_bswap64(keep);
  }
  _mm_storeu_si128(reinterpret_cast<__m128i*>(p.bytes_.data()), _mm_set_epi64x(std::int64_t(words[1]), std::int64_t(words[0])));
  p.length_ = std::uint8_t(length);
  return p;
}

Prefix Prefix::truncated(unsigned length) const { return fromBytes(address(), std::min(length, unsigned(length_))); }

bool Prefix::contains(const Prefix& other) const {
  return family_ == other.family_ && length_ <= other.length_ && other.truncated(length_) == *this;
}

std::string Prefix::toString() const { return detail::toGen(*this).stringValue(); }

std::strong_ordering operator<=>(const Prefix& a, const Prefix& b) {
  if (a.family_ != b.family_) return a.family_ <=> b.family_;
  if (const int c = std::memcmp(a.bytes_.data(), b.bytes_.data(), a.bytes_.size()); c != 0) return c <=> 0;
  return a.length_ <=> b.length_;
}

std::ostream& operator<<(std::ostream& os, const Prefix& p) { return os << p.toString(); }

}  // namespace depottrie
