#pragma once
// Family traits (not installed): what the IPv4 trie (stride 2, TrieNode) and
// the IPv6 trie (binary, TrieNode6) differ in, for the algorithms that are
// alike in both and are written once over a traits type F (TrieFamilyOps.h,
// TrieCheck.cpp). Trace and assertion texts stay each family's own, because
// they name the per-family entry points.
#include <algorithm>
#include <string_view>

#include "TrieLib/BlackBits.h"
#include "TrieLib/DepotTrie.h"
#include "TrieLib/Trie4.h"
#include "TrieLib/Trie6.h"
#include "TrieLib/TrieTrace.h"

namespace Routing::Lattice {
using Basis::U8, Basis::U16, Basis::U32, Basis::U64;

// Both families reserve two keys: the root record's all-ones key, which is
// also the empty-child marker (nullKey), and the all-zero host prefix, under
// which the default route is kept in a record of its own, outside the tree.
struct Family4 {
  using Key = Addrkit::Prefix;
  using Record = TrieNode;
  static constexpr std::string_view name = "IPv4";
  static constexpr U32 maxLen = 32;
  // Descents below the top node in a healthy trie: node keys 0, 2, ..., 32.
  static constexpr U32 maxDescents = Trie::ipv4TrieMaxDepth();
  static constexpr U32 childCount = 4;

  static const Key& rootKey() { return rootPrefix; }
  static const Key& nullKey() { return nullPrefix; }
  static const Key& defaultRoute() { return prefix00; }
  static const Key& defaultRouteKey() { return prefix032; }

  static const Trie::TrieNodeMap& map(const Trie& t) { return t.trieNodeMap(); }
  static Record read(const Trie* t, const Key& k) { return t->trieNode(k); }
  static void write(Trie* t, const Record& r) { t->trieNodeIs(r); }
  static void remove(Trie* t, const Key& k) { t->trieNodeDel(k); }
  // What a read of an absent key returns; no stored record equals it.
  static const Record& absent() {
    static const Record record(prefix00);
    return record;
  }
  static bool isAbsent(const Record& r) { return r == absent(); }
  static const Key& top(const Record& rootRecord) { return rootRecord.root(); }
  static const Key& child(const Record& n, U32 i) { return n.child(i); }
  static Addrkit::IpGenPrefix storedDefaultRoute(const Trie* t) { return checkForPrefix00(t); }

  static bool hasBlack(const Record& n, U32 len) { return Lattice::hasBlack(n, len); }
  static bool anyBlack(const Record& n) { return n.black() != 0; }
  // The shortest stored length from len (1..32) on, 0 when none; traces nothing.
  static U32 blackFrom(const Record& n, U32 len) {
    const U32 bits = n.black() & ~lengthsUpTo(len - 1);
    return bits == 0 ? 0 : shortestBlack(bits);
  }
  static U32 blackCount(const Record& n) { return std::popcount(n.black()); }
  static void setBlack(Record& n, U32 len, bool value) { Lattice::setBlack(n, len, value); }
  // Stored lengths in increasing order: the first, and the one after len (0 when none).
  static U32 firstBlack(const Record& n) { return n.black() == 0 ? 0 : shortestBlack(n.black()); }
  static U32 nextBlack(const Record& n, U32 len) {
    TRIE_TRACE(9, "nextBlack({}), black bits: {:x}", len, n.black());
    if (len == 32) return 0;
    const U32 longer = n.black() & ~lengthsUpTo(len);
    return longer == 0 ? 0 : shortestBlack(longer);
  }
  // The longest stored length in 1..c, 0 when none.
  static U32 previousBlack(const Record& n, U32 c) {
    const U32 upToC = blackUpTo(n.black(), c);
    return upToC == 0 ? 0 : longestBlack(upToC);
  }

