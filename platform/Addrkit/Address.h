#pragma once
#include <array>
#include <compare>
#include <cstring>
#include <iosfwd>
#include <string>
#include <string_view>

#include "Basis/Types.h"
#include "TrieLib/Export.h"

namespace Addrkit {
using Basis::U8, Basis::U16, Basis::U32, Basis::U64;

enum class AddressFamily : U8 { none = 0, ipv4 = 1, ipv6 = 2 };

// Byte-order helpers: addresses are kept in network order; bit work is done
// on host-order words so that the first address bit is the most significant.
inline U32 hostOrder(const U8* p) {
  return (U32(p[0]) << 24) | (U32(p[1]) << 16) | (U32(p[2]) << 8) | U32(p[3]);
}
inline void networkOrder(U32 v, U8* p) {
  p[0] = U8(v >> 24); p[1] = U8(v >> 16); p[2] = U8(v >> 8); p[3] = U8(v);
}

// IPv4 address, 4 bytes in network order. Ordered as an unsigned number.
class DEPOTTRIE_API Ip4Address {
 public:
  Ip4Address() = default;
  static Ip4Address fromHost(U32 v) { Ip4Address a; networkOrder(v, a.b_.data()); return a; }
  // Dotted quad; anything else raises Basis::RangeException naming the text.
  explicit Ip4Address(std::string_view text);

  U32 host() const { return hostOrder(b_.data()); }
  const U8* bytes() const { return b_.data(); }
  std::string stringValue() const;

  friend bool operator==(const Ip4Address&, const Ip4Address&) = default;
  friend bool operator<(const Ip4Address& a, const Ip4Address& b) { return a.host() < b.host(); }

 private:
  std::array<U8, 4> b_{};
};

// IPv6 address, 16 bytes in network order. Ordered by unsigned bytes.
class DEPOTTRIE_API Ip6Address {
 public:
  Ip6Address() = default;
  static Ip6Address fromBytes(const U8* p) { Ip6Address a; std::memcpy(a.b_.data(), p, 16); return a; }
  // Any form inet_pton accepts; anything else raises Basis::RangeException.
  explicit Ip6Address(std::string_view text);

  // Word k (0..3) of the address in host order.
  U32 word(unsigned k) const { return hostOrder(b_.data() + 4 * k); }
  void wordIs(unsigned k, U32 v) { networkOrder(v, b_.data() + 4 * k); }
  const U8* bytes() const { return b_.data(); }
  // The bit at index n (0 is the most significant); n above 127 raises
  // Basis::RangeException.
  U32 bit(U32 n) const;
  std::string stringValue() const;  // as inet_ntop prints it

  friend bool operator==(const Ip6Address&, const Ip6Address&) = default;
  friend bool operator<(const Ip6Address& a, const Ip6Address& b) {
    return std::memcmp(a.b_.data(), b.b_.data(), 16) < 0;
  }

 private:
  std::array<U8, 16> b_{};
};

DEPOTTRIE_API std::ostream& operator<<(std::ostream& os, const Ip4Address& a);
DEPOTTRIE_API std::ostream& operator<<(std::ostream& os, const Ip6Address& a);

}  // namespace Addrkit
