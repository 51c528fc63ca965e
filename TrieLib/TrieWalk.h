#pragma once
// The pre-order walk of both families, delivering to a visitor (not installed).
#include "TrieLib/DepotTrie.h"

namespace Routing::Lattice {

// Receives a walk as it goes: every stored prefix it meets, whose answer
// steers the walk as a TrieWalkCallback's does, and the beginning and end of
// every node it enters (the end comes after the node's children).
class WalkVisitor {
 public:
  virtual ~WalkVisitor() = default;
  virtual WalkAction visit(const Addrkit::IpGenPrefix& prefix) = 0;
  virtual void nodeBegin() {}
  virtual void nodeEnd() {}
};

// Hands every prefix to a walk callback.
class CallbackVisitor : public WalkVisitor {
 public:
  explicit CallbackVisitor(const Basis::Ptr<TrieWalkCallback>& callback) : callback_(callback) {}
  WalkAction visit(const Addrkit::IpGenPrefix& prefix) override { return callback_->handleWalkCallback(prefix); }

 private:
  const Basis::Ptr<TrieWalkCallback>& callback_;
};

// The family branches of Trie::preOrderWalk. A healthy trie is at most 17
// (IPv4) or 129 (IPv6) nodes deep; a walk that goes deeper follows a cycle in
// damaged tables and raises Basis::Exception naming the trie and the node key.
void walkFamily4(const Trie* trie, WalkVisitor& visitor, const Addrkit::Prefix& subtreeRoot);
void walkFamily6(const Trie* trie, WalkVisitor& visitor, const Addrkit::Ip6Prefix& subtreeRoot);
// Every stored prefix inside p (p included) and nothing else, reading only
// the nodes down to p and below it; the order is the walk's, which an odd
// IPv4 length can take out of lexical order. Records read across a writer's
// changes can raise Basis::Exception: a reader runs it under a consistent read.
void walkCovered4(const Trie* trie, WalkVisitor& visitor, const Addrkit::Prefix& p);
void walkCovered6(const Trie* trie, WalkVisitor& visitor, const Addrkit::Ip6Prefix& p);

}  // namespace Routing::Lattice
