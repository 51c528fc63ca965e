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
  return Prefix::fromBytes({g.addressBytes(), g.af() == Addrkit::AddressFamily::ipv4 ? 4u : 16u}, g.len());
}

}  // namespace depottrie::detail
