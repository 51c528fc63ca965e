// Prefix helpers shared by the subcommands.
#include <fmt/format.h>

#include <bit>

#include "Commands.h"

namespace DepotTrieTool {

using Addrkit::AddressFamily;
using Addrkit::IpGenPrefix;

IpGenPrefix prefixFromText(std::string_view text) { return IpGenPrefix(text); }

bool defaultRouteKey(const IpGenPrefix& p) {
  using namespace Routing::Lattice;
  return p == IpGenPrefix(prefix032) || p == IpGenPrefix(prefix0128);
}

bool prefixLess(const IpGenPrefix& a, const IpGenPrefix& b) {
  if (a.af() != b.af()) return a.af() == AddressFamily::ipv4;
  if (a.af() == AddressFamily::ipv4) {
    const U32 x = a.v4().addrHost(), y = b.v4().addrHost();
    return x != y ? x < y : a.len() < b.len();
  }
  const Addrkit::Ip6Prefix x = a.v6(), y = b.v6();
  for (U32 k = 0; k < 4; ++k) {
    if (x.word(k) != y.word(k)) return x.word(k) < y.word(k);
  }
  return a.len() < b.len();
}

bool covers(const IpGenPrefix& outer, const IpGenPrefix& inner) {
  if (outer.af() != inner.af() || inner.len() < outer.len()) return false;
  const U32 len = outer.len();
  if (outer.af() == AddressFamily::ipv4) {
    U32 x = outer.v4().addrHost() ^ inner.v4().addrHost();
    return len == 0 || (x >> (32 - len)) == 0;
  }
  const Addrkit::Ip6Prefix a = outer.v6(), b = inner.v6();
  for (U32 k = 0; k < 4 && 32 * k < len; ++k) {
    U32 x = a.word(k) ^ b.word(k);
    if (x != 0 && U32(std::countl_zero(x)) < len - 32 * k) return false;
  }
  return true;
}

}  // namespace DepotTrieTool
