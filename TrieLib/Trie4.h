#pragma once
// IPv4 trie algorithms (stride 2) over TrieNode records.
#include <bit>

#include "TrieLib/BlackBits.h"
#include "TrieLib/DepotTrie.h"

namespace Routing::Lattice {
using Basis::U8, Basis::U16, Basis::U32, Basis::U64;

// Bit of length len (1..32) in a black word: 0x80000000 >> ((len - 1) mod 32).
// Length 0 wraps onto the bit of length 32.
inline U32 blackMask(U32 len) { return 0x80000000u >> ((len - 1u) & 31u); }
inline bool hasBlack(const TrieNode& n, U32 len) { return (n.black() & blackMask(len)) != 0; }
// c rounded down to an even number: the deepest branching point.
inline U32 evenCommonLen(U32 c) { return c & ~1u; }
// The two address bits after even length evenLen (< 32): 0..3 for child00..child11.
inline U32 childSlot(const Addrkit::Prefix& p, U32 evenLen) {
  return (p.addrHost() & (0xC0000000u >> evenLen)) >> (30 - evenLen);
}

void setBlack(TrieNode& node, unsigned int bitpos, bool value);
// The leading bits a and b share, at most maxLen.
inline U32 commonPrefixLen(const Addrkit::Prefix& a, const Addrkit::Prefix& b, unsigned int maxLen) {
  const U32 x = a.addrHost();
  const U32 y = b.addrHost();
  if (x == y) return maxLen;
  const U32 z = std::countl_zero(x ^ y);
  return z <= maxLen ? z : maxLen;
}
// By address, and on equal addresses the longer prefix after the shorter.
inline bool prefixLexicallyGreater4(const Addrkit::Prefix& a, const Addrkit::Prefix& b) {
  if (b.address() < a.address()) return true;
  if (a.address() == b.address()) return a.len() > b.len();
  return false;
}
// The key of the node that carries p: p itself for even lengths, one bit
// longer for odd lengths.
Addrkit::Prefix nodeKeyFor(const Addrkit::Prefix& p);

// Insertion.
void updateNode(Trie* trie, TrieNode& node, const Addrkit::Prefix& child, unsigned int slot);
void addNewNodeToCollection(Trie* trie, const Addrkit::Prefix& key, U32 blackBit);
void updateAndAddNewNode(Trie* trie, TrieNode& parent, unsigned int slot, const Addrkit::Prefix& prefix);
void updateAndExtendNode(Trie* trie, const Addrkit::Prefix& prefix, TrieNode& parent, TrieNode& node, U32 prefixLen);
void addSplitNodeToCollection(Trie* trie, const Addrkit::Prefix& prefix, U32 commonLen, U32 prefixBits,
                              TrieNode& parent, TrieNode& node);
void prefixIs4(Trie* trie, const Addrkit::Prefix& prefix);

// Deletion.
void hoistChild(Trie* trie, TrieNode& grandparent, TrieNode& parent, const Addrkit::Prefix& child);
bool prefixDel4(Trie* trie, const Addrkit::Prefix& prefix);

// Longest-prefix match.
TrieNode lpm4Node(const Trie* trie, const Addrkit::Prefix& prefix);
Addrkit::IpGenPrefix lpm4(const Trie* trie, const Addrkit::Prefix& prefix);

// Successor.
Addrkit::IpGenPrefix getNext4(const Trie* trie, const Addrkit::Prefix& prefix);
Addrkit::IpGenPrefix doGetNext4(const Trie* trie, const Addrkit::Prefix& nodeKey, const Addrkit::Prefix& prefix,
                                U32 recursionDepth);

// Pre-order walk; false when the callback aborted.
bool doPreOrderWalk(const Trie* trie, const Basis::Ptr<TrieWalkCallback>& callback, const Addrkit::Prefix& key,
                    bool allLengths);
// The IPv4 branch of Trie::preOrderWalk.
void preOrderWalk4(const Trie* trie, const Basis::Ptr<TrieWalkCallback>& callback, const Addrkit::Prefix& subtreeRoot);

}  // namespace Routing::Lattice
