#pragma once
#include <fmt/format.h>

#include <cstring>
#include <iosfwd>
#include <string>
#include <string_view>

#include "Addrkit/Address.h"
#include "TrieLib/Export.h"

namespace Basis {
class ReadBufferItr;
class WriteBufferItr;
}  // namespace Basis

namespace Addrkit {
using Basis::U8, Basis::U16, Basis::U32, Basis::U64;

#pragma pack(push, 1)

// IPv4 prefix: 4-byte address in network order and an 8-bit length; 5 bytes,
// trivially copyable, stored byte for byte in shared records.
class DEPOTTRIE_API Prefix {
 public:
  Prefix() = default;
  // Raises Basis::RangeException "Addrkit::Prefix::validAsPrefix != true not
  // allowed" unless the result is a valid prefix (length <= 32, no host bits).
  Prefix(Ip4Address addr, U32 len);
  // "a.b.c.d/len" or a bare address (length 32). Bad text raises
  // Basis::RangeException naming the text.
  explicit Prefix(std::string_view text);
  // The address masked to len bits, with that length (a subnet).
  static Prefix masked(U32 hostAddr, U32 len) {
    if (len > 32) invalidLength();
    Prefix p;
    networkOrder(len == 0 ? 0 : hostAddr & (~U32(0) << (32 - len)), p.addr_);
    p.len_ = U8(len);
    return p;
  }

  Ip4Address address() const { Ip4Address a; std::memcpy((void*)&a, addr_, 4); return a; }
  U32 addrHost() const { return hostOrder(addr_); }
  U32 len() const { return len_; }
  bool validAsPrefix() const;
  std::string stringValue() const;

  friend bool operator==(const Prefix& a, const Prefix& b) {
    return a.len_ == b.len_ && std::memcmp(a.addr_, b.addr_, 4) == 0;
  }

 private:
  [[noreturn]] static void invalidLength();
  U8 addr_[4] = {};
  U8 len_ = 0;
};

// IPv6 prefix: 16-byte address in network order and an 8-bit length.
class DEPOTTRIE_API Ip6Prefix {
 public:
  Ip6Prefix() = default;
  // Raises Basis::RangeException "Addrkit::Ip6Prefix::validAsPrefix != true
  // not allowed" unless valid (length <= 128, no host bits).
  Ip6Prefix(const Ip6Address& addr, U32 len);
  // "addr/len" or a bare address (length 128); bad text raises
  // Basis::RangeException naming the text.
  explicit Ip6Prefix(std::string_view text);
  static Ip6Prefix masked(const Ip6Address& addr, U32 len);

  Ip6Address address() const { return Ip6Address::fromBytes(addr_); }
  U32 word(unsigned k) const { return hostOrder(addr_ + 4 * k); }
  U32 len() const { return len_; }
  bool validAsPrefix() const;
  std::string stringValue() const;

  friend bool operator==(const Ip6Prefix& a, const Ip6Prefix& b) {
    return a.len_ == b.len_ && std::memcmp(a.addr_, b.addr_, 16) == 0;
  }

 private:
  U8 addr_[16] = {};
  U8 len_ = 0;
};

#pragma pack(pop)

static_assert(sizeof(Prefix) == 5 && alignof(Prefix) == 1);
static_assert(sizeof(Ip6Prefix) == 17 && alignof(Ip6Prefix) == 1);

// Either family, tagged. The empty value (family none, address zero, length
// 0) means "nothing"; it is not 0.0.0.0/0.
class DEPOTTRIE_API IpGenPrefix {
 public:
  IpGenPrefix() = default;
  IpGenPrefix(const Prefix& p);
  IpGenPrefix(const Ip6Prefix& p);
  // IPv6 when the text holds a ':', else IPv4; bad text raises
  // Basis::RangeException naming the text.
  explicit IpGenPrefix(std::string_view text);

  AddressFamily af() const { return af_; }
  bool isEmpty() const { return af_ == AddressFamily::none && len_ == 0 && address6() == Ip6Address(); }
  // The per-family views read the stored bytes whatever the family.
  Prefix v4() const;
  Ip6Prefix v6() const;
  // The stored address bytes, network order (the first 4 for IPv4).
  const U8* addressBytes() const { return addr_; }
  U32 len() const { return len_; }
  std::string stringValue() const;  // "none" for the empty value

  friend bool operator==(const IpGenPrefix& a, const IpGenPrefix& b) {
    return a.af_ == b.af_ && a.len_ == b.len_ && std::memcmp(a.addr_, b.addr_, 16) == 0;
  }

 private:
  Ip6Address address6() const { return Ip6Address::fromBytes(addr_); }
  AddressFamily af_ = AddressFamily::none;
  U8 addr_[16] = {};
  U8 len_ = 0;
};

DEPOTTRIE_API std::ostream& operator<<(std::ostream& os, const Prefix& p);
DEPOTTRIE_API std::ostream& operator<<(std::ostream& os, const Ip6Prefix& p);
DEPOTTRIE_API std::ostream& operator<<(std::ostream& os, const IpGenPrefix& p);
DEPOTTRIE_API std::ostream& operator<<(std::ostream& os, AddressFamily af);

// The embedded protobuf message of a Prefix: field 1 the address (fixed32,
// host order value), field 2 the length (varint). writeMessage writes the
// body only; the caller frames it. readMessage reads a body to its end,
// skipping unknown fields; a result that is not a valid prefix raises
// Basis::RangeException.
DEPOTTRIE_API void writeMessage(Basis::WriteBufferItr& buf, const Prefix& p);
DEPOTTRIE_API void readMessage(Basis::ReadBufferItr& body, Prefix& p);

}  // namespace Addrkit

// fmt support: prefixes format as their stringValue().
template <>
struct fmt::formatter<Addrkit::Prefix> : fmt::formatter<std::string_view> {
  auto format(const Addrkit::Prefix& p, fmt::format_context& ctx) const {
    return fmt::formatter<std::string_view>::format(p.stringValue(), ctx);
  }
};
template <>
struct fmt::formatter<Addrkit::Ip6Prefix> : fmt::formatter<std::string_view> {
  auto format(const Addrkit::Ip6Prefix& p, fmt::format_context& ctx) const {
    return fmt::formatter<std::string_view>::format(p.stringValue(), ctx);
  }
};
template <>
struct fmt::formatter<Addrkit::IpGenPrefix> : fmt::formatter<std::string_view> {
  auto format(const Addrkit::IpGenPrefix& p, fmt::format_context& ctx) const {
    return fmt::formatter<std::string_view>::format(p.stringValue(), ctx);
  }
};
