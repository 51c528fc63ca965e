// Randomized IPv6 histories checked against a plain ordered set of the stored
// prefixes: the record structure, host-address lookups, enumeration by
// successor and the whole-trie walk.
#include <gtest/gtest.h>

#include <array>
#include <random>
#include <set>
#include <string>
#include <vector>

#include "TrieLib/DepotTrie.h"
#include "TrieLib/Trie6.h"

using namespace Routing::Lattice;
using Addrkit::Ip6Address;
using Addrkit::Ip6Prefix;
using Addrkit::IpGenPrefix;

namespace {

// Ordered as the trie orders prefixes: by address bytes, then shorter first.
struct Key {
  std::array<U8, 16> addr;
  U32 len;
  auto operator<=>(const Key&) const = default;
};

Key keyOf(const Ip6Prefix& p) {
  Key k{{}, p.len()};
  const Ip6Address a = p.address();
  std::copy(a.bytes(), a.bytes() + 16, k.addr.begin());
  return k;
}
Ip6Prefix prefixOf(const Key& k) { return Ip6Prefix(Ip6Address::fromBytes(k.addr.data()), k.len); }

using Reference = std::set<Key>;

// Longest stored prefix covering a host address, by brute force.
IpGenPrefix referenceLpm(const Reference& ref, const Ip6Address& host) {
  for (U32 len = 129; len-- > 0;) {
    Ip6Prefix p = Ip6Prefix::masked(host, len);
    if (ref.count(keyOf(p))) return p;
  }
  return {};
}

std::vector<std::string> referenceOrder(const Reference& ref) {
  std::vector<std::string> v;
  for (auto& k : ref) v.push_back(prefixOf(k).stringValue());
  return v;
}

class Collector : public TrieWalkCallback {
 public:
  WalkAction handleWalkCallback(const IpGenPrefix& p) override {
    seen.push_back(p.stringValue());
    return continueWalk;
  }
  std::vector<std::string> seen;
};

// Walks the records from the root record and checks the shape that every
// algorithm relies on; returns the prefixes that the marks stand for.
void checkShape(const Trie& t, const Reference& ref) {
  const TrieNode6 root = t.trieNode6(rootPrefix6);
  ASSERT_EQ(root.key(), rootPrefix6) << "root record missing";
  EXPECT_EQ(root.rightChild(), nullPrefix6);

  Reference marked;
  U64 reachable = 0;
  struct Step {
    Ip6Prefix key;
    U32 parentLen;
    U32 depth;
  };
  std::vector<Step> todo;
  if (root.leftChild() != nullPrefix6) todo.push_back({root.leftChild(), 0, 0});
  while (!todo.empty()) {
    const Step s = todo.back();
    todo.pop_back();
    TrieNode6 n = t.trieNode6(s.key);
    ASSERT_EQ(n.key(), s.key) << "child key without a record";
    ASSERT_LE(s.depth, 128u) << s.key.stringValue();
    ++reachable;
    const U32 len = n.key().len();
    const bool leaf = n.leftChild() == nullPrefix6 && n.rightChild() == nullPrefix6;
    EXPECT_TRUE(leaf || (n.leftChild() != nullPrefix6 && n.rightChild() != nullPrefix6))
        << "one child at " << s.key.stringValue();
    EXPECT_TRUE(!leaf || anyBlack6(n)) << "leaf without marks " << s.key.stringValue();
    for (U32 l = 1; l <= 128; ++l) {
      if (!hasBlack6(n, l)) continue;
      EXPECT_TRUE(l > s.parentLen && l <= len) << "mark " << l << " off the edge of " << s.key.stringValue();
      marked.insert(keyOf(Ip6Prefix::masked(n.key().address(), l)));
    }
    for (U32 side = 0; side < 2; ++side) {
      const Ip6Prefix c = side == 0 ? n.leftChild() : n.rightChild();
      if (c == nullPrefix6) continue;
      ASSERT_GT(c.len(), len) << c.stringValue();
      EXPECT_EQ(commonPrefixLen6(c, n.key(), len), len) << c.stringValue() << " not under " << s.key.stringValue();
      EXPECT_EQ(c.address().bit(len), side) << c.stringValue() << " on the wrong side of " << s.key.stringValue();
      todo.push_back({c, len, s.depth + 1});
    }
  }

  const bool hasDefault = ref.count(keyOf(prefix006)) != 0;
  const TrieNode6 def = t.trieNode6(prefix0128);
  if (hasDefault) {
    EXPECT_EQ(def.key(), prefix0128);
    EXPECT_EQ(def.black3(), 1u);
    EXPECT_EQ(def.black0() | def.black1() | def.black2(), 0u);
  } else {
    EXPECT_EQ(def, TrieNode6(prefix006));
  }
  U64 records = 0;
  for (auto it = t.trieNode6Map().begin(); it.valid(); it.advance()) ++records;
  EXPECT_EQ(records, reachable + 1 + (hasDefault ? 1 : 0)) << "unreachable records";

  Reference expected = ref;
  expected.erase(keyOf(prefix006));
  EXPECT_TRUE(marked == expected) << "marks differ from the stored prefixes";
}

void checkOrder(const Trie& t, const Reference& ref) {
  const std::vector<std::string> want = referenceOrder(ref);
  std::vector<std::string> got;
  for (IpGenPrefix p = t.getNext(nullPrefix6); !p.isEmpty() && got.size() <= want.size(); p = t.getNext(p))
    got.push_back(p.stringValue());
  EXPECT_EQ(got, want) << "getNext enumeration";
  Basis::Ptr<Collector> c(new Collector);
  t.preOrderWalk(c, rootPrefix6);
  EXPECT_EQ(c->seen, want) << "walk";
}

// Prefixes around a few cluster addresses, so that they share long edges,
// split deep and hit the ends of the address space.
class PrefixSource {
 public:
  explicit PrefixSource(U32 seed) : rng_(seed) {
    bases_.push_back(Ip6Address("::"));
    bases_.push_back(Ip6Address("ffff:ffff:ffff:ffff:ffff:ffff:ffff:ffff"));
    bases_.push_back(Ip6Address("2001:db8::"));
    bases_.push_back(Ip6Address("fe80::"));
    for (int i = 0; i < 2; ++i) bases_.push_back(randomAddress());
  }

