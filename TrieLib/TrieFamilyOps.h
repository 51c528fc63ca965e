#pragma once
// The algorithms both families run alike (not installed), over a traits type
// F of TrieFamily.h: the reserved keys, the lpm answer, the successor and the
// pre-order walk. Trie4.cpp and Trie6.cpp call them from their named entry
// points; insertion, deletion and the lpm descent stay per family.
#include <fmt/format.h>

#include <array>
#include <optional>

#include "TrieLib/TrieFamily.h"
#include "TrieLib/TrieWalk.h"

namespace Routing::Lattice {
using Basis::U8, Basis::U16, Basis::U32, Basis::U64;

// ---- Reserved keys ----

// The root record's key and the default route's storage key name no prefix a
// caller may store, remove or look up.
template <class F>
bool isReservedKey(const typename F::Key& prefix) {
  return prefix == F::defaultRouteKey() || prefix == F::nullKey();
}

// F::defaultRoute() when its record is stored, else the empty prefix.
template <class F>
Addrkit::IpGenPrefix defaultRouteAnswer(const Trie* trie, const char* fn) {
  if (F::isAbsent(F::read(trie, F::defaultRouteKey()))) return {};
  TRIE_TRACE(8, "{} 0/{} inside the collection - 0/0 was found", fn, F::maxLen);
  return F::defaultRoute();
}

// Insertion of a key the trie itself does not hold: a reserved key is
// refused, the default route gets its record. False for any other key.
template <class F>
bool insertedAsReserved(Trie* trie, const typename F::Key& prefix, const char* fn) {
  if (isReservedKey<F>(prefix)) {
    TRIE_TRACE(9, "{} Trie cannot allow prefix: {}", fn, prefix);
    return true;
  }
  if (prefix != F::defaultRoute()) return false;
  TRIE_TRACE(7, "{} Inserting 0/0... put into collection as 0/{}", fn, F::maxLen);
  typename F::Record defaultRoute(F::defaultRouteKey());
  F::setBlack(defaultRoute, F::maxLen, true);
  F::write(trie, defaultRoute);
  return true;
}

// The answer of prefixDel for those keys; nothing for any other key.
template <class F>
std::optional<bool> deletedAsReserved(Trie* trie, const typename F::Key& prefix, const char* fn) {
  if (isReservedKey<F>(prefix)) {
    TRIE_TRACE(9, "{} Trie cannot delete invalid prefix: {}", fn, prefix);
    return false;
  }
  if (prefix != F::defaultRoute()) return std::nullopt;
  TRIE_TRACE(7, "{} {}", fn, F::deleteDefaultRouteText);
  if (F::isAbsent(F::read(trie, F::defaultRouteKey()))) return false;
  TRIE_TRACE(7, "{} {} found in collection! Delete", fn, F::defaultRouteKeyText);
  F::remove(trie, F::defaultRouteKey());
  return true;
}

// The answer of lpm for those keys; nothing for any other key.
template <class F>
std::optional<Addrkit::IpGenPrefix> lookedUpAsReserved(const Trie* trie, const typename F::Key& prefix) {
  if (isReservedKey<F>(prefix)) {
    TRIE_TRACE(9, "{} Trie cannot find prefix: {}", F::lpmName, prefix);
    return Addrkit::IpGenPrefix();
  }
  if (prefix == F::defaultRoute()) return F::storedDefaultRoute(trie);
  return std::nullopt;
}

// ---- Longest-prefix match ----

// The answer read from the node the lpm descent stops at: the query itself,
// the node's own length, or the longest length stored on the node's edge
// above where the query leaves it. An empty tree, or no covering node, leaves
// the default route.
template <class F>
Addrkit::IpGenPrefix lpmAnswer(const Trie* trie, const typename F::Key& prefix) {
  if (F::top(F::read(trie, F::rootKey())) == F::nullKey()) {
    TRIE_TRACE(7, "{} No root installed... checking for {}", F::lpmName, F::defaultRouteText);
    return F::storedDefaultRoute(trie);
  }
  typename F::Record node = F::lpmNode(trie, prefix);
  if (F::isAbsent(node)) return F::storedDefaultRoute(trie);

  const U32 c = F::commonLen(node.key(), prefix);
  if (c == prefix.len() && F::hasBlack(node, prefix.len())) {
    TRIE_TRACE(7, "{} Prefix is lpm.", F::lpmName);
    return prefix;
  }
  if (c == node.key().len() && F::hasBlack(node, c)) {
    TRIE_TRACE(7, "{} Node is lpm.", F::lpmName);
    return F::prefixAlong(node.key(), c);
  }
  TRIE_TRACE(7, "{} PrevBlack is lpm.", F::lpmName);
  if (c == 0) return {};
  const U32 previous = F::previousBlack(node, c);
  F::traceLpmPreviousBlack(previous);
  if (previous == 0) return {};
  return F::prefixAlong(node.key(), previous);
}

// ---- Successor ----

// Pre-order search below nodeKey for the first stored prefix after `prefix`:
// the node's own lengths shortest first (they are prefixes of every key below
// it), then its children in slot order. A subtree whose key sorts before
// `prefix` without covering it holds nothing after it.
template <class F>
Addrkit::IpGenPrefix successorBelow(const Trie* trie, const typename F::Key& nodeKey,
                                    const typename F::Key& prefix, U32 depth) {
  typename F::Record node = F::read(trie, nodeKey);
  // An empty slot names the root record, whose key ends the search.
  if (node.key() == F::nullKey()) return {};
  F::traceSuccessorNode(node, prefix, depth);
  TRIE_ASSERT(depth <= F::maxDescents, F::recursionText, F::doGetNextSignature);
  trie->nodesVisitedCountInc(1);

  for (U32 len = F::firstBlack(node); len != 0; len = F::nextBlack(node, len)) {
    const typename F::Key candidate = F::prefixAlong(node.key(), len);
    F::traceSuccessorCandidate(node, prefix, candidate, len);
    if (F::lexicallyGreater(candidate, prefix)) return candidate;
  }
  const U32 c = F::commonLen(node.key(), prefix);
  if (c < node.key().len() && F::lexicallyGreater(prefix, node.key())) {
    TRIE_TRACE(9, "{}, Node: {}, Prefix: {} CommonLen: {}, skipping sub-tree", F::doGetNextName, node.key(), prefix,
               c);
    return {};
  }
  for (U32 i = 0; i < F::childCount; ++i) {
    const Addrkit::IpGenPrefix next = successorBelow<F>(trie, F::child(node, i), prefix, depth + 1);
    if (!next.isEmpty()) return next;
  }
  return {};
}

// The first stored prefix after `prefix`; the null key asks for the first of
// all, the default route included.
template <class F>
Addrkit::IpGenPrefix successor(const Trie* trie, const typename F::Key& prefix) {
  TRIE_TRACE(8, "{}({})", F::getNextName, prefix);
  TRIE_ASSERT(prefix != F::defaultRouteKey(), F::invalidLookupText, F::getNextSignature);
  typename F::Key from = prefix;
  if (prefix == F::nullKey()) {
    const Addrkit::IpGenPrefix defaultRoute = F::storedDefaultRoute(trie);
    if (!defaultRoute.isEmpty()) {
      TRIE_TRACE(9, "{} Default route installed, returning {}, passed in prefix {}", F::getNextName, defaultRoute,
                 prefix);
      return defaultRoute;
    }
    from = F::defaultRoute();
    TRIE_TRACE(9, "{} No default route installed, looking up {}, passed in prefix {}", F::getNextName, from, prefix);
  }
  const typename F::Key top = F::top(F::read(trie, F::rootKey()));
  if (top == F::nullKey()) {
    TRIE_TRACE(9, "{} Empty trie", F::getNextName);
    return {};
  }
  return successorBelow<F>(trie, top, from, 0);
}

// ---- Pre-order walk ----

// A walk that went deeper than a sound trie can be.
class WalkTooDeep : public Basis::Exception {
 public:
  using Basis::Exception::Exception;
};

// Starts fetching the records of a node's children together, so that the
// walk waits for them once rather than once per child.
// Returns where each record was found, for readAt.
template <class F>
std::array<U64, F::childCount> prefetchChildren(const Trie* trie, const typename F::Record& node) {
  const Depot::Table& table = F::map(*trie).table();
  std::array<U64, F::childCount> at{};
  for (U32 i = 0; i < F::childCount; ++i)
    if (F::child(node, i) != F::nullKey()) table.prefetch(reinterpret_cast<const U8*>(&F::child(node, i)));
  for (U32 i = 0; i < F::childCount; ++i)
    if (F::child(node, i) != F::nullKey()) at[i] = table.prefetchRecord(reinterpret_cast<const U8*>(&F::child(node, i)));
  return at;
}

// Visits the node of `key` and its subtree, level levels below the walk's
// start; false when the visitor aborted. A healthy trie is at most
// F::maxDescents + 1 nodes deep: deeper means a cycle in damaged tables, or
// records read across another process's changes.
template <class F>
bool walkBelow(const Trie* trie, WalkVisitor& visitor, const typename F::Key& key, bool allLengths, U32 level,
               U64 at = 0) {
  constexpr U32 walkLevels = F::maxDescents + 1;
  if (level >= walkLevels)
    throw WalkTooDeep(fmt::format("trie {}: {} walk deeper than {} levels at {}; the trie is damaged", trie->name(),
                                  F::name, walkLevels, key));
  typename F::Record node = F::map(*trie).getAt(key, at);  // where its fetch found it
  // A subtree root that is no node key starts at the node that holds it.
  if (F::isAbsent(node)) node = F::lpmNode(trie, key);
  TRIE_TRACE(6, "{} Node: {}", F::walkName, node.key());
  if (F::isAbsent(node)) return true;

  const U32 start = allLengths ? 1 : key.len();
  F::traceVisit(node);
  visitor.nodeBegin();
  bool goOn = true;
  bool skipped = false;
  auto visit = [&](U32 len) {
    const WalkAction action = visitor.visit(F::prefixAlong(node.key(), len));
    goOn = action != abortWalk;
    skipped = action == skipSubtree;
  };
  if (F::anyBlack(node)) {
    // Length 0 asks for the bit of the family's longest length, as
    // hasBlack reads it.
    if (start == 0 && F::hasBlack(node, 0)) visit(0);
    for (U32 len = F::blackFrom(node, std::max(start, 1u)); len != 0 && goOn && !skipped;
         len = len < F::maxLen ? F::blackFrom(node, len + 1) : 0)
      visit(len);
  }
  std::array<U64, F::childCount> where{};
  if (goOn && !skipped) where = prefetchChildren<F>(trie, node);
  for (U32 i = 0; i < F::childCount && goOn && !skipped; ++i) {
    const typename F::Key& child = F::child(node, i);
    if (child != F::nullKey()) goOn = walkBelow<F>(trie, visitor, child, true, level + 1, where[i]);
  }
  visitor.nodeEnd();
  return goOn;
}

// The walk itself: the default route first, then the subtree (or the whole
// tree for the root key).
template <class F>
void walkFamilyOnce(const Trie* trie, WalkVisitor& visitor, const typename F::Key& subtreeRoot) {
  if (!F::isAbsent(F::read(trie, F::defaultRouteKey()))) {
    TRIE_TRACE(6, "{}", F::walkDefaultRouteText);
    if (visitor.visit(F::defaultRoute()) == abortWalk) return;
  }
  if (subtreeRoot != F::rootKey()) {
    walkBelow<F>(trie, visitor, subtreeRoot, false, 0);
    return;
  }
  if (!F::walkFromRootText.empty()) TRIE_TRACE(8, "{}", F::walkFromRootText);
  const typename F::Key top = F::top(F::read(trie, F::rootKey()));
  if (top == F::nullKey()) return;
  walkBelow<F>(trie, visitor, top, true, 0);
}

// Hands on only the prefixes inside p (p included).
template <class F>
class InsideVisitor final : public WalkVisitor {
 public:
  InsideVisitor(WalkVisitor& to, const typename F::Key& p) : to_(to), p_(p) {}
  WalkAction visit(const Addrkit::IpGenPrefix& prefix) override {
    const typename F::Key k = keyOf(prefix);
    if (k.len() < p_.len() || F::commonLen(k, p_) < p_.len()) return continueWalk;
    return to_.visit(prefix);
  }
  void nodeBegin() override { to_.nodeBegin(); }
  void nodeEnd() override { to_.nodeEnd(); }

