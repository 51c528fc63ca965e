#pragma once
// IPv6 trie algorithms (binary) over TrieNode6 records.
#include <algorithm>
#include <bit>

#include "TrieLib/DepotTrie.h"

namespace Routing::Lattice {
using Basis::U8, Basis::U16, Basis::U32, Basis::U64;

// Word (len - 1) / 32 and bit 0x80000000 >> ((len - 1) mod 32); length 0
// wraps onto the bit of length 128.
bool hasBlack6(const TrieNode6& n, U32 len);
bool anyBlack6(const TrieNode6& n);
void setBlack6(TrieNode6& node, U32 bitpos, bool value);
// Smallest marked length, 0 when none.
U32 firstBlack6(const TrieNode6& node);
U32 nextBlack6(TrieNode6& node, U32 bitPos);
U32 prevBlack6(TrieNode6& node, U32 bitPos);
// The leading bits a and b share, at most maxLen.
inline U32 commonPrefixLen6(const Addrkit::Ip6Prefix& a, const Addrkit::Ip6Prefix& b, unsigned int maxLen) {
  for (U32 k = 0; k < 4; ++k) {
    const U32 x = a.word(k);
    const U32 y = b.word(k);
    if (x != y) return 32 * k + std::min<U32>(std::countl_zero(x ^ y), maxLen - 32 * k);
    if (32 * (k + 1) >= maxLen) return maxLen;
  }
  return 128;
}
// By address, and on equal addresses the longer prefix after the shorter.
inline bool prefixLexicallyGreater6(const Addrkit::Ip6Prefix& a, const Addrkit::Ip6Prefix& b) {
  if (b.address() < a.address()) return true;
  if (a.address() != b.address()) return false;
  return b.len() < a.len();
}

// Insertion.
void updateNode6(Trie* trie, TrieNode6& node, const Addrkit::Ip6Prefix& prefix, bool right);
void addNewNodeToCollection6(Trie* trie, const Addrkit::Ip6Prefix& prefix);
void updateAndExtendNode6(Trie* trie, const Addrkit::Ip6Prefix& prefix, TrieNode6& parent, TrieNode6& node,
                          bool right);
void addSplitNodeToCollection6(Trie* trie, const Addrkit::Ip6Prefix& prefix, U32 commonLen, bool right,
                               TrieNode6& parent, TrieNode6& node);
void prefixIs6(Trie* trie, const Addrkit::Ip6Prefix& prefix);

// Deletion.
void hoistChild6(Trie* trie, TrieNode6& grandparent, TrieNode6& parent, const Addrkit::Ip6Prefix& sibling);
bool prefixDel6(Trie* trie, const Addrkit::Ip6Prefix& prefix);

// Longest-prefix match.
TrieNode6 lpm6Node(const Trie* trie, const Addrkit::Ip6Prefix& prefix);
Addrkit::IpGenPrefix lpm6(const Trie* trie, const Addrkit::Ip6Prefix& prefix);

// Successor.
Addrkit::IpGenPrefix getNext6(const Trie* trie, const Addrkit::Ip6Prefix& prefix);
Addrkit::IpGenPrefix doGetNext6(const Trie* trie, const Addrkit::Ip6Prefix& nodeKey,
                                const Addrkit::Ip6Prefix& prefix, U32 recursionDepth);

// Pre-order walk; false when the callback aborted.
bool doPreOrderWalk6(const Trie* trie, const Basis::Ptr<TrieWalkCallback>& callback, const Addrkit::Ip6Prefix& key,
                     bool allLengths);
// The IPv6 branch of Trie::preOrderWalk.
void preOrderWalk6(const Trie* trie, const Basis::Ptr<TrieWalkCallback>& callback,
                   const Addrkit::Ip6Prefix& subtreeRoot);

}  // namespace Routing::Lattice