  Ip6Address host() {
    Ip6Address a = bases_[pick(bases_.size())];
    for (U32 flips = pick(4); flips > 0; --flips) flip(a, pick(128));
    return a;
  }

  Ip6Prefix prefix() {
    const U32 r = pick(10);
    const U32 len = r == 0 ? 128 : r == 1 ? pick(9) : r < 5 ? 24 + pick(41) : pick(129);
    return Ip6Prefix::masked(host(), len);
  }

  // A host address inside p.
  Ip6Address within(const Ip6Prefix& p) {
    const Ip6Address keep = Ip6Prefix::masked(Ip6Address("ffff:ffff:ffff:ffff:ffff:ffff:ffff:ffff"), p.len()).address();
    Ip6Address a = randomAddress();
    for (U32 k = 0; k < 4; ++k) a.wordIs(k, (p.address().word(k) & keep.word(k)) | (a.word(k) & ~keep.word(k)));
    return a;
  }

  U32 pick(U32 n) { return std::uniform_int_distribution<U32>(0, n - 1)(rng_); }

 private:
  Ip6Address randomAddress() {
    Ip6Address a;
    for (U32 k = 0; k < 4; ++k) a.wordIs(k, static_cast<U32>(rng_()));
    return a;
  }
  static void flip(Ip6Address& a, U32 bit) { a.wordIs(bit / 32, a.word(bit / 32) ^ (0x80000000u >> (bit % 32))); }

  std::mt19937 rng_;
  std::vector<Ip6Address> bases_;
};

bool refused(const Ip6Prefix& p) { return p == prefix0128 || p == nullPrefix6; }

}  // namespace

TEST(Trie6Random, InsertLookupEnumerateDelete) {
  for (U32 seed : {11u, 2024u, 77777u}) {
    SCOPED_TRACE("seed " + std::to_string(seed));
    PrefixSource src(seed);
    auto t = trieFactory("random6-" + std::to_string(seed));
    Reference ref;

    for (int step = 1; step <= 400; ++step) {
      const Ip6Prefix p = src.prefix();
      t->prefixIs(p);
      if (!refused(p)) ref.insert(keyOf(p));
      for (int q = 0; q < 4; ++q) {
        const Ip6Address h = q % 2 == 0 || ref.empty()
                                 ? src.host()
                                 : src.within(prefixOf(*std::next(ref.begin(), src.pick(ref.size()))));
        const Ip6Prefix query(h, 128);
        const IpGenPrefix want = refused(query) ? IpGenPrefix() : referenceLpm(ref, h);
        ASSERT_EQ(t->lpm(query), want) << "step " << step << " lpm " << query.stringValue();
      }
      if (step % 40 == 0) {
        ASSERT_NO_FATAL_FAILURE(checkShape(*t, ref));
        checkOrder(*t, ref);
        for (auto& k : ref) ASSERT_EQ(t->lpm(prefixOf(k)), IpGenPrefix(prefixOf(k)));
      }
    }

    int step = 0;
    while (!ref.empty()) {
      ++step;
      const bool member = src.pick(4) != 0;
      const Ip6Prefix p = member ? prefixOf(*std::next(ref.begin(), src.pick(ref.size()))) : src.prefix();
      const bool present = ref.erase(keyOf(p)) != 0;
      ASSERT_EQ(t->prefixDel(p), present) << "step " << step << " delete " << p.stringValue();
      if (step % 25 == 0 || ref.size() < 5) {
        ASSERT_NO_FATAL_FAILURE(checkShape(*t, ref));
        checkOrder(*t, ref);
      }
    }
    EXPECT_EQ(t->trieNode6(rootPrefix6).leftChild(), nullPrefix6);
  }
}
