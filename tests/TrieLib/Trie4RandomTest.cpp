// Random insert/delete histories of clustered IPv4 prefixes: the records keep
// their structural invariants, and lpm, getNext and the walk agree with a
// plain reference set.
#include <gtest/gtest.h>

#include <map>
#include <random>
#include <set>
#include <string>
#include <vector>

#include "TrieLib/DepotTrie.h"
#include "TrieLib/Trie4.h"

using namespace Routing::Lattice;
using Addrkit::IpGenPrefix;
using Addrkit::Prefix;

namespace {

// Lexical order: address, then length.
struct Lexical {
  bool operator()(const Prefix& a, const Prefix& b) const {
    if (a.addrHost() != b.addrHost()) return a.addrHost() < b.addrHost();
    return a.len() < b.len();
  }
};
using PrefixSet = std::set<Prefix, Lexical>;

IpGenPrefix referenceMatch(const PrefixSet& stored, U32 host) {
  for (int len = 32; len >= 0; --len) {
    Prefix p = Prefix::masked(host, U32(len));
    if (stored.count(p)) return p;
  }
  return {};
}

// Prefixes of every length around a few base addresses, so that they share
// long edges and split them often.
class PrefixSource {
 public:
  PrefixSource(U32 seed, bool evenOnly) : rng_(seed), evenOnly_(evenOnly) {
    bases_ = {0x00000000u, 0xFFFFFF00u, 0x0A000000u, 0x0A010200u, 0xC0A80000u, U32(rng_()), U32(rng_())};
  }
  U32 host() {
    U32 base = bases_[rng_() % bases_.size()];
    U32 noise = rng_() & (0xFFFFFFFFu >> (8 + rng_() % 24));
    return base ^ noise;
  }
  Prefix prefix() {
    for (;;) {
      U32 len = rng_() % 33;
      if (evenOnly_) len &= ~1u;
      Prefix p = Prefix::masked(host(), len);
      // 0.0.0.0/31 and /32 share the default route's key; all-ones is the root's.
      if (p.addrHost() == 0 && p.len() >= 31) continue;
      if (p == nullPrefix) continue;
      return p;
    }
  }
  std::mt19937& rng() { return rng_; }

 private:
  std::mt19937 rng_;
  bool evenOnly_;
  std::vector<U32> bases_;
};

// Every record reachable from the root record: children stored and in the
// slot their key selects, even key lengths, black bits on the node's own
// edge, at most 16 levels below the top node, no record left over.
void checkStructure(const Trie& t) {
  std::map<std::string, TrieNode> records;
  for (auto it = t.trieNodeMap().begin(); it.valid(); it.advance()) records.emplace(it->key().stringValue(), *it);
  auto root = records.find(rootPrefix.stringValue());
  ASSERT_NE(root, records.end()) << "root record missing";
  size_t reached = 1;
  if (records.count(prefix032.stringValue())) ++reached;

  struct Visit {
    Prefix key;
    U32 parentLen;
    U32 depth;
  };
  std::vector<Visit> todo;
  if (root->second.root() != nullPrefix) todo.push_back({root->second.root(), 0, 0});
  while (!todo.empty()) {
    Visit v = todo.back();
    todo.pop_back();
    auto rec = records.find(v.key.stringValue());
    ASSERT_NE(rec, records.end()) << "child " << v.key << " names no record";
    ++reached;
    const TrieNode& n = rec->second;
    const U32 len = n.key().len();
    ASSERT_LE(v.depth, Trie::ipv4TrieMaxDepth()) << n.key();
    ASSERT_EQ(len % 2, 0u) << n.key();
    ASSERT_EQ(blackUpTo(n.black(), v.parentLen), 0u) << n.key() << " has bits above its edge";
    if (len < 32) {
      ASSERT_EQ(n.black() & (0xFFFFFFFFu >> len), 0u) << n.key() << " has bits below its key";
    }
    for (U32 slot = 0; slot < 4; ++slot) {
      const Prefix& c = n.child(slot);
      if (c == nullPrefix) continue;
      ASSERT_GT(c.len(), len) << n.key() << " -> " << c;
      ASSERT_EQ(commonPrefixLen(n.key(), c, len), len) << n.key() << " -> " << c;
      ASSERT_EQ(childSlot(c, len), slot) << n.key() << " -> " << c;
      todo.push_back({c, len, v.depth + 1});
    }
  }
  EXPECT_EQ(reached, records.size()) << "unreachable records";
}

class Collector : public TrieWalkCallback {
 public:
  WalkAction handleWalkCallback(const IpGenPrefix& p) override {
    seen.push_back(p.v4());
    return continueWalk;
  }
  std::vector<Prefix> seen;
};

void checkOrder(const Trie& t, const PrefixSet& stored) {
  const std::vector<Prefix> want(stored.begin(), stored.end());
  std::vector<Prefix> next;
  for (IpGenPrefix p = t.getNext(rootPrefix); p != IpGenPrefix() && next.size() <= want.size(); p = t.getNext(p))
    next.push_back(p.v4());
  EXPECT_EQ(next, want) << "getNext enumeration";

  Basis::Ptr<Collector> c(new Collector);
  t.preOrderWalk(c, rootPrefix);
  EXPECT_EQ(c->seen, want) << "whole-trie walk";
}

}  // namespace

