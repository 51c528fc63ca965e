#include "Addrkit/Prefix.h"

#include <algorithm>
#include <ostream>
#include <type_traits>

#include "Addrkit/Parse.h"
#include "Basis/Buffer.h"
#include "Basis/Exception.h"

namespace Addrkit {

namespace {

constexpr const char* invalidPrefixText = "Addrkit::Prefix::validAsPrefix != true not allowed";
constexpr const char* invalidIp6PrefixText = "Addrkit::Ip6Prefix::validAsPrefix != true not allowed";
constexpr const char* malformedText = "Unexpected error when reading Protobuf bytes";

// The network mask of a length 0..32 as a host-order word.
U32 mask32(U32 len) { return len == 0 ? 0 : ~U32(0) << (32 - len); }

// The mask of word k (0..3) of an IPv6 prefix of length len.
U32 mask128(U32 len, unsigned k) {
  const U32 first = 32 * k;
  return len <= first ? 0 : mask32(std::min<U32>(len - first, 32));
}

// Builds a prefix from stored address bytes and a length byte without any
// check; the prefix types are their bytes (address, then length).
template <class P, size_t N>
P fromStored(const U8* addr, U8 len) {
  static_assert(std::is_trivially_copyable_v<P> && sizeof(P) == N + 1);
  U8 raw[N + 1];
  std::memcpy(raw, addr, N);
  raw[N] = len;
  P p;
  std::memcpy(static_cast<void*>(&p), raw, sizeof p);
  return p;
}

// "ADDR/LEN" or a bare address (the family's full length): the address goes
// to addr, the length is returned; bad text raises the range error naming it.
U8 parseText(std::string_view text, const char* family, U32 maxLen, bool (*parseAddr)(std::string_view, U8*),
             U8* addr) {
  const size_t slash = text.find('/');
  U32 len = maxLen;
  if (!parseAddr(text.substr(0, slash), addr) ||
      (slash != std::string_view::npos && !parse::length(text.substr(slash + 1), maxLen, len))) {
    throw Basis::RangeException(fmt::format("invalid {} prefix '{}'{}", family, text, parse::leadingZeroNote(text)));
  }
  return U8(len);
}

void refuseHostBits(bool valid, const char* family, std::string_view text) {
  if (!valid) throw Basis::RangeException(fmt::format("invalid {} prefix '{}': host bits set", family, text));
}

}  // namespace

Prefix::Prefix(Ip4Address addr, U32 len) {
  if (len > 32) throw Basis::RangeException(invalidPrefixText);
  std::memcpy(addr_, addr.bytes(), 4);
  len_ = U8(len);
  if (!validAsPrefix()) throw Basis::RangeException(invalidPrefixText);
}

Prefix::Prefix(std::string_view text) {
  len_ = parseText(text, "IPv4", 32, parse::ip4, addr_);
  refuseHostBits(validAsPrefix(), "IPv4", text);
}

void Prefix::invalidLength() { throw Basis::RangeException(invalidPrefixText); }

bool Prefix::validAsPrefix() const { return len_ <= 32 && (addrHost() & ~mask32(len_)) == 0; }

std::string Prefix::stringValue() const {
  return fmt::format("{}.{}.{}.{}/{}", addr_[0], addr_[1], addr_[2], addr_[3], len_);
}

Ip6Prefix::Ip6Prefix(const Ip6Address& addr, U32 len) {
  if (len > 128) throw Basis::RangeException(invalidIp6PrefixText);
  std::memcpy(addr_, addr.bytes(), 16);
  len_ = U8(len);
  if (!validAsPrefix()) throw Basis::RangeException(invalidIp6PrefixText);
}

Ip6Prefix::Ip6Prefix(std::string_view text) {
  len_ = parseText(text, "IPv6", 128, parse::ip6, addr_);
  refuseHostBits(validAsPrefix(), "IPv6", text);
}

Ip6Prefix Ip6Prefix::masked(const Ip6Address& addr, U32 len) {
  if (len > 128) throw Basis::RangeException(invalidIp6PrefixText);
  Ip6Prefix p;
  for (unsigned k = 0; k < 4; ++k) networkOrder(addr.word(k) & mask128(len, k), p.addr_ + 4 * k);
  p.len_ = U8(len);
  return p;
}

bool Ip6Prefix::validAsPrefix() const {
  if (len_ > 128) return false;
  for (unsigned k = 0; k < 4; ++k) {
    if (word(k) & ~mask128(len_, k)) return false;
  }
  return true;
}

std::string Ip6Prefix::stringValue() const {
  return fmt::format("{}/{}", address().stringValue(), len_);
}

IpGenPrefix::IpGenPrefix(const Prefix& p) : af_(AddressFamily::ipv4), len_(U8(p.len())) {
  std::memcpy(addr_, p.address().bytes(), 4);
}

IpGenPrefix::IpGenPrefix(const Ip6Prefix& p) : af_(AddressFamily::ipv6), len_(U8(p.len())) {
  std::memcpy(addr_, p.address().bytes(), 16);
}

IpGenPrefix::IpGenPrefix(std::string_view text) {
  if (text.find(':') != std::string_view::npos) {
    *this = IpGenPrefix(Ip6Prefix(text));
  } else {
    *this = IpGenPrefix(Prefix(text));
  }
}

Prefix IpGenPrefix::v4() const { return fromStored<Prefix, 4>(addr_, len_); }

Ip6Prefix IpGenPrefix::v6() const { return fromStored<Ip6Prefix, 16>(addr_, len_); }

std::string IpGenPrefix::stringValue() const {
  switch (af_) {
    case AddressFamily::ipv4:
      return v4().stringValue();
    case AddressFamily::ipv6:
      return v6().stringValue();
    case AddressFamily::none:
      break;
  }
  return "none";
}

std::ostream& operator<<(std::ostream& os, const Prefix& p) { return os << p.stringValue(); }
std::ostream& operator<<(std::ostream& os, const Ip6Prefix& p) { return os << p.stringValue(); }
std::ostream& operator<<(std::ostream& os, const IpGenPrefix& p) { return os << p.stringValue(); }

std::ostream& operator<<(std::ostream& os, AddressFamily af) {
  switch (af) {
    case AddressFamily::none:
      return os << "none";
    case AddressFamily::ipv4:
      return os << "ipv4";
    case AddressFamily::ipv6:
      return os << "ipv6";
  }
  return os << "AddressFamily(" << unsigned(af) << ")";
}

void writeMessage(Basis::WriteBufferItr& buf, const Prefix& p) {
  buf.writeTag(1, Basis::WireType::fixed32);
  buf.writeFixed32(p.addrHost());
  buf.writeTag(2, Basis::WireType::varint);
  buf.writeVarint(p.len());
}

void readMessage(Basis::ReadBufferItr& body, Prefix& p) {
  U32 addr = p.addrHost();
  U64 len = p.len();
  while (!body.atEnd()) {
    U32 field;
    Basis::WireType wireType;
    body.readTag(field, wireType);
    if (field == 1) {
      if (wireType != Basis::WireType::fixed32) throw Basis::ProtobufException(malformedText);
      addr = body.readFixed32();
    } else if (field == 2) {
      if (wireType != Basis::WireType::varint) throw Basis::ProtobufException(malformedText);
      len = body.readVarint();
    } else {
      body.skipField(wireType);
    }
  }
  if (len > 32) throw Basis::RangeException(invalidPrefixText);
  p = Prefix(Ip4Address::fromHost(addr), U32(len));
}

}  // namespace Addrkit
