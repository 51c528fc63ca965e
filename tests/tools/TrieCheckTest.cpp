#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <random>
#include <set>

#include "TrieLib/DepotTrie.h"
#include "TrieLib/TrieCheck.h"

using namespace Routing::Lattice;
using Addrkit::IpGenPrefix;
using Addrkit::Ip6Prefix;
using Addrkit::Prefix;
using ::testing::Contains;
using ::testing::HasSubstr;
using ::testing::IsEmpty;

namespace {

// 8.0.0.0/6 (white) splitting into 10.0.0.0/8 (child10) and 11.0.0.0/8 (child11);
// 2001:db8::/31 (white) splitting into 2001:db8::/32 and 2001:db9::/32.
Basis::Ptr<Trie> smallTrie() {
  Basis::Ptr<Trie> t = trieFactory("check");
  for (const char* p : {"10.0.0.0/8", "11.0.0.0/8", "2001:db8::/32", "2001:db9::/32"}) t->prefixIs(IpGenPrefix(p));
  return t;
}

}  // namespace

TEST(TrieCheck, soundTriesPassAndAreMeasured) {
  Basis::Ptr<Trie> t = smallTrie();
  EXPECT_THAT(checkTrie(*t), IsEmpty());
  TrieStats s = trieStats(*t);
  EXPECT_EQ(s.v4.records, 4u);  // root, split node, two leaves
  EXPECT_EQ(s.v4.nodes, 3u);
  EXPECT_EQ(s.v4.prefixes, 2u);
  EXPECT_EQ(s.v4.depthCount, (std::vector<U64>{1, 2}));
  EXPECT_EQ(s.v6.depthCount, (std::vector<U64>{1, 2}));

  // Default routes live outside the tree and still count as prefixes.
  t->prefixIs(IpGenPrefix("0.0.0.0/0"));
  t->prefixIs(IpGenPrefix("::/0"));
  EXPECT_THAT(checkTrie(*t), IsEmpty());
  s = trieStats(*t);
  EXPECT_EQ(s.v4.prefixes, 3u);
  EXPECT_EQ(s.v6.prefixes, 3u);
  EXPECT_EQ(s.v4.nodes, 3u);

  Basis::Ptr<Trie> empty = trieFactory("empty");
  EXPECT_THAT(checkTrie(*empty), IsEmpty());
  s = trieStats(*empty);
  EXPECT_EQ(s.v4.records, 1u);
  EXPECT_EQ(s.v6.nodes, 0u);
  EXPECT_THAT(s.v6.depthCount, IsEmpty());
}

TEST(TrieCheck, randomInsertionsAndDeletionsStaySound) {
  Basis::Ptr<Trie> t = trieFactory("random");
  std::mt19937 rng(7);
  std::set<std::pair<U32, U32>> stored4;
  std::vector<IpGenPrefix> inserted;
  for (int i = 0; i < 3000; ++i) {
    U32 len = 1 + rng() % 32;
    // A narrow address range makes prefixes nest and share nodes.
    Prefix p = Prefix::masked(0x0A000000u | (rng() & 0x00FFFFFFu) | ((rng() & 1u) << 24), len);
    if (p == prefix032 || p == nullPrefix) continue;
    t->prefixIs(IpGenPrefix(p));
    stored4.insert({p.addrHost(), p.len()});
    inserted.push_back(IpGenPrefix(p));
    Addrkit::Ip6Address a;
    a.wordIs(0, 0x20010db8u);
    a.wordIs(1, rng() & 0x0000FFFFu);
    Ip6Prefix q = Ip6Prefix::masked(a, 1 + rng() % 64);
    t->prefixIs(IpGenPrefix(q));
  }
  for (size_t i = 0; i < inserted.size(); i += 2) {
    if (t->prefixDel(inserted[i])) stored4.erase({inserted[i].v4().addrHost(), inserted[i].len()});
  }
  EXPECT_THAT(checkTrie(*t), IsEmpty());
  TrieStats s = trieStats(*t);
  EXPECT_EQ(s.v4.prefixes, stored4.size());
  U64 depthTotal = 0;
  for (U64 n : s.v4.depthCount) depthTotal += n;
  EXPECT_EQ(depthTotal, s.v4.nodes);
  EXPECT_LE(s.v4.depthCount.size(), 17u);
}