  // The prefix of length len along a node key.
  static Key prefixAlong(const Key& key, U32 len) { return Key::masked(key.addrHost(), len); }
  static U32 commonLen(const Key& a, const Key& b) { return commonPrefixLen(a, b, std::min(a.len(), b.len())); }
  static bool lexicallyGreater(const Key& a, const Key& b) { return prefixLexicallyGreater4(a, b); }
  static Record lpmNode(const Trie* t, const Key& k) { return lpm4Node(t, k); }

  // Trace and assertion texts.
  static constexpr const char* lpmName = "lpm4";
  static constexpr const char* getNextName = "getNext4";
  static constexpr const char* doGetNextName = "doGetNext4";
  static constexpr const char* walkName = "doPreOrderWalk";
  static constexpr const char* defaultRouteText = "0/0";
  static constexpr const char* defaultRouteKeyText = "0/32";
  static constexpr const char* deleteDefaultRouteText = "Deleting 0/0... check for 0/32 in collection";
  static constexpr const char* walkDefaultRouteText = "preOrderWalk 0/32 inside the collection - 0/0 was inserted";
  static constexpr std::string_view walkFromRootText = "preOrderWalk Walk from Root";
  static constexpr const char* invalidLookupText = "prefix != prefix032 && \"Invalid Lookup 0/32\"";
  static constexpr const char* recursionText =
      "recursionDepth++ <= trie->ipv4TrieMaxDepth() && \"recursion depth exceeded\"";
  static constexpr const char* getNextSignature =
      "Addrkit::IpGenPrefix Routing::Lattice::getNext4(const Routing::Lattice::Trie*, const Addrkit::Prefix&)";
  static constexpr const char* doGetNextSignature =
      "Addrkit::IpGenPrefix Routing::Lattice::doGetNext4(const Routing::Lattice::Trie*, const Addrkit::Prefix&, "
      "const Addrkit::Prefix&, U32)";
  static void traceVisit(const Record& n) {
    TRIE_TRACE(6, "visitNode Node: {} black: {} child00: {} child01: {} child10: {} child11: {}", n.key(), n.black(),
               n.child00(), n.child01(), n.child10(), n.child11());
  }
  static void traceSuccessorNode(const Record& n, const Key& prefix, U32 depth) {
    TRIE_TRACE(8, "doGetNext4, Node: {}, Prefix: {}, Recursion Depth: {}", n.key(), prefix, depth);
  }
  static void traceSuccessorCandidate(const Record& n, const Key& prefix, const Key& candidate, U32 len) {
    TRIE_TRACE(9, "doGetNext4, Node: {}, Prefix: {}, BlackPrefix: {}, Black Bit: {}, blackBits: {:x}", n.key(),
               prefix, candidate, len, n.black());
  }
  static void traceLpmPreviousBlack(U32) {}
};

struct Family6 {
  using Key = Addrkit::Ip6Prefix;
  using Record = TrieNode6;
  static constexpr std::string_view name = "IPv6";
  static constexpr U32 maxLen = 128;
  // Descents below the top node in a healthy trie: one per bit.
  static constexpr U32 maxDescents = Trie::ipv6TrieMaxDepth();
  static constexpr U32 childCount = 2;

  static const Key& rootKey() { return rootPrefix6; }
  static const Key& nullKey() { return nullPrefix6; }
  static const Key& defaultRoute() { return prefix006; }
  static const Key& defaultRouteKey() { return prefix0128; }

  static const Trie::TrieNode6Map& map(const Trie& t) { return t.trieNode6Map(); }
  static Record read(const Trie* t, const Key& k) { return t->trieNode6(k); }
  static void write(Trie* t, const Record& r) { t->trieNode6Is(r); }
  static void remove(Trie* t, const Key& k) { t->trieNode6Del(k); }
  static const Record& absent() {
    static const Record record(prefix006);
    return record;
  }
  static bool isAbsent(const Record& r) { return r == absent(); }
  static const Key& top(const Record& rootRecord) { return rootRecord.leftChild(); }
  static const Key& child(const Record& n, U32 i) { return i == 0 ? n.leftChild() : n.rightChild(); }
  static Addrkit::IpGenPrefix storedDefaultRoute(const Trie* t) { return checkForPrefix006(t); }

