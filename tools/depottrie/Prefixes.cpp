// Prefix helpers shared by the subcommands.
#include <fmt/format.h>

#include <bit>

#include "Commands.h"

namespace DepotTrieTool {

using Addrkit::AddressFamily;
using Addrkit::IpGenPrefix;

IpGenPrefix prefixFromText(std::string_view text) {
  try {
    return IpGenPrefix(text);
  } catch (const Basis::RangeException&) {
    const bool v6 = text.find(':') != std::string_view::npos;
    throw Basis::RangeException(fmt::format("invalid {} prefix '{}'", v6 ? "IPv6" : "IPv4", text));
  }
}

bool reservedPrefix(const IpGenPrefix& p) {
  using namespace Routing::Lattice;
  return p == IpGenPrefix(rootPrefix) || p == IpGenPrefix(rootPrefix6) || defaultRouteKey(p);
}

bool defaultRouteKey(const IpGenPrefix& p) {
  using namespace Routing::Lattice;
  return p == IpGenPrefix(prefix032) || p == IpGenPrefix(prefix0128);
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
