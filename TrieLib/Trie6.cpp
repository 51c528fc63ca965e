// IPv6 trie algorithms: a binary, path-compressed trie over TrieNode6
// records, one record per node in the trieNode6 table, keyed by the node key.
//
//                 root record ffff:...:ffff/128   (leftChild: the top node)
//                              |
//                      2001:db8::/32 {32}
//                     0 /           \ 1
//        2001:db8::/48 {33, 48}   2001:db8:8000::/33 {}
//                                   0 /          \ 1
//                      2001:db8:8000::/40 {40}  2001:db8:c000::/34 {34}
//
//   {..}: lengths marked black.
//
// Node:  black0..black3 mark the stored prefixes along the node key: the bit
//        of length l (word (l-1)/32) set means the key cut to l bits is
//        stored. The marked lengths lie on the node's own edge, after its
//        parent's length and up to its own. Any length can be a node key; a
//        prefix is stored on the node keyed by itself or on an edge through it.
// Slots: a node has two children (leftChild for a 0 bit after its length,
//        rightChild for 1) or none. An empty slot holds nullPrefix6, the root
//        record's key; a descent that follows one reads the root record and
//        stops there.
// Reserved: ::/0 is kept as bit 128 of its own record at ::/128, outside the
//        tree; ::/128 and ffff:...:ffff/128 are refused.
// White: records without black bits are the root record, branching nodes
//        made by a split, and nodes whose prefixes went while they kept
//        children; a node left white and childless is removed, and its
//        sibling takes the parent's place.
// Depth: key lengths 0..128 make at most 129 nodes on a path (128 descents
//        below the top node); a descent beyond that asserts, a walk raises.
//
// Every change is made on a copy of a record and written back whole, parent
// before child, and a replaced record is removed only after its replacement
// is written: between two writes of one update a child key can name a record
// not written yet, which reads as the absent record and ends a descent.
#include "TrieLib/Trie6.h"

#include <algorithm>
#include <bit>
#include <optional>
#include <string>

#include "Ringlog/Ringlog.h"
#include "TrieLib/TrieFamilyOps.h"

