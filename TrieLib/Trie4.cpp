// IPv4 trie algorithms: a path-compressed trie of stride 2 over TrieNode
// records. Every change is made on a copy of a record and written back whole,
// parent before child, so that a reader never meets a key whose record has not
// been written yet.
#include "TrieLib/Trie4.h"

#include <fmt/format.h>

#include <algorithm>
#include <bit>

#include "Ringlog/Ringlog.h"
#include "TrieLib/TrieTrace.h"
#include "TrieLib/TrieWalk.h"

namespace Routing::Lattice {
namespace {

constexpr const char* prefixIs4Signature =
    "void Routing::Lattice::prefixIs4(Routing::Lattice::Trie*, const Addrkit::Prefix&)";
constexpr const char* prefixDel4Signature =
    "bool Routing::Lattice::prefixDel4(Routing::Lattice::Trie*, const Addrkit::Prefix&)";
constexpr const char* lpm4NodeSignature =
    "Routing::Lattice::TrieNode Routing::Lattice::lpm4Node(const Routing::Lattice::Trie*, const Addrkit::Prefix&)";
constexpr const char* getNext4Signature =
    "Addrkit::IpGenPrefix Routing::Lattice::getNext4(const Routing::Lattice::Trie*, const Addrkit::Prefix&)";
constexpr const char* doGetNext4Signature =
    "Addrkit::IpGenPrefix Routing::Lattice::doGetNext4(const Routing::Lattice::Trie*, const Addrkit::Prefix&, "
    "const Addrkit::Prefix&, U32)";
constexpr const char* depthText = "trieDepth++ <= 16";

// Moves downward allowed before a descent counts as broken: 16 with stride 2
// over 32 bits.
constexpr U32 maxDescents = 16;

// The longest length among the set bits of a black word (bit 0 is length 32).
U32 longestBlack(U32 bits) { return 32 - std::countr_zero(bits); }
// The shortest length among the set bits of a non-zero black word.
U32 shortestBlack(U32 bits) { return std::countl_zero(bits) + 1; }

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

// The prefix of length len along a node key.
Addrkit::Prefix prefixAlong(const Addrkit::Prefix& key, U32 len) { return Addrkit::Prefix::masked(key.addrHost(), len); }

// The address of `key` cut to `len` bits, as a key of length keyLen; throws
// the range error when that is not a valid prefix.
Addrkit::Prefix cutKey(const Addrkit::Prefix& key, U32 len, U32 keyLen) {
  U32 mask = len == 0 ? 0u : 0xFFFFFFFFu << (32 - len);
  return Addrkit::Prefix(Addrkit::Ip4Address::fromHost(key.addrHost() & mask), keyLen);
}

// The descent usually ends at the node of the prefix itself: its lookup in
// the table starts now and overlaps the descent.
void prefetchNode(const Trie* trie, const Addrkit::Prefix& prefix) {
  const Addrkit::Prefix key = nodeKeyFor(prefix);
  trie->trieNodeMap().table().prefetch(reinterpret_cast<const U8*>(&key));
}

const TrieNode& absentNode() {
  static const TrieNode absent(prefix00);
  return absent;
}

}  // namespace

// ---- Bit operations ----

void setBlack(TrieNode& node, unsigned int bitpos, bool value) {
  U32 mask = blackMask(bitpos);
  node.blackIs(value ? node.black() | mask : node.black() & ~mask);
  TRIE_TRACE(3, "setBlack prefix: {} bitpos: {} value: {}, new black: {:x}", node.key(), bitpos, value,
             node.black());
}

U32 commonPrefixLen(const Addrkit::Prefix& a, const Addrkit::Prefix& b, unsigned int maxLen) {
  U32 x = a.addrHost();
  U32 y = b.addrHost();
  if (x == y) return maxLen;
  U32 z = std::countl_zero(x ^ y);
  return z <= maxLen ? z : maxLen;
}

bool prefixLexicallyGreater4(const Addrkit::Prefix& a, const Addrkit::Prefix& b) {
  if (b.address() < a.address()) return true;
  if (a.address() == b.address()) return a.len() > b.len();
  return false;
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
// key (the dangling bit) belongs to whichever node now carries that length.
void addSplitNodeToCollection(Trie* trie, const Addrkit::Prefix& prefix, U32 commonLen, U32 prefixBits,
                              TrieNode& parent, TrieNode& node) {
  const U32 e = commonLen;
  Addrkit::Prefix key = nodeKeyFor(prefix);
  Addrkit::Prefix splitKey = cutKey(prefix, e, e);
  updateNode(trie, parent, splitKey, slotBelow(parent, splitKey));

  TrieNode split(splitKey);
  updateNode(trie, split, key, prefixBits);
  addNewNodeToCollection(trie, key, prefix.len());

  const U32 nodeBits = childSlot(node.key(), e);
  const bool danglingBB = hasBlack(node, e + 1);
  const U32 danglingPBs = nodeBits & ~1u;
  U32 limit = e;
  if (danglingBB && prefixBits == danglingPBs) {
    TrieNode carrier = trie->trieNode(key);
    setBlack(carrier, e + 1, true);
    trie->trieNodeIs(carrier);
    limit = e + 1;
  }

  updateNode(trie, split, node.key(), nodeBits);
  split.blackIs(blackUpTo(node.black(), e));
  TRIE_TRACE(4,
             "addSplitNodeToCollection Inserting split node. Prefix: {} new black: {} child00: {} child01: {} "
             "child10: {} child11: {}, node bits: {}, prefix bits: {}, DanglingPBs: {}, DanglingBB: {}",
             splitKey, split.black(), split.child00(), split.child01(), split.child10(), split.child11(), nodeBits,
             prefixBits, danglingPBs, danglingBB);
  trie->trieNodeIs(split);

  if (danglingBB && danglingPBs != nodeBits && danglingPBs != prefixBits) {
    Addrkit::Prefix danglingKey = cutKey(node.key(), e + 1, e + 2);
    addNewNodeToCollection(trie, danglingKey, e + 1);
    updateNode(trie, split, danglingKey, danglingPBs);
    limit = e + 1;
  }

  if (limit != 0) node.blackIs(node.black() & (0xFFFFFFFFu >> limit));
  TRIE_TRACE(4, "addSplitNodeToCollection node prefix: {} new black: {}", node.key(), node.black());
  trie->trieNodeIs(node);
}

void prefixIs4(Trie* trie, const Addrkit::Prefix& prefix) {
  if (prefix == prefix032 || prefix == nullPrefix) {
    TRIE_TRACE(9, "prefixIs4 Trie cannot allow prefix: {}", prefix);
    return;
  }
  if (prefix == prefix00) {
    TRIE_TRACE(7, "prefixIs4 Inserting 0/0... put into collection as 0/32");
    TrieNode defaultRoute(prefix032);
    setBlack(defaultRoute, 32, true);
    trie->trieNodeIs(defaultRoute);
    return;
  }
  TRIE_TRACE(8, "prefixIs4 Inserting prefix: {}", prefix);
  prefetchNode(trie, prefix);

  TrieNode parent = trie->trieNode(rootPrefix);
  if (parent.root() == nullPrefix) {
    TRIE_TRACE(7, "prefixIs4 Initializing root. Possibly adjusting prefix: {}", prefix);
    updateAndAddNewNode(trie, parent, 0, prefix);
    return;
  }

  TrieNode node = trie->trieNode(parent.root());
  U32 trieDepth = maxDescents + 1;
  for (;;) {
    TRIE_TRACE(7, "prefixIs4 Current node: {} black: {} child00: {} child01: {} child10: {} child11: {}", node.key(),
               node.black(), node.child00(), node.child01(), node.child10(), node.child11());
    const U32 c = commonPrefixLen(node.key(), prefix, std::min(node.key().len(), prefix.len()));
    const U32 e = evenCommonLen(c);
    if (c == prefix.len()) {
      TRIE_TRACE(7, "prefixIs4 Exact match. Flip black bit, update, return");
      if (!hasBlack(node, prefix.len())) setBlack(node, prefix.len(), true);
      trie->trieNodeIs(node);
      return;
    }
    const U32 slot = childSlot(prefix, e);
    TRIE_TRACE(7, "prefixIs4 prefix {} evenCommonLen: {} bits: {}", prefix, e, slot);
    if (e != node.key().len()) {
      TRIE_TRACE(7, "prefixIs4 Split node");
      addSplitNodeToCollection(trie, prefix, e, slot, parent, node);
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
    TRIE_ASSERT(--trieDepth > 0, depthText, prefixIs4Signature);
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
  if (prefix == prefix032 || prefix == nullPrefix) {
    TRIE_TRACE(9, "prefixDel4 Trie cannot delete invalid prefix: {}", prefix);
    return false;
  }
  if (prefix == prefix00) {
    TRIE_TRACE(7, "prefixDel4 Deleting 0/0... check for 0/32 in collection");
    TrieNode stored = trie->trieNode(prefix032);
    if (TrieNode::isEq(&stored, &absentNode())) return false;
    TRIE_TRACE(7, "prefixDel4 0/32 found in collection! Delete");
    trie->trieNodeDel(prefix032);
    return true;
  }
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
  U32 trieDepth = maxDescents + 1;
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
    TRIE_ASSERT(--trieDepth > 0, depthText, prefixDel4Signature);
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
  TrieNode lastMatch = absentNode();
  U32 trieDepth = maxDescents + 1;
  for (;;) {
    TRIE_TRACE(7, "lpm4Node Current node: {} black: 0x{:x} child00: {} child01: {} child10: {} child11: {}",
               node.key(), node.black(), node.child00(), node.child01(), node.child10(), node.child11());
    const U32 len = node.key().len();
    const U32 c = commonPrefixLen(node.key(), prefix, std::min(prefix.len(), len));
    if (c == prefix.len()) return node;
    if (len != evenCommonLen(c)) {
      const U32 upToC = blackUpTo(node.black(), c);
      const U32 previousBlack = upToC == 0 ? 0 : longestBlack(upToC);
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
    TRIE_ASSERT(--trieDepth > 0, depthText, lpm4NodeSignature);
  }
}

Addrkit::IpGenPrefix lpm4(const Trie* trie, const Addrkit::Prefix& prefix) {
  TRIE_TRACE(8, "lpm4 lpm for prefix: {}", prefix);
  if (prefix == prefix032 || prefix == nullPrefix) {
    TRIE_TRACE(9, "lpm4 Trie cannot find prefix: {}", prefix);
    return {};
  }
  if (prefix == prefix00) return checkForPrefix00(trie);
  if (trie->trieNode(rootPrefix).root() == nullPrefix) {
    TRIE_TRACE(7, "lpm4 No root installed... checking for 0/0");
    return checkForPrefix00(trie);
  }
  const TrieNode node = lpm4Node(trie, prefix);
  if (TrieNode::isEq(&node, &absentNode())) return checkForPrefix00(trie);

  const U32 len = node.key().len();
  const U32 c = commonPrefixLen(node.key(), prefix, std::min(len, prefix.len()));
  if (c == prefix.len() && hasBlack(node, prefix.len())) {
    TRIE_TRACE(7, "lpm4 Prefix is lpm.");
    return prefix;
  }
  if (c != prefix.len() && c == len && hasBlack(node, c)) {
    TRIE_TRACE(7, "lpm4 Node is lpm.");
    return prefixAlong(node.key(), c);
  }
  TRIE_TRACE(7, "lpm4 PrevBlack is lpm.");
  if (c == 0) return {};
  const U32 upToC = blackUpTo(node.black(), c);
  if (upToC == 0) return {};
  return prefixAlong(node.key(), longestBlack(upToC));
}

// ---- Successor ----

Addrkit::IpGenPrefix getNext4(const Trie* trie, const Addrkit::Prefix& prefix) {
  TRIE_TRACE(8, "getNext4({})", prefix);
  TRIE_ASSERT(prefix != prefix032, "prefix != prefix032 && \"Invalid Lookup 0/32\"", getNext4Signature);
  Addrkit::Prefix from = prefix;
  if (prefix == nullPrefix) {
    Addrkit::IpGenPrefix defaultRoute = checkForPrefix00(trie);
    if (defaultRoute != Addrkit::IpGenPrefix()) {
      TRIE_TRACE(9, "getNext4 Default route installed, returning {}, passed in prefix {}", defaultRoute, prefix);
      return defaultRoute;
    }
    from = prefix00;
    TRIE_TRACE(9, "getNext4 No default route installed, looking up {}, passed in prefix {}", from, prefix);
  }
  const TrieNode root = trie->trieNode(rootPrefix);
  if (root.root() != nullPrefix) return doGetNext4(trie, root.root(), from, 0);
  TRIE_TRACE(9, "getNext4 Empty trie");
  return {};
}

// Pre-order search for the first stored prefix after `prefix`: the node's own
// lengths shortest first, then its children in slot order. A subtree whose
// key sorts before `prefix` without covering it holds nothing after it.
Addrkit::IpGenPrefix doGetNext4(const Trie* trie, const Addrkit::Prefix& nodeKey, const Addrkit::Prefix& prefix,
                                U32 recursionDepth) {
  const TrieNode node = trie->trieNode(nodeKey);
  if (node.key() == nullPrefix) return {};
  TRIE_TRACE(8, "doGetNext4, Node: {}, Prefix: {}, Recursion Depth: {}", node.key(), prefix, recursionDepth);
  TRIE_ASSERT(recursionDepth <= trie->ipv4TrieMaxDepth(),
              "recursionDepth++ <= trie->ipv4TrieMaxDepth() && \"recursion depth exceeded\"", doGetNext4Signature);
  trie->nodesVisitedCountInc(1);

  if (node.black() != 0) {
    U32 len = shortestBlack(node.black());
    for (;;) {
      const Addrkit::Prefix candidate = prefixAlong(node.key(), len);
      TRIE_TRACE(9, "doGetNext4, Node: {}, Prefix: {}, BlackPrefix: {}, Black Bit: {}, blackBits: {:x}", node.key(),
                 prefix, candidate, len, node.black());
      if (prefixLexicallyGreater4(candidate, prefix)) return candidate;
      TRIE_TRACE(9, "nextBlack({}), black bits: {:x}", len, node.black());
      if (len == 32) break;
      const U32 longer = node.black() & (0xFFFFFFFFu >> len);
      if (longer == 0) break;
      len = shortestBlack(longer);
    }
  }

  const U32 c = commonPrefixLen(node.key(), prefix, std::min(prefix.len(), node.key().len()));
  if (c < node.key().len() && prefixLexicallyGreater4(prefix, node.key())) {
    TRIE_TRACE(9, "doGetNext4, Node: {}, Prefix: {} CommonLen: {}, skipping sub-tree", node.key(), prefix, c);
    return {};
  }
  for (U32 slot = 0; slot < 4; ++slot) {
    Addrkit::IpGenPrefix next = doGetNext4(trie, node.child(slot), prefix, recursionDepth + 1);
    if (next != Addrkit::IpGenPrefix()) return next;
  }
  return {};
}

// ---- Pre-order walk ----

namespace {

// Nodes on the longest path of a healthy trie: lengths 0, 2, ..., 32.
constexpr U32 walkLevels = maxDescents + 1;

bool walkNode4(const Trie* trie, WalkVisitor& visitor, const Addrkit::Prefix& key, bool allLengths, U32 level) {
  if (level >= walkLevels)
    throw Basis::Exception(fmt::format("trie {}: IPv4 walk deeper than {} levels at {}; the trie is damaged",
                                       trie->name(), walkLevels, key));
  TrieNode node = trie->trieNode(key);
  // A subtree root that is no node key starts at the node that holds it.
  if (TrieNode::isEq(&node, &absentNode())) node = lpm4Node(trie, key);
  TRIE_TRACE(6, "doPreOrderWalk Node: {}", node.key());
  if (TrieNode::isEq(&node, &absentNode())) return true;

  const U32 start = allLengths ? 1 : key.len();
  TRIE_TRACE(6, "visitNode Node: {} black: {} child00: {} child01: {} child10: {} child11: {}", node.key(),
             node.black(), node.child00(), node.child01(), node.child10(), node.child11());
  visitor.nodeBegin();
  bool goOn = true;
  bool skipped = false;
  if (node.black() != 0 && start <= 32) {
    for (U32 len = start; len <= 32 && goOn && !skipped; ++len) {
      if (!hasBlack(node, len)) continue;
      const WalkAction action = visitor.visit(prefixAlong(node.key(), len));
      goOn = action != abortWalk;
      skipped = action == skipSubtree;
    }
  }
  for (U32 slot = 0; slot < 4 && goOn && !skipped; ++slot) {
    const Addrkit::Prefix child = node.child(slot);
    if (child != nullPrefix) goOn = walkNode4(trie, visitor, child, true, level + 1);
  }
  visitor.nodeEnd();
  return goOn;
}

}  // namespace

bool doPreOrderWalk(const Trie* trie, const Basis::Ptr<TrieWalkCallback>& callback, const Addrkit::Prefix& key,
                    bool allLengths) {
  CallbackVisitor visitor(callback);
  return walkNode4(trie, visitor, key, allLengths, 0);
}

void walkFamily4(const Trie* trie, WalkVisitor& visitor, const Addrkit::Prefix& subtreeRoot) {
  const TrieNode defaultRoute = trie->trieNode(prefix032);
  if (!TrieNode::isEq(&defaultRoute, &absentNode())) {
    TRIE_TRACE(6, "preOrderWalk 0/32 inside the collection - 0/0 was inserted");
    if (visitor.visit(prefix00) == abortWalk) return;
  }
  if (subtreeRoot != rootPrefix) {
    walkNode4(trie, visitor, subtreeRoot, false, 0);
    return;
  }
  TRIE_TRACE(8, "preOrderWalk Walk from Root");
  const TrieNode root = trie->trieNode(rootPrefix);
  if (root.root() == nullPrefix) return;
  walkNode4(trie, visitor, root.root(), true, 0);
}

void preOrderWalk4(const Trie* trie, const Basis::Ptr<TrieWalkCallback>& callback, const Addrkit::Prefix& subtreeRoot) {
  CallbackVisitor visitor(callback);
  walkFamily4(trie, visitor, subtreeRoot);
}

}  // namespace Routing::Lattice
