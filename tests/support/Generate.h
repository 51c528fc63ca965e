#pragma once
// Seeded random prefixes and insert/delete histories. Prefixes cluster around
// a few bases so that they nest and share edges: insertions split nodes and
// extend leaves, deletions hoist children.
#include <random>
#include <vector>

#include "Addrkit/Prefix.h"

namespace testkit {

using Addrkit::IpGenPrefix, Basis::U32, Basis::U64;

class PrefixGen {
 public:
  explicit PrefixGen(U32 seed) : rng(seed) {
    bases4_ = {0x00000000u, 0xFFFFFF00u, 0x0A000000u, 0x0A010200u, 0xC0A80000u, U32(rng()), U32(rng())};
  }
  // Each draw is its own statement: the order of evaluation of operands is
  // unspecified, and a sequence must not change with the compiler's flags.
  U32 host4() {
    const U32 base = bases4_[rng() % bases4_.size()];
    const U32 noise = U32(rng());
    return base ^ (noise & (0xFFFFFFFFu >> (4 + rng() % 26)));
  }
  Addrkit::Ip6Address addr6() {
    Addrkit::Ip6Address a;
    a.wordIs(0, rng() % 16 == 0 ? ~0u : 0x20010DB8u ^ U32(rng() % 4));
    a.wordIs(1, rng() % 3 == 0 ? U32(rng()) : U32(rng() % 4) << 16);
    a.wordIs(2, rng() % 2 ? U32(rng()) : 0);
    a.wordIs(3, U32(rng()));
    return a;
  }
  // Any storable prefix: never a key the trie reserves (the root's all-ones
  // host prefix, and the default route's all-zero host key with, in IPv4,
  // the /31 that shares it).
  IpGenPrefix prefix4() {
    for (;;) {
      const U32 len = rng() % 33;
      auto p = Addrkit::Prefix::masked(host4(), len);
      if ((p.addrHost() == 0 && len >= 31) || (p.addrHost() == ~0u && len == 32)) continue;
      return p;
    }
  }
  IpGenPrefix prefix6() {
    for (;;) {
      const Addrkit::Ip6Address a = addr6();
      const U32 len = rng() % 4 == 0 ? rng() % 129 : 32 + rng() % 97;
      auto p = Addrkit::Ip6Prefix::masked(a, len);
      bool zero = true, ones = true;
      for (unsigned k = 0; k < 4; ++k) zero = zero && p.word(k) == 0, ones = ones && p.word(k) == ~0u;
      if (p.len() == 128 && (zero || ones)) continue;
      return p;
    }
  }
  IpGenPrefix prefix(bool v6) { return v6 ? prefix6() : prefix4(); }
  // A host address of either family, as a full-length prefix.
  IpGenPrefix host(bool v6) {
    return v6 ? IpGenPrefix(Addrkit::Ip6Prefix(addr6(), 128)) : IpGenPrefix(Addrkit::Prefix::masked(host4(), 32));
  }
  // A random host address inside p.
  IpGenPrefix hostInside(const IpGenPrefix& p) {
    if (p.af() == Addrkit::AddressFamily::ipv4) {
      const U32 low = p.len() == 0 ? ~0u : (U64(1) << (32 - p.len())) - 1;
      return Addrkit::Prefix::masked(p.v4().addrHost() | (U32(rng()) & low), 32);
    }
    Addrkit::Ip6Address a = p.v6().address();
    for (U32 k = 0; k < 4; ++k) {
      const U32 keep = p.len() >= 32 * (k + 1) ? 32 : p.len() > 32 * k ? p.len() - 32 * k : 0;
      const U32 low = keep == 0 ? ~0u : keep == 32 ? 0u : (1u << (32 - keep)) - 1;
      a.wordIs(k, a.word(k) | (U32(rng()) & low));
    }
    return Addrkit::Ip6Prefix(a, 128);
  }
  std::mt19937 rng;

 private:
  std::vector<U32> bases4_;
};

struct Op {
  bool insert;
  IpGenPrefix prefix;
};

// count operations over both families: the first two thirds mostly insert
// (the tables grow), the rest mostly delete; some deletions name absent
// prefixes and the default routes come and go.
inline std::vector<Op> history(U32 seed, size_t count, unsigned percentV6 = 30) {
  PrefixGen gen(seed);
  std::vector<Op> ops;
  std::vector<IpGenPrefix> live;
  while (ops.size() < count) {
    const bool growing = ops.size() < count * 2 / 3;
    if (gen.rng() % 200 == 0) {
      ops.push_back({gen.rng() % 2 == 0, IpGenPrefix(gen.rng() % 2 ? "0.0.0.0/0" : "::/0")});
    } else if (live.empty() || gen.rng() % 100 < (growing ? 80u : 30u)) {
      IpGenPrefix p = gen.prefix(gen.rng() % 100 < percentV6);
      live.push_back(p);
      ops.push_back({true, p});
    } else if (gen.rng() % 10 == 0) {
      ops.push_back({false, gen.prefix(gen.rng() % 2)});
    } else {
      const size_t at = gen.rng() % live.size();
      ops.push_back({false, live[at]});
      live[at] = live.back();
      live.pop_back();
    }
  }
  return ops;
}

}  // namespace testkit