namespace Routing::Lattice {
namespace {

constexpr const char* prefixIs6Signature =
    "void Routing::Lattice::prefixIs6(Routing::Lattice::Trie*, const Addrkit::Ip6Prefix&)";
constexpr const char* prefixDel6Signature =
    "bool Routing::Lattice::prefixDel6(Routing::Lattice::Trie*, const Addrkit::Ip6Prefix&)";
constexpr const char* lpm6NodeSignature =
    "Routing::Lattice::TrieNode6 Routing::Lattice::lpm6Node(const Routing::Lattice::Trie*, const Addrkit::Ip6Prefix&)";
constexpr const char* nextBlack6Signature = "U32 Routing::Lattice::nextBlack6(Routing::Lattice::TrieNode6&, U32)";
constexpr const char* depthText = "trieDepth++ <= 128";
constexpr U32 maxDescents = Family6::maxDescents;

// Word and mask of length len; length 0 wraps onto the bit of length 128.
U32 blackWord6(U32 len) { return std::min((len - 1u) / 32u, 3u); }
U32 blackMask6(U32 len) { return 0x80000000u >> ((len - 1u) % 32u); }

bool isLeaf6(const TrieNode6& n) { return n.leftChild() == nullPrefix6 && n.rightChild() == nullPrefix6; }

U32 keyBit(const Addrkit::Ip6Prefix& p, U32 n) { return p.address().bit(n); }

}  // namespace

// ---- Bit operations ----

bool hasBlack6(const TrieNode6& n, U32 len) { return (n.black(blackWord6(len)) & blackMask6(len)) != 0; }

bool anyBlack6(const TrieNode6& n) { return (n.black0() | n.black1() | n.black2() | n.black3()) != 0; }

void setBlack6(TrieNode6& node, U32 bitpos, bool value) {
  TRIE_TRACE(3, "setBlack6 prefix: {} bitpos: {} value: {}", node.key(), bitpos, value);
  const U32 w = blackWord6(bitpos);
  const U32 mask = blackMask6(bitpos);
  node.blackIs(w, value ? node.black(w) | mask : node.black(w) & ~mask);
}

U32 firstBlack6(const TrieNode6& node) {
  for (U32 w = 0; w < 4; ++w) {
    if (node.black(w) != 0) return 32 * w + shortestBlack(node.black(w));
  }
  return 0;
}

U32 nextBlack6(TrieNode6& node, U32 bitPos) {
  TRIE_TRACE(9, "nextBlack6({}), Black bits 0: {:x}, Black bits 1: {:x}, Black bits 2: {:x}, Black bits 3: {:x}",
             bitPos, node.black0(), node.black1(), node.black2(), node.black3());
  TRIE_ASSERT(bitPos <= 128, "bitPos <= 128 && \"invalid bit position\"", nextBlack6Signature);
  if (bitPos == 128) return 0;
  U32 offset = bitPos % 32;
  for (U32 w = bitPos / 32; w < 4; ++w, offset = 0) {
    TRIE_TRACE(9, "nextBlack({}), black bits: {:x}", offset, node.black(w));
    // Keep the bits of the lengths after bitPos.
    const U32 bits = node.black(w) & ~lengthsUpTo(offset);
    if (bits != 0) return 32 * w + shortestBlack(bits);
  }
  return 0;
}

U32 prevBlack6(TrieNode6& node, U32 bitPos) {
  // Length 0 has no previous length; no length lies above 128.
  if (bitPos == 0) return 0;
  bitPos = std::min(bitPos, 128u);
  for (U32 w = (bitPos - 1) / 32 + 1; w-- > 0;) {
    const U32 bits = node.black(w) & lengthsUpTo(w, bitPos);
    TRIE_TRACE(7, "prevBlack6({}), word {}: {:x}", bitPos, w, bits);
    if (bits != 0) return 32 * w + longestBlack(bits);
  }
  return 0;
}

// ---- Insertion ----

void updateNode6(Trie* trie, TrieNode6& node, const Addrkit::Ip6Prefix& prefix, bool right) {
  TRIE_TRACE(4, "updateNode6 node prefix: {} adding prefix: {}", node.key(), prefix);
  if (node.key() == rootPrefix6 || !right) {
    node.leftChildIs(prefix);
  } else {
    node.rightChildIs(prefix);
  }
  trie->trieNode6Is(node);
}

void addNewNodeToCollection6(Trie* trie, const Addrkit::Ip6Prefix& prefix) {
  RINGLOG_BLOCK(trieSourcePath,
                "void Routing::Lattice::addNewNodeToCollection6(Routing::Lattice::Trie*, const Addrkit::Ip6Prefix&)");
  TRIE_TRACE(4, "addNewNodeToCollection6 Inserting node. Prefix: {}", prefix);
  TrieNode6 leaf(prefix);
  setBlack6(leaf, prefix.len(), true);
  trie->trieNode6Is(leaf);
}

// The leaf `node` is replaced by a leaf keyed prefix that keeps node's marks.
// The side below node (the last argument) plays no part: the side below the
// parent is taken from the keys.
void updateAndExtendNode6(Trie* trie, const Addrkit::Ip6Prefix& prefix, TrieNode6& parent, TrieNode6& node, bool) {
  RINGLOG_BLOCK(trieSourcePath,
                "void Routing::Lattice::updateAndExtendNode6(Routing::Lattice::Trie*, const Addrkit::Ip6Prefix&, "
                "Routing::Lattice::TrieNode6&, Routing::Lattice::TrieNode6&, bool)");
  const U32 pLen = commonPrefixLen6(parent.key(), prefix, std::min(prefix.len(), parent.key().len()));
  updateNode6(trie, parent, prefix, keyBit(prefix, pLen));

  TRIE_TRACE(4, "updateAndExtendNode6 Extending node: {} with new prefix: {}", node.key(), prefix);
  TrieNode6 extended(prefix);
  for (U32 w = 0; w < 4; ++w) extended.blackIs(w, node.black(w));
  setBlack6(extended, prefix.len(), true);
  trie->trieNode6Is(extended);

  TRIE_TRACE(4, "updateAndExtendNode6 Deleting node with prefix: {}", node.key());
  trie->trieNode6Del(node.key());
}

// `prefix` leaves the edge of `node` at commonLen: a branching node of that
// length takes node's place under `parent`, with the new leaf on side
// `right` and node on the other. Node's marks up to commonLen move to the
// branching node.
void addSplitNodeToCollection6(Trie* trie, const Addrkit::Ip6Prefix& prefix, U32 commonLen, bool right,
                               TrieNode6& parent, TrieNode6& node) {
  RINGLOG_BLOCK(trieSourcePath,
                "void Routing::Lattice::addSplitNodeToCollection6(Routing::Lattice::Trie*, const Addrkit::Ip6Prefix&, "
                "U32, bool, Routing::Lattice::TrieNode6&, Routing::Lattice::TrieNode6&)");
  const Addrkit::Ip6Prefix splitPrefix = Family6::prefixAlong(prefix, commonLen);
  const U32 pLen = commonPrefixLen6(parent.key(), splitPrefix, std::min(splitPrefix.len(), parent.key().len()));
  updateNode6(trie, parent, splitPrefix, parent.key() != rootPrefix6 && keyBit(splitPrefix, pLen));

  TrieNode6 split(splitPrefix);
  updateNode6(trie, split, prefix, right);
  addNewNodeToCollection6(trie, prefix);
  updateNode6(trie, split, node.key(), keyBit(node.key(), commonLen));

  for (U32 w = 0; w < 4; ++w) {
    const U32 upTo = lengthsUpTo(w, commonLen);
    split.blackIs(w, node.black(w) & upTo);
    node.blackIs(w, node.black(w) & ~upTo);
  }
  TRIE_TRACE(4,
             "addSplitNodeToCollection6 Inserting split node. Prefix: {} new black0: {} new black1: {} new black2: "
             "{} new black3: {} LeftChild: {} RightChild: {}",
             splitPrefix, split.black0(), split.black1(), split.black2(), split.black3(), split.leftChild(),
             split.rightChild());
  trie->trieNode6Is(split);

  TRIE_TRACE(4, "addSplitNodeToCollection6 node prefix: {} new black0: {} new black1: {} new black2: {} new black3: {}",
             node.key(), node.black0(), node.black1(), node.black2(), node.black3());
  trie->trieNode6Is(node);
}

void prefixIs6(Trie* trie, const Addrkit::Ip6Prefix& prefix) {
  if (insertedAsReserved<Family6>(trie, prefix, "prefixIs6")) return;
  TRIE_TRACE(8, "prefixIs6 Inserting prefix: {}", prefix);
  // The descent usually ends at the node of the prefix itself: its lookup in
  // the table starts now and overlaps the descent.
  trie->trieNode6Map().table().prefetch(reinterpret_cast<const U8*>(&prefix));

  TrieNode6 parent = trie->trieNode6(rootPrefix6);
  if (parent.leftChild() == nullPrefix6) {
    TRIE_TRACE(7, "prefixIs6 Initializing root. Prefix: {}", prefix);
    updateNode6(trie, parent, prefix, false);
    addNewNodeToCollection6(trie, prefix);
    return;
  }

  TrieNode6 node = trie->trieNode6(parent.leftChild());
  U32 descents = 0;
  for (;;) {
    TRIE_TRACE(7, "prefixIs6 Current node: {} black0: {:x} black1: {:x} black2: {:x} black3: {:x} left: {} right: {}",
               node.key(), node.black0(), node.black1(), node.black2(), node.black3(), node.leftChild(),
               node.rightChild());
    const U32 commonLen = commonPrefixLen6(node.key(), prefix, std::min(node.key().len(), prefix.len()));
    if (commonLen == prefix.len()) {
      TRIE_TRACE(7, "prefixIs6 Exact match. Flip black bit, update, and return");
      if (!hasBlack6(node, prefix.len())) setBlack6(node, prefix.len(), true);
      trie->trieNode6Is(node);
      return;
    }
    const bool bit = keyBit(prefix, commonLen);
    if (commonLen != node.key().len()) {
      TRIE_TRACE(7, "prefixIs6 Split Node");
      addSplitNodeToCollection6(trie, prefix, commonLen, bit, parent, node);
      return;
    }
    if (isLeaf6(node)) {
      TRIE_TRACE(7, "prefixIs6 Leaf found, extend");
      updateAndExtendNode6(trie, prefix, parent, node, bit);
      return;
    }
    const Addrkit::Ip6Prefix child = bit ? node.rightChild() : node.leftChild();
    TRIE_TRACE(7, "prefixIs6 Branch node, need to keep traversing going to {}", child);
    TRIE_ASSERT(++descents <= maxDescents, depthText, prefixIs6Signature);
    parent = node;
    node = trie->trieNode6(child);
  }
}

// ---- Longest-prefix match ----

TrieNode6 lpm6Node(const Trie* trie, const Addrkit::Ip6Prefix& prefix) {
  TRIE_TRACE(8, "lpm6Node lpm for prefix: {}", prefix);
  TrieNode6 node = trie->trieNode6(trie->trieNode6(rootPrefix6).leftChild());
  TrieNode6 lastMatch = Family6::absent();
  U32 descents = 0;
  for (;;) {
    TRIE_TRACE(7,
               "lpm6Node Current node: {} black0: 0x{:x} black1: 0x{:x} black2: 0x{:x} black3: 0x{:x} left: {} "
               "right: {}",
               node.key(), node.black0(), node.black1(), node.black2(), node.black3(), node.leftChild(),
               node.rightChild());
    const U32 commonLen = commonPrefixLen6(node.key(), prefix, std::min(prefix.len(), node.key().len()));
    // The query ends on this node's edge: lpm6 reads the answer from it alone.
    if (commonLen == prefix.len()) return node;
    if (commonLen != node.key().len()) {
      const U32 m = commonLen > 0 ? prevBlack6(node, commonLen) : 0;
      TRIE_TRACE(7, "lpm6Node CommonLen: {} node key len: {}", commonLen, node.key().len());
      return m != 0 ? node : lastMatch;
    }
    const bool bit = keyBit(prefix, commonLen);
    TRIE_TRACE(7, "lpm6Node Common len: {} node key len: {}", commonLen, node.key().len());
    bool covers = hasBlack6(node, commonLen);
    if (!covers) {
      const U32 m = prevBlack6(node, commonLen);
      TRIE_TRACE(7, "lpm6Node previousBlack: {}", m);
      covers = m != 0;
    }
    if (covers) {
      lastMatch = node;
      TRIE_TRACE(7, "lpm6Node New lastMatch: {}", node.key());
    }
    TRIE_TRACE(7, "lpm6Node lastMatch: {}", lastMatch.key());
    const Addrkit::Ip6Prefix child = bit ? node.rightChild() : node.leftChild();
    if (child == nullPrefix6) return lastMatch;
    TRIE_ASSERT(++descents <= maxDescents, depthText, lpm6NodeSignature);
    node = trie->trieNode6(child);
  }
}

Addrkit::IpGenPrefix lpm6(const Trie* trie, const Addrkit::Ip6Prefix& prefix) {
  if (std::optional<Addrkit::IpGenPrefix> answer = lookedUpAsReserved<Family6>(trie, prefix)) return *answer;
  TRIE_TRACE(8, "lpm6 lpm for prefix: {}", prefix);
  return lpmAnswer<Family6>(trie, prefix);
}

// ---- Deletion ----

// `parent` goes and `sibling` takes its place under `grandparent`, taking
// over the marks of parent's edge, which now begins its own.
void hoistChild6(Trie* trie, TrieNode6& grandparent, TrieNode6& parent, const Addrkit::Ip6Prefix& sibling) {
  updateNode6(trie, grandparent, sibling, grandparent.key() != rootPrefix6 && keyBit(sibling, grandparent.key().len()));

  TrieNode6 hoisted = trie->trieNode6(sibling);
  TRIE_TRACE(4,
             "hoistChild6 hoist node: {} black0: {} black1: {} black2: {} black3: {} parent node: {} black0: {} "
             "black1: {} black2: {} black3: {}",
             hoisted.key(), hoisted.black0(), hoisted.black1(), hoisted.black2(), hoisted.black3(), parent.key(),
             parent.black0(), parent.black1(), parent.black2(), parent.black3());
  for (U32 w = 0; w < 4; ++w) hoisted.blackIs(w, hoisted.black(w) | parent.black(w));
  TRIE_TRACE(4, "hoistChild6 hoist node's new black0: {} new black1: {} new black2: {} new black3: {}",
             hoisted.black0(), hoisted.black1(), hoisted.black2(), hoisted.black3());
  trie->trieNode6Is(hoisted);
  trie->trieNode6Del(parent.key());
}

bool prefixDel6(Trie* trie, const Addrkit::Ip6Prefix& prefix) {
  if (std::optional<bool> done = deletedAsReserved<Family6>(trie, prefix, "prefixDel6")) return *done;
  TRIE_TRACE(8, "prefixDel6 Deleting prefix: {}", prefix);
  trie->trieNode6Map().table().prefetch(reinterpret_cast<const U8*>(&prefix));

  TrieNode6 parent = trie->trieNode6(rootPrefix6);
  if (parent.leftChild() == nullPrefix6) {
    TRIE_TRACE(7, "prefixDel6 No root installed... prefix doesn't exist: {}", prefix);
    return false;
  }
  std::optional<TrieNode6> grandparent;
  TrieNode6 node = trie->trieNode6(parent.leftChild());
  U32 descents = 0;
  for (;;) {
    TRIE_TRACE(7, "prefixDel6 Grandparent node: {} parent node: {}",
               grandparent ? grandparent->key().stringValue() : std::string("none"), parent.key());
    TRIE_TRACE(7, "prefixDel6 Current node: {} black0: {:x} black1: {:x} black2: {:x} black3: {:x} left: {} right: {}",
               node.key(), node.black0(), node.black1(), node.black2(), node.black3(), node.leftChild(),
               node.rightChild());
    const U32 commonLen = commonPrefixLen6(node.key(), prefix, std::min(prefix.len(), node.key().len()));
    if (commonLen == prefix.len()) {
      TRIE_TRACE(7, "prefixDel6 Exact match found!");
      break;
    }
    const bool bit = commonLen == node.key().len() && keyBit(prefix, commonLen);
    const Addrkit::Ip6Prefix child = bit ? node.rightChild() : node.leftChild();
    // Leaving the edge inside the node, or below a leaf: not stored.
    if (commonLen != node.key().len() || child == nullPrefix6) {
      TRIE_TRACE(9, "prefixDel6 Failed to delete prefix: {} because it does not exist in Trie", prefix);
      return false;
    }
    TRIE_TRACE(7, "prefixDel6 CommonLen == node.key.len: {} bit: {} traversing... going to {}", commonLen, bit, child);
    TRIE_ASSERT(++descents <= maxDescents, depthText, prefixDel6Signature);
    grandparent = parent;
    parent = node;
    node = trie->trieNode6(child);
  }

  if (!hasBlack6(node, prefix.len())) {
    TRIE_TRACE(7, "prefixDel6 White node. Cannot delete");
    return false;
  }
  TRIE_TRACE(7, "prefixDel6 Turning off black bit");
  setBlack6(node, prefix.len(), false);
  trie->trieNode6Is(node);
  if (anyBlack6(node) || !isLeaf6(node)) return true;

  if (!grandparent) {
    updateNode6(trie, parent, nullPrefix6, false);
    trie->trieNode6Del(node.key());
    return true;
  }
  TRIE_TRACE(7, "prefixDel6 Hoisting child");
  const Addrkit::Ip6Prefix sibling = parent.leftChild() == node.key() ? parent.rightChild() : parent.leftChild();
  hoistChild6(trie, *grandparent, parent, sibling);
  trie->trieNode6Del(node.key());
  return true;
}

// ---- Successor ----

Addrkit::IpGenPrefix getNext6(const Trie* trie, const Addrkit::Ip6Prefix& prefix) {
  return successor<Family6>(trie, prefix);
}

Addrkit::IpGenPrefix doGetNext6(const Trie* trie, const Addrkit::Ip6Prefix& nodeKey, const Addrkit::Ip6Prefix& prefix,
                                U32 recursionDepth) {
  return successorBelow<Family6>(trie, nodeKey, prefix, recursionDepth);
}

// ---- Pre-order walk ----

bool doPreOrderWalk6(const Trie* trie, const Basis::Ptr<TrieWalkCallback>& callback, const Addrkit::Ip6Prefix& key,
                     bool allLengths) {
  CallbackVisitor visitor(callback);
  return walkBelow<Family6>(trie, visitor, key, allLengths, 0);
}

void walkFamily6(const Trie* trie, WalkVisitor& visitor, const Addrkit::Ip6Prefix& subtreeRoot) {
  walkFamily<Family6>(trie, visitor, subtreeRoot);
}

void walkCovered6(const Trie* trie, WalkVisitor& visitor, const Addrkit::Ip6Prefix& p) {
  walkCovered<Family6>(trie, visitor, p);
}

void preOrderWalk6(const Trie* trie, const Basis::Ptr<TrieWalkCallback>& callback,
                   const Addrkit::Ip6Prefix& subtreeRoot) {
  CallbackVisitor visitor(callback);
  walkFamily6(trie, visitor, subtreeRoot);
}

}  // namespace Routing::Lattice