TEST(TrieCheck, ipv4DamageIsReported) {
  const Prefix split("8.0.0.0/6"), ten("10.0.0.0/8"), eleven("11.0.0.0/8");
  {
    Basis::Ptr<Trie> t = smallTrie();
    t->trieNodeDel(eleven);
    EXPECT_THAT(checkTrie(*t), Contains(HasSubstr("child 11.0.0.0/8 is not stored")));
  }
  {
    Basis::Ptr<Trie> t = smallTrie();
    TrieNode n = t->trieNode(split);
    n.child01Is(n.child10());
    n.child10Is(nullPrefix);
    t->trieNodeIs(n);
    EXPECT_THAT(checkTrie(*t), Contains(HasSubstr("child 10.0.0.0/8 sits in child01, its key selects child10")));
  }
  {
    Basis::Ptr<Trie> t = smallTrie();
    TrieNode n = t->trieNode(ten);
    n.blackIs(n.black() | 0x10000000u);  // length 4 lies on the split node's edge
    t->trieNodeIs(n);
    EXPECT_THAT(checkTrie(*t), Contains(HasSubstr("IPv4 node 10.0.0.0/8: black 0x11000000 marks lengths off its "
                                                  "edge (7..8): 4")));
  }
  {
    Basis::Ptr<Trie> t = smallTrie();
    TrieNode odd(Prefix("10.0.0.0/7"));
    odd.blackIs(0x02000000u);
    t->trieNodeIs(odd);
    TrieNode n = t->trieNode(split);
    n.child00Is(odd.key());
    t->trieNodeIs(n);
    std::vector<std::string> problems = checkTrie(*t);
    EXPECT_THAT(problems, Contains(HasSubstr("IPv4 node 10.0.0.0/7: key length 7 is odd")));
  }
  {
    Basis::Ptr<Trie> t = smallTrie();
    TrieNode n = t->trieNode(ten);
    n.child00Is(split);  // points back up: a loop
    t->trieNodeIs(n);
    t->trieNodeIs(TrieNode(Prefix("20.0.0.0/8")));
    TrieNode root = t->trieNode(rootPrefix);
    root.child01Is(ten);
    t->trieNodeIs(root);
    std::vector<std::string> problems = checkTrie(*t);
    EXPECT_THAT(problems, Contains(HasSubstr("child00 8.0.0.0/6 does not lie below the node")));
    EXPECT_THAT(problems, Contains(HasSubstr("IPv4 record 20.0.0.0/8 is not reachable")));
    EXPECT_THAT(problems, Contains(HasSubstr("IPv4 root record: child01 is 10.0.0.0/8")));
  }
  {
    // The default-route record is the one record allowed outside the tree,
    // and only in its own shape.
    Basis::Ptr<Trie> t = smallTrie();
    TrieNode stray(prefix032);
    stray.blackIs(0x00000002u);
    t->trieNodeIs(stray);
    EXPECT_THAT(checkTrie(*t), Contains(HasSubstr("0.0.0.0/32 is not in the tree and is not a default-route")));
  }
  {
    Basis::Ptr<Trie> t = smallTrie();
    t->trieNodeDel(rootPrefix);
    std::vector<std::string> problems = checkTrie(*t);
    EXPECT_THAT(problems, Contains(HasSubstr("IPv4 root record 255.255.255.255/32 is missing")));
    EXPECT_THAT(problems, Contains(HasSubstr("IPv4 record 8.0.0.0/6 is not reachable")));
  }
}

TEST(TrieCheck, ipv6DamageIsReported) {
  const Ip6Prefix split("2001:db8::/31"), left("2001:db8::/32"), right("2001:db9::/32");
  {
    Basis::Ptr<Trie> t = smallTrie();
    TrieNode6 n = t->trieNode6(split);
    n.rightChildIs(nullPrefix6);
    t->trieNode6Is(n);
    std::vector<std::string> problems = checkTrie(*t);
    EXPECT_THAT(problems, Contains(HasSubstr("IPv6 node 2001:db8::/31: has one child")));
    EXPECT_THAT(problems, Contains(HasSubstr("IPv6 record 2001:db9::/32 is not reachable")));
  }
  {
    Basis::Ptr<Trie> t = smallTrie();
    TrieNode6 n = t->trieNode6(split);
    n.leftChildIs(right);
    n.rightChildIs(left);
    t->trieNode6Is(n);
    EXPECT_THAT(checkTrie(*t), Contains(HasSubstr("child 2001:db9::/32 is the leftChild, but bit 31 of its key is 1")));
  }
  {
    Basis::Ptr<Trie> t = smallTrie();
    TrieNode6 n = t->trieNode6(right);
    n.black1Is(0x80000000u);  // length 33, beyond the key's 32
    t->trieNode6Is(n);
    EXPECT_THAT(checkTrie(*t), Contains(HasSubstr("black1 0x80000000 marks lengths off its edge (32..32): 33")));
  }
  {
    Basis::Ptr<Trie> t = smallTrie();
    TrieNode6 n = t->trieNode6(split);
    n.rightChildIs(left);
    t->trieNode6Is(n);
    std::vector<std::string> problems = checkTrie(*t);
    EXPECT_THAT(problems, Contains(HasSubstr("IPv6 node 2001:db8::/32 is reached a second time")));
    EXPECT_THAT(problems, Contains(HasSubstr("IPv6 record 2001:db9::/32 is not reachable")));
  }
  {
    Basis::Ptr<Trie> t = smallTrie();
    t->prefixIs(IpGenPrefix("::/0"));
    TrieNode6 root = t->trieNode6(rootPrefix6);
    root.leftChildIs(prefix0128);
    t->trieNode6Is(root);
    EXPECT_THAT(checkTrie(*t), Contains(HasSubstr("::/128 (the default route) is linked into the tree")));
  }
}
