// IPv4 trie algorithms: a path-compressed trie of stride 2 over TrieNode
// records, one record per node in the trieNode table, keyed by the node key.
//
//                   root record 255.255.255.255/32   (child00: the top node)
//                                |
//                        10.0.0.0/8 {8}
//               00 /          10 |             \ 11
//      10.0.0.0/16 {16}   10.128.0.0/10 {9}   10.192.0.0/16 {16}
//
//   {..}: lengths marked black. 10.128.0.0/9 is stored on 10.128.0.0/10.
//
// Node:  black marks the stored prefixes along the node key: bit of length l
//        (blackMask) set means the key cut to l bits is stored. The marked
//        lengths lie on the node's own edge, after its parent's length and up
//        to its own. An odd-length prefix p/l is carried by the node keyed
//        p/(l+1) (nodeKeyFor); when a branching node of length l-1 splits the
//        edge, it moves to the child in the pair's x0 slot (a new node when
//        there is none), so lpm does not see it from the x1 slot
//        (Trie::longestMatch does).
// Slots: an empty slot holds nullPrefix, which is the root record's key; a
//        descent that follows one reads the root record and stops there.
// Reserved: 0.0.0.0/0 is kept as bit 32 of its own record at 0.0.0.0/32,
//        outside the tree; 0.0.0.0/32 and 255.255.255.255/32 are refused.
// White: records without black bits are the root record, branching nodes
//        made by a split, and nodes whose prefixes went while they kept
//        children; a node left white and childless is removed.
// Depth: keys 0, 2, ..., 32 make at most 17 nodes on a path (16 descents
//        below the top node); a descent beyond that asserts, a walk raises.
//
// Every change is made on a copy of a record and written back whole, parent
// before child: between two writes of one update a child key can name a
// record not written yet, which reads as the absent record and ends a
// descent. Readers that need a settled answer use ConsistentReader.
#include "TrieLib/Trie4.h"

#include <algorithm>
#include <bit>

#include "Ringlog/Ringlog.h"
#include "TrieLib/TrieFamilyOps.h"