TEST(Trie4Random, MixedHistoriesKeepStructureAndOrder) {
  for (U32 round = 0; round < 4; ++round) {
    PrefixSource src(4711 + round, false);
    auto t = trieFactory("random4");
    PrefixSet stored;
    for (int op = 0; op < 2500; ++op) {
      const bool insert = stored.empty() || src.rng()() % 3 != 0;
      if (insert) {
        Prefix p = src.prefix();
        t->prefixIs(p);
        stored.insert(p);
      } else {
        // Mostly stored prefixes, sometimes any prefix.
        Prefix p = src.prefix();
        if (src.rng()() % 4 != 0) p = *std::next(stored.begin(), src.rng()() % stored.size());
        ASSERT_EQ(t->prefixDel(p), stored.erase(p) == 1) << "delete " << p;
      }
      ASSERT_NO_FATAL_FAILURE(checkStructure(*t)) << "after op " << op;
      if (op % 100 == 99) {
        ASSERT_NO_FATAL_FAILURE(checkOrder(*t, stored));
      }
    }
    for (const Prefix& p : stored) ASSERT_EQ(t->lpm(p), IpGenPrefix(p)) << p;
    checkOrder(*t, stored);
    while (!stored.empty()) {
      Prefix p = *std::next(stored.begin(), src.rng()() % stored.size());
      ASSERT_TRUE(t->prefixDel(p)) << p;
      stored.erase(p);
    }
    // White branching nodes may stay behind; no stored prefix does.
    checkStructure(*t);
    for (auto it = t->trieNodeMap().begin(); it.valid(); it.advance()) EXPECT_EQ(it->black(), 0u) << it->key();
    checkOrder(*t, stored);
  }
}

TEST(Trie4Random, EvenLengthLpmMatchesReference) {
  for (U32 round = 0; round < 3; ++round) {
    PrefixSource src(99 + round, true);
    auto t = trieFactory("even4");
    PrefixSet stored;
    for (int op = 0; op < 1500; ++op) {
      Prefix p = src.prefix();
      t->prefixIs(p);
      stored.insert(p);
      if (op % 50 != 49) continue;
      ASSERT_NO_FATAL_FAILURE(checkStructure(*t));
      for (int q = 0; q < 200; ++q) {
        U32 host = src.host();
        if (host == 0 || host == 0xFFFFFFFFu) continue;  // reserved keys
        ASSERT_EQ(t->lpm(Prefix::masked(host, 32)), referenceMatch(stored, host)) << Prefix::masked(host, 32);
      }
    }
    checkOrder(*t, stored);
  }
}