  static bool hasBlack(const Record& n, U32 len) { return hasBlack6(n, len); }
  static bool anyBlack(const Record& n) { return anyBlack6(n); }
  static U32 blackFrom(const Record& n, U32 len) {
    for (U32 w = (len - 1) / 32; w < 4; ++w)
      if (const U32 bits = n.black(w) & ~lengthsUpTo(w, len - 1)) return 32 * w + shortestBlack(bits);
    return 0;
  }
  static U32 blackCount(const Record& n) {
    U32 count = 0;
    for (U32 w = 0; w < 4; ++w) count += std::popcount(n.black(w));
    return count;
  }
  static void setBlack(Record& n, U32 len, bool value) { setBlack6(n, len, value); }
  static U32 firstBlack(const Record& n) { return firstBlack6(n); }
  static U32 nextBlack(Record& n, U32 len) { return nextBlack6(n, len); }
  static U32 previousBlack(Record& n, U32 c) { return prevBlack6(n, c); }

  static Key prefixAlong(const Key& key, U32 len) { return Key::masked(key.address(), len); }
  static U32 commonLen(const Key& a, const Key& b) { return commonPrefixLen6(a, b, std::min(a.len(), b.len())); }
  static bool lexicallyGreater(const Key& a, const Key& b) { return prefixLexicallyGreater6(a, b); }
  static Record lpmNode(const Trie* t, const Key& k) { return lpm6Node(t, k); }

  static constexpr const char* lpmName = "lpm6";
  static constexpr const char* getNextName = "getNext6";
  static constexpr const char* doGetNextName = "doGetNext6";
  static constexpr const char* walkName = "doPreOrderWalk6";
  static constexpr const char* defaultRouteText = "::/0";
  static constexpr const char* defaultRouteKeyText = "::/128";
  static constexpr const char* deleteDefaultRouteText = "Deleting ::/0.. check for ::/128 in collection";
  static constexpr const char* walkDefaultRouteText = "preOrderWalk 0/128 inside collection - 0/0 was inserted";
  static constexpr std::string_view walkFromRootText = "";
  static constexpr const char* invalidLookupText = "prefix != prefix0128 && \"Invalid Lookup 0/128\"";
  static constexpr const char* recursionText =
      "recursionDepth++ <= trie->ipv6TrieMaxDepth() && \"recursion depth exceeded\"";
  static constexpr const char* getNextSignature =
      "Addrkit::IpGenPrefix Routing::Lattice::getNext6(const Routing::Lattice::Trie*, const Addrkit::Ip6Prefix&)";
  static constexpr const char* doGetNextSignature =
      "Addrkit::IpGenPrefix Routing::Lattice::doGetNext6(const Routing::Lattice::Trie*, const Addrkit::Ip6Prefix&, "
      "const Addrkit::Ip6Prefix&, U32)";
  static void traceVisit(const Record& n) {
    TRIE_TRACE(6, "visitNode6 Node: {} black0: {} black1: {} black2: {} black3: {} left child: {} right child: {}",
               n.key(), n.black0(), n.black1(), n.black2(), n.black3(), n.leftChild(), n.rightChild());
  }
  static void traceSuccessorNode(const Record& n, const Key& prefix, U32) {
    TRIE_TRACE(8, "doGetNext6, Node: {}, Prefix: {}", n.key(), prefix);
  }
  static void traceSuccessorCandidate(const Record& n, const Key& prefix, const Key& candidate, U32 len) {
    TRIE_TRACE(9, "doGetNext6, Node: {}, Prefix: {}, BlackPrefix: {}, Black Bit: {}", n.key(), prefix, candidate,
               len);
  }
  static void traceLpmPreviousBlack(U32 m) { TRIE_TRACE(7, "prevBlack6 previousBlack: {}", m); }
};

}  // namespace Routing::Lattice