namespace Routing::Lattice {
namespace {

constexpr const char* prefixIs4Signature =
    "void Routing::Lattice::prefixIs4(Routing::Lattice::Trie*, const Addrkit::Prefix&)";
constexpr const char* prefixDel4Signature =
    "bool Routing::Lattice::prefixDel4(Routing::Lattice::Trie*, const Addrkit::Prefix&)";
constexpr const char* lpm4NodeSignature =
    "Routing::Lattice::TrieNode Routing::Lattice::lpm4Node(const Routing::Lattice::Trie*, const Addrkit::Prefix&)";
constexpr const char* depthText = "trieDepth++ <= 16";
constexpr U32 maxDescents = Family4::maxDescents;

bool isLeaf(const TrieNode& n) {
  return n.child00() == nullPrefix && n.child01() == nullPrefix && n.child10() == nullPrefix &&
         n.child11() == nullPrefix;
}

// The slot of `key` below `parent`: the two bits of key after the even length
// that the two keys share. The root record keeps its one child in child00.
U32 slotBelow(const TrieNode& parent, const Addrkit::Prefix& key) {
  if (parent.key() == rootPrefix) return 0;
  U32 c = commonPrefixLen(parent.key(), key, std::min(parent.key().len(), key.len()));
  return childSlot(key, evenCommonLen(c));
}

// The address of `key` cut to `len` bits, as a key of length keyLen; throws
// the range error when that is not a valid prefix.
Addrkit::Prefix cutKey(const Addrkit::Prefix& key, U32 len, U32 keyLen) {
  return Addrkit::Prefix(Addrkit::Ip4Address::fromHost(key.addrHost() & lengthsUpTo(len)), keyLen);
}

// The descent usually ends at the node of the prefix itself: its lookup in
// the table starts now and overlaps the descent.
void prefetchNode(const Trie* trie, const Addrkit::Prefix& prefix) {
  const Addrkit::Prefix key = nodeKeyFor(prefix);
  trie->trieNodeMap().table().prefetch(reinterpret_cast<const U8*>(&key));
}

}  // namespace

// ---- Bit operations ----

void setBlack(TrieNode& node, unsigned int bitpos, bool value) {
  U32 mask = blackMask(bitpos);
  node.blackIs(value ? node.black() | mask : node.black() & ~mask);
  TRIE_TRACE(3, "setBlack prefix: {} bitpos: {} value: {}, new black: {:x}", node.key(), bitpos, value,
             node.black());
}

Addrkit::Prefix nodeKeyFor(const Addrkit::Prefix& p) {
  if (p.len() % 2 == 0) return p;
  return Addrkit::Prefix(p.address(), p.len() + 1);
}

// ---- Insertion ----

void updateNode(Trie* trie, TrieNode& node, const Addrkit::Prefix& child, unsigned int slot) {
  TRIE_TRACE(4, "updateNode node prefix: {} adding prefix: {}", node.key(), child);
  if (node.key() == rootPrefix) {
    node.child00Is(child);
  } else {
    node.childIs(slot, child);
  }
  trie->trieNodeIs(node);
}

void addNewNodeToCollection(Trie* trie, const Addrkit::Prefix& key, U32 blackBit) {
  RINGLOG_BLOCK(trieSourcePath,
                "void Routing::Lattice::addNewNodeToCollection(Routing::Lattice::Trie*, const Addrkit::Prefix&, U32)");
  TrieNode node(key);
  setBlack(node, blackBit, true);
  TRIE_TRACE(4, "addNewNodeToCollection Inserting node. Prefix: {}", key);
  trie->trieNodeIs(node);
}

void updateAndAddNewNode(Trie* trie, TrieNode& parent, unsigned int slot, const Addrkit::Prefix& prefix) {
  Addrkit::Prefix key = nodeKeyFor(prefix);
  updateNode(trie, parent, key, slot);
  addNewNodeToCollection(trie, key, prefix.len());
}

// The leaf `node` under `parent` is replaced by a longer node that carries the
// leaf's prefixes and the new one.
void updateAndExtendNode(Trie* trie, const Addrkit::Prefix& prefix, TrieNode& parent, TrieNode& node,
                         U32 prefixLen) {
  Addrkit::Prefix key = nodeKeyFor(prefix);
  updateNode(trie, parent, key, slotBelow(parent, prefix));
  TRIE_TRACE(4, "updateAndExtendNode Extending node: {} with new prefix: {}", node.key(), key);
  TrieNode extended(key);
  extended.blackIs(node.black());
  setBlack(extended, prefixLen, true);
  trie->trieNodeIs(extended);
  TRIE_TRACE(4, "updateAndExtendNode Deleting node with prefix: {}", node.key());
  trie->trieNodeDel(node.key());
}

// `prefix` leaves the edge of `node` at the even length commonLen: a split
// node of that length takes node's place under `parent`, with node and the
// new prefix's node below it. The prefix of length commonLen + 1 along node's
// key (the dangling bit) is carried by the child in the x0 slot of its pair:
// node itself, the new prefix's node, or a node made for it.
void addSplitNodeToCollection(Trie* trie, const Addrkit::Prefix& prefix, U32 commonLen, U32 prefixBits,
                              TrieNode& parent, TrieNode& node) {
  const U32 splitLen = commonLen;
  Addrkit::Prefix key = nodeKeyFor(prefix);
  Addrkit::Prefix splitKey = cutKey(prefix, splitLen, splitLen);
  updateNode(trie, parent, splitKey, slotBelow(parent, splitKey));

  TrieNode split(splitKey);
  updateNode(trie, split, key, prefixBits);
  addNewNodeToCollection(trie, key, prefix.len());

  const U32 nodeBits = childSlot(node.key(), splitLen);
  const bool danglingBitIsBlack = hasBlack(node, splitLen + 1);
  const U32 danglingSlotPair = nodeBits & ~1u;
  // Node gives up its bits up to movedUpTo: those up to splitLen go to the
  // split node, the dangling bit to the node that carries it.
  U32 movedUpTo = splitLen;
  if (danglingBitIsBlack && prefixBits == danglingSlotPair) {
    TrieNode carrier = trie->trieNode(key);
    setBlack(carrier, splitLen + 1, true);
    trie->trieNodeIs(carrier);
    movedUpTo = splitLen + 1;
  }

  updateNode(trie, split, node.key(), nodeBits);
  split.blackIs(blackUpTo(node.black(), splitLen));
  TRIE_TRACE(4,
             "addSplitNodeToCollection Inserting split node. Prefix: {} new black: {} child00: {} child01: {} "
             "child10: {} child11: {}, node bits: {}, prefix bits: {}, DanglingPBs: {}, DanglingBB: {}",
             splitKey, split.black(), split.child00(), split.child01(), split.child10(), split.child11(), nodeBits,
             prefixBits, danglingSlotPair, danglingBitIsBlack);
  trie->trieNodeIs(split);

  if (danglingBitIsBlack && danglingSlotPair != nodeBits && danglingSlotPair != prefixBits) {
    Addrkit::Prefix danglingKey = cutKey(node.key(), splitLen + 1, splitLen + 2);
    addNewNodeToCollection(trie, danglingKey, splitLen + 1);
    updateNode(trie, split, danglingKey, danglingSlotPair);
    movedUpTo = splitLen + 1;
  }

  node.blackIs(node.black() & ~lengthsUpTo(movedUpTo));
  TRIE_TRACE(4, "addSplitNodeToCollection node prefix: {} new black: {}", node.key(), node.black());
  trie->trieNodeIs(node);
}

void prefixIs4(Trie* trie, const Addrkit::Prefix& prefix) {
  if (insertedAsReserved<Family4>(trie, prefix, "prefixIs4")) return;
  TRIE_TRACE(8, "prefixIs4 Inserting prefix: {}", prefix);
  prefetchNode(trie, prefix);

  TrieNode parent = trie->trieNode(rootPrefix);
  if (parent.root() == nullPrefix) {
    TRIE_TRACE(7, "prefixIs4 Initializing root. Possibly adjusting prefix: {}", prefix);
    updateAndAddNewNode(trie, parent, 0, prefix);
    return;
  }

  TrieNode node = trie->trieNode(parent.root());
  U32 descents = 0;
  for (;;) {
    TRIE_TRACE(7, "prefixIs4 Current node: {} black: {} child00: {} child01: {} child10: {} child11: {}", node.key(),
               node.black(), node.child00(), node.child01(), node.child10(), node.child11());
    const U32 c = commonPrefixLen(node.key(), prefix, std::min(node.key().len(), prefix.len()));
    const U32 evenLen = evenCommonLen(c);
    if (c == prefix.len()) {
      TRIE_TRACE(7, "prefixIs4 Exact match. Flip black bit, update, return");
      if (!hasBlack(node, prefix.len())) setBlack(node, prefix.len(), true);
      trie->trieNodeIs(node);
      return;
    }
    const U32 slot = childSlot(prefix, evenLen);
    TRIE_TRACE(7, "prefixIs4 prefix {} evenCommonLen: {} bits: {}", prefix, evenLen, slot);
    if (evenLen != node.key().len()) {
      TRIE_TRACE(7, "prefixIs4 Split node");
      addSplitNodeToCollection(trie, prefix, evenLen, slot, parent, node);
      return;
    }
    if (isLeaf(node)) {
      TRIE_TRACE(7, "prefixIs4 Leaf found, extend");
      updateAndExtendNode(trie, prefix, parent, node, prefix.len());
      return;
    }
    const Addrkit::Prefix child = node.child(slot);
    if (child == nullPrefix) {
      updateAndAddNewNode(trie, node, slot, prefix);
      return;
    }
    TRIE_TRACE(7, "prefixIs4 Branch Node. Need to keep traversing... going to {}", child);
    parent = node;
    node = trie->trieNode(child);
    TRIE_ASSERT(++descents <= maxDescents, depthText, prefixIs4Signature);
  }
}

// ---- Deletion ----

// `parent` has lost its other children: `child` takes its place under
// `grandparent` and takes over its stored prefixes, which all lie on the
// child's now longer edge.
void hoistChild(Trie* trie, TrieNode& grandparent, TrieNode& parent, const Addrkit::Prefix& child) {
  updateNode(trie, grandparent, child, slotBelow(grandparent, child));
  TrieNode hoisted = trie->trieNode(child);
  TRIE_TRACE(4, "hoistChild hoist node: {} black: {} parent node: {} black: {}", hoisted.key(), hoisted.black(),
             parent.key(), parent.black());
  hoisted.blackIs(hoisted.black() | parent.black());
  TRIE_TRACE(4, "hoistChild hoist node's new black: {}", hoisted.black());
  trie->trieNodeIs(hoisted);
  trie->trieNodeDel(parent.key());
}

bool prefixDel4(Trie* trie, const Addrkit::Prefix& prefix) {
  if (std::optional<bool> done = deletedAsReserved<Family4>(trie, prefix, "prefixDel4")) return *done;
  TRIE_TRACE(8, "prefixDel4 Deleting prefix: {}", prefix);
  prefetchNode(trie, prefix);

  const TrieNode root = trie->trieNode(rootPrefix);
  if (root.root() == nullPrefix) {
    TRIE_TRACE(7, "prefixDel4 No root installed... prefix doesn't exist: {}", prefix);
    return false;
  }

  // An empty slot is followed like any child: it names the root record,
  // whose key and white edge end the search on the next pass.
  TrieNode node = trie->trieNode(root.root());
  TrieNode parent = root;
  TrieNode grandparent = root;
  U32 descents = 0;
  for (;;) {
    TRIE_TRACE(7, "prefixDel4 Grandparent node: {} parent node: {}", grandparent.key(), parent.key());
    TRIE_TRACE(7, "prefixDel4 Current node: {} black: {} child00: {} child01: {} child10: {} child11: {}",
               node.key(), node.black(), node.child00(), node.child01(), node.child10(), node.child11());
    const U32 c = commonPrefixLen(node.key(), prefix, std::min(prefix.len(), node.key().len()));
    if (c == prefix.len()) break;
    if (node.key().len() != evenCommonLen(c)) {
      TRIE_TRACE(9, "prefixDel4 Could not find prefix... failed delete");
      return false;
    }
    const U32 slot = childSlot(prefix, node.key().len());
    TRIE_TRACE(7, "prefixDel4 EvenCommonLen == node.key.len: {} bits: {}", node.key().len(), slot);
    const Addrkit::Prefix child = node.child(slot);
    grandparent = parent;
    parent = node;
    node = trie->trieNode(child);
    TRIE_ASSERT(++descents <= maxDescents, depthText, prefixDel4Signature);
  }

  TRIE_TRACE(7, "prefixDel4 Exact match found!");
  if (!hasBlack(node, prefix.len())) {
    TRIE_TRACE(7, "prefixDel4 White node. Cannot delete");
    return false;
  }
  TRIE_TRACE(7, "prefixDel4 Turning off black bit");
  setBlack(node, prefix.len(), false);
  trie->trieNodeIs(node);
  if (node.black() != 0 || !isLeaf(node)) return true;

  // The node is white and childless: remove it.
  if (parent.key() == rootPrefix) {
    updateNode(trie, parent, nullPrefix, 0);
    trie->trieNodeDel(node.key());
    return true;
  }
  const U32 nodeSlot = slotBelow(parent, node.key());
  U32 remaining = 0;
  U32 remainingSlot = 0;
  for (U32 s = 0; s < 4; ++s) {
    if (s != nodeSlot && parent.child(s) != nullPrefix) {
      ++remaining;
      remainingSlot = s;
    }
  }
  if (remaining == 1) {
    TRIE_TRACE(7, "prefixDel4 Hoisting child: {}", remainingSlot);
    hoistChild(trie, grandparent, parent, parent.child(remainingSlot));
    trie->trieNodeDel(node.key());
    return true;
  }
  TRIE_TRACE(7, "prefixDel4 Updating parent ");
  updateNode(trie, parent, nullPrefix, nodeSlot);
  trie->trieNodeDel(node.key());
  return true;
}

// ---- Longest-prefix match ----

TrieNode lpm4Node(const Trie* trie, const Addrkit::Prefix& prefix) {
  TRIE_TRACE(8, "lpm4Node lpm for prefix: {}", prefix);
  TrieNode node = trie->trieNode(trie->trieNode(rootPrefix).root());
  TrieNode lastMatch = Family4::absent();
  U32 descents = 0;
  for (;;) {
    TRIE_TRACE(7, "lpm4Node Current node: {} black: 0x{:x} child00: {} child01: {} child10: {} child11: {}",
               node.key(), node.black(), node.child00(), node.child01(), node.child10(), node.child11());
    const U32 len = node.key().len();
    const U32 c = commonPrefixLen(node.key(), prefix, std::min(prefix.len(), len));
    if (c == prefix.len()) return node;
    if (len != evenCommonLen(c)) {
      const U32 previousBlack = Family4::previousBlack(node, c);
      TRIE_TRACE(7, "lpm4Node CommonLen: {} < node.key.len: {} previousBlack: {}", c, len, previousBlack);
      return previousBlack != 0 ? node : lastMatch;
    }
    const U32 bits = childSlot(prefix, len);
    TRIE_TRACE(7, "lpm4Node EvenCommonLen: {} == node.key.len: {}, bits: {}", len, len, bits);
    if (hasBlack(node, len)) {
      lastMatch = node;
      TRIE_TRACE(7, "lpm4Node New lastMatch: {}", node.key());
    } else {
      if (c != 0 && blackUpTo(node.black(), c) != 0) {
        lastMatch = node;
        TRIE_TRACE(7, "lpm4Node New lastMatch: {}", node.key());
      }
      TRIE_TRACE(7, "lpm4Node LastMatch: {}", lastMatch.key());
    }
    const Addrkit::Prefix child = node.child(bits);
    if (child == nullPrefix) return lastMatch;
    node = trie->trieNode(child);
    TRIE_ASSERT(++descents <= maxDescents, depthText, lpm4NodeSignature);
  }
}

Addrkit::IpGenPrefix lpm4(const Trie* trie, const Addrkit::Prefix& prefix) {
  TRIE_TRACE(8, "lpm4 lpm for prefix: {}", prefix);
  if (std::optional<Addrkit::IpGenPrefix> answer = lookedUpAsReserved<Family4>(trie, prefix)) return *answer;
  return lpmAnswer<Family4>(trie, prefix);
}

// ---- Successor ----

Addrkit::IpGenPrefix getNext4(const Trie* trie, const Addrkit::Prefix& prefix) {
  return successor<Family4>(trie, prefix);
}

Addrkit::IpGenPrefix doGetNext4(const Trie* trie, const Addrkit::Prefix& nodeKey, const Addrkit::Prefix& prefix,
                                U32 recursionDepth) {
  return successorBelow<Family4>(trie, nodeKey, prefix, recursionDepth);
}

// ---- Pre-order walk ----

bool doPreOrderWalk(const Trie* trie, const Basis::Ptr<TrieWalkCallback>& callback, const Addrkit::Prefix& key,
                    bool allLengths) {
  CallbackVisitor visitor(callback);
  return walkBelow<Family4>(trie, visitor, key, allLengths, 0);
}

void walkFamily4(const Trie* trie, WalkVisitor& visitor, const Addrkit::Prefix& subtreeRoot) {
  walkFamily<Family4>(trie, visitor, subtreeRoot);
}

void walkCovered4(const Trie* trie, WalkVisitor& visitor, const Addrkit::Prefix& p) {
  walkCovered<Family4>(trie, visitor, p);
}

void preOrderWalk4(const Trie* trie, const Basis::Ptr<TrieWalkCallback>& callback, const Addrkit::Prefix& subtreeRoot) {
  CallbackVisitor visitor(callback);
  walkFamily4(trie, visitor, subtreeRoot);
}

}  // namespace Routing::Lattice