 private:
  static typename F::Key keyOf(const Addrkit::IpGenPrefix& g) {
    if constexpr (F::maxLen == 32) return g.v4();
    else return g.v6();
  }
  WalkVisitor& to_;
  const typename F::Key& p_;
};

// The nodes on the way down to p, and below it every node whose key lies
// inside p; false when the visitor aborted. A node whose key covers p holds
// only prefixes covering p, so it is passed over, and of its children only
// those whose keys meet p are entered (with odd IPv4 lengths, that can be
// two).
template <class F>
bool coveredBelow(const Trie* trie, WalkVisitor& inside, const typename F::Key& key, const typename F::Key& p,
                  U32 level) {
  if (level > F::maxDescents)
    throw WalkTooDeep(fmt::format("trie {}: {} walk deeper than {} levels at {}; the trie is damaged", trie->name(),
                                  F::name, F::maxDescents + 1, key));
  const typename F::Record node = F::read(trie, key);
  if (F::isAbsent(node)) return true;
  const typename F::Key& k = node.key();
  if (F::commonLen(k, p) < std::min(k.len(), p.len())) return true;
  if (k.len() >= p.len()) return walkBelow<F>(trie, inside, k, true, level);
  for (U32 i = 0; i < F::childCount; ++i) {
    const typename F::Key& child = F::child(node, i);
    if (child == F::nullKey() || F::commonLen(child, p) < std::min(child.len(), p.len())) continue;
    if (!coveredBelow<F>(trie, inside, child, p, level + 1)) return false;
  }
  return true;
}

// Every stored prefix inside p, in the walk's order, reading only the part
// of the trie that can hold them. Unlike the walk of a subtree, it delivers
// no prefix covering p and no neighbour of it.
template <class F>
void walkCovered(const Trie* trie, WalkVisitor& visitor, const typename F::Key& p) {
  if (p.len() == 0 && !F::isAbsent(F::read(trie, F::defaultRouteKey())))
    if (visitor.visit(F::defaultRoute()) == abortWalk) return;
  const typename F::Key top = F::top(F::read(trie, F::rootKey()));
  if (top == F::nullKey()) return;
  InsideVisitor<F> inside(visitor, p);
  coveredBelow<F>(trie, inside, top, p, 0);
}

// The family's branch of Trie::preOrderWalk. A walk led astray by a writer's
// changes in another process is not called damage.
template <class F>
void walkFamily(const Trie* trie, WalkVisitor& visitor, const typename F::Key& subtreeRoot) {
  const U64 counter = F::map(*trie).updateCounter();
  try {
    walkFamilyOnce<F>(trie, visitor, subtreeRoot);
  } catch (const WalkTooDeep&) {
    if (F::map(*trie).updateCounter() == counter && !(counter & 1)) throw;
    throw Basis::Exception(fmt::format("trie {}: the {} table changed while it was walked; a walk that must see one "
                                       "state goes through a consistent reader",
                                       trie->name(), F::name));
  }
}

}  // namespace Routing::Lattice
