// True longest-prefix match over the node records.
#include <fmt/format.h>

#include "TrieLib/TrieFamily.h"

namespace Routing::Lattice {
namespace {

[[noreturn]] void tooDeep(const Trie* trie, const char* family, U32 limit) {
  throw Basis::Exception(fmt::format("trie {}: {} descent deeper than {} levels; the trie is damaged",
                                     trie->name(), family, limit));
}

Addrkit::IpGenPrefix longestMatch4(const Trie* trie, const Addrkit::Prefix& p) {
  const U32 plen = p.len();
  U32 bestLen = 0;
  U32 bestAddr = 0;
  bool found = false;
  auto consider = [&](const Addrkit::Prefix& key, U32 len) {
    if (!found || len > bestLen) {
      found = true;
      bestLen = len;
      bestAddr = key.addrHost();
    }
  };

  Addrkit::Prefix key = trie->trieNode(rootPrefix).root();
  for (U32 depth = 0; key != nullPrefix; ++depth) {
    if (depth > Trie::ipv4TrieMaxDepth()) tooDeep(trie, "IPv4", Trie::ipv4TrieMaxDepth());
    TrieNode n = trie->trieNode(key);
    if (Family4::isAbsent(n)) break;
    const U32 len = n.key().len();
    const U32 c = Family4::commonLen(n.key(), p);
    U32 bits = blackUpTo(n.black(), c);
    // 0.0.0.0/32 cannot be stored as a route: its bit on that key is the default route.
    if (n.key() == prefix032) bits &= ~1u;
    if (bits) consider(n.key(), longestBlack(bits));
    if (c < len || c == plen) break;
    const U32 slot = childSlot(p, len);
    // A prefix of odd length len + 1 is carried by the node in the x0 slot;
    // it also covers the queries that go on into the x1 slot.
    if (slot & 1u) {
      const Addrkit::Prefix sibling = n.child(slot & 2u);
      if (sibling != nullPrefix && hasBlack(trie->trieNode(sibling), len + 1)) consider(sibling, len + 1);
    }
    key = n.child(slot);
  }
  if (found) return Addrkit::Prefix::masked(bestAddr, bestLen);
  if (trie->trieNode(prefix032).black() & 1u) return prefix00;
  return {};
}

Addrkit::IpGenPrefix longestMatch6(const Trie* trie, const Addrkit::Ip6Prefix& p) {
  const U32 plen = p.len();
  Addrkit::Ip6Prefix best;
  bool found = false;

  Addrkit::Ip6Prefix key = trie->trieNode6(rootPrefix6).leftChild();
  for (U32 depth = 0; key != nullPrefix6; ++depth) {
    if (depth > Trie::ipv6TrieMaxDepth()) tooDeep(trie, "IPv6", Trie::ipv6TrieMaxDepth());
    TrieNode6 n = trie->trieNode6(key);
    if (Family6::isAbsent(n)) break;
    const U32 len = n.key().len();
    const U32 c = Family6::commonLen(n.key(), p);
    if (U32 m = c ? prevBlack6(n, c) : 0) {
      best = Addrkit::Ip6Prefix::masked(n.key().address(), m);
      found = true;
    }
    if (c < len || c == plen) break;
    key = p.address().bit(len) ? n.rightChild() : n.leftChild();
  }
  if (found) return best;
  if (hasBlack6(trie->trieNode6(prefix0128), 128)) return prefix006;
  return {};
}

}  // namespace

Addrkit::IpGenPrefix Trie::longestMatch(const Addrkit::IpGenPrefix& prefix) const {
  switch (prefix.af()) {
    case Addrkit::AddressFamily::ipv4: return longestMatch4(this, prefix.v4());
    case Addrkit::AddressFamily::ipv6: return longestMatch6(this, prefix.v6());
    default: return {};
  }
}

void Trie::longestMatch(std::span<const Addrkit::IpGenPrefix> queries, std::span<Addrkit::IpGenPrefix> answers) const {
  if (answers.size() < queries.size())
    throw Basis::RangeException(fmt::format("longestMatch: {} answers for {} queries", answers.size(), queries.size()));
  for (size_t i = 0; i < queries.size(); ++i) answers[i] = longestMatch(queries[i]);
}

}  // namespace Routing::Lattice
