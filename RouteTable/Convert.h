#pragma once
// Between the route table's prefixes and the trie's (internal).
#include "Addrkit/Prefix.h"
#include "RouteTable/RouteTable.h"

namespace depottrie::detail {

inline Addrkit::IpGenPrefix toGen(const Prefix& p) {
  const std::span<const std::uint8_t> a = p.address();
  if (p.family() == Family::ipv4) return Addrkit::Prefix::masked(Addrkit::hostOrder(a.data()), p.length());
  return Addrkit::Ip6Prefix::masked(Addrkit::Ip6Address::fromBytes(a.data()), p.length());
}

inline Prefix fromGen(const Addrkit::IpGenPrefix& g) {
  if (g.af() == Addrkit::AddressFamily::ipv4) {
    const Addrkit::Ip4Address a = g.v4().address();
    return Prefix::fromBytes({a.bytes(), 4}, g.len());
  }
  const Addrkit::Ip6Address a = g.v6().address();
  return Prefix::fromBytes({a.bytes(), 16}, g.len());
}

}  // namespace depottrie::detail
