// longestMatch against a plain reference: the stored set, probed length by length.
#include <gtest/gtest.h>

#include <cstdio>
#include <random>
#include <set>
#include <string>
#include <unordered_set>
#include <vector>

#include "TrieLib/DepotTrie.h"

using namespace Routing::Lattice;
using Addrkit::Ip6Address;
using Addrkit::Ip6Prefix;
using Addrkit::IpGenPrefix;
using Addrkit::Prefix;

namespace {

struct Reference4 {
  std::unordered_set<U64> stored;
  static U64 code(const Prefix& p) { return (U64(p.addrHost()) << 8) | p.len(); }
  void add(const Prefix& p) { stored.insert(code(p)); }
  void del(const Prefix& p) { stored.erase(code(p)); }
  IpGenPrefix match(const Prefix& q) const {
    for (int len = int(q.len()); len >= 0; --len) {
      Prefix p = Prefix::masked(q.addrHost(), U32(len));
      if (stored.count(code(p))) return p;
    }
    return {};
  }
};

struct Reference6 {
  std::set<std::string> stored;
  static std::string code(const Ip6Prefix& p) { return p.stringValue(); }
  void add(const Ip6Prefix& p) { stored.insert(code(p)); }
  void del(const Ip6Prefix& p) { stored.erase(code(p)); }
  IpGenPrefix match(const Ip6Prefix& q) const {
    for (int len = int(q.len()); len >= 0; --len) {
      Ip6Prefix p = Ip6Prefix::masked(q.address(), U32(len));
      if (stored.count(code(p))) return p;
    }
    return {};
  }
};

Prefix host4(U32 a) { return Prefix::masked(a, 32); }
Ip6Prefix host6(const Ip6Address& a) { return Ip6Prefix::masked(a, 128); }

Ip6Address address6(std::mt19937& rng, U32 top) {
  Ip6Address a;
  a.wordIs(0, top | (rng() & 0x0000FFFFu));
  a.wordIs(1, rng() & 0xFF00FF00u);
  a.wordIs(2, rng() & 0x0000000Fu);
  a.wordIs(3, rng() & 0x3u);
  return a;
}

std::vector<std::string> readTable(const char* file) {
  std::vector<std::string> lines;
  std::string cmd = std::string("xz -dc ") + DEPOT_DATA_DIR + "/" + file;
  FILE* f = popen(cmd.c_str(), "r");
  if (!f) return lines;
  char buf[128];
  while (fgets(buf, sizeof buf, f)) {
    std::string s(buf);
    while (!s.empty() && (s.back() == '\n' || s.back() == '\r')) s.pop_back();
    if (!s.empty() && s[0] != '#') lines.push_back(s);
  }
  pclose(f);
  return lines;
}

}  // namespace

TEST(LongestMatch, FindsWhatLpmMissesOnTheOddLengthSide) {
  auto trie = trieFactory("odd");
  trie->prefixIs(IpGenPrefix("0.0.0.0/23"));
  trie->prefixIs(IpGenPrefix("0.0.2.199/32"));
  EXPECT_EQ(trie->lpm(IpGenPrefix("0.0.1.252/32")), IpGenPrefix());  // lpm keeps its documented answer
  EXPECT_EQ(trie->longestMatch(IpGenPrefix("0.0.1.252/32")), IpGenPrefix("0.0.0.0/23"));
  EXPECT_EQ(trie->longestMatch(IpGenPrefix("0.0.2.199/32")), IpGenPrefix("0.0.2.199/32"));
  EXPECT_EQ(trie->longestMatch(IpGenPrefix("0.0.2.198/32")), IpGenPrefix());
  trie->prefixIs(IpGenPrefix("0.0.0.0/0"));
  EXPECT_EQ(trie->longestMatch(IpGenPrefix("0.0.2.198/32")), IpGenPrefix("0.0.0.0/0"));
  EXPECT_EQ(trie->longestMatch(IpGenPrefix("0.0.0.0/32")), IpGenPrefix("0.0.0.0/23"));
  EXPECT_EQ(trie->longestMatch(IpGenPrefix()), IpGenPrefix());

  auto t6 = trieFactory("v6");
  EXPECT_EQ(t6->longestMatch(IpGenPrefix("2001:db8::1")), IpGenPrefix());
  for (auto p : {"2001:db8::/32", "2001:db8:1::/48", "2001:db8:2::/48"}) t6->prefixIs(IpGenPrefix(p));
  // lpm answers empty here by design; the ancestor's /32 covers the query.
  EXPECT_EQ(t6->lpm(IpGenPrefix("2001:db8::/47")), IpGenPrefix());
  EXPECT_EQ(t6->longestMatch(IpGenPrefix("2001:db8::/47")), IpGenPrefix("2001:db8::/32"));
  t6->prefixIs(IpGenPrefix("::/0"));
  EXPECT_EQ(t6->longestMatch(IpGenPrefix("3000::1")), IpGenPrefix("::/0"));
}

TEST(LongestMatch, AgreesWithReferenceOnRandomHistories) {
  std::mt19937 rng(20261123);
  for (int round = 0; round < 4; ++round) {
    auto trie = trieFactory("random");
    Reference4 ref4;
    Reference6 ref6;
    std::vector<Prefix> v4;
    std::vector<Ip6Prefix> v6;
    const U32 top4 = rng() & 0xFF000000u;
    for (int i = 0; i < 3000; ++i) {
      U32 a = top4 | (rng() & 0x00FFFFFFu & ~(0x00F0F000u * (rng() & 1)));
      Prefix p = Prefix::masked(a, 1 + rng() % 32);
      if (p.addrHost() == 0 && p.len() >= 31) continue;  // shares its key with the default route
      trie->prefixIs(p);
      ref4.add(p);
      v4.push_back(p);
      Ip6Prefix q = Ip6Prefix::masked(address6(rng, 0x20010000u), 1 + rng() % 128);
      if (q == prefix0128) continue;
      trie->prefixIs(q);
      ref6.add(q);
      v6.push_back(q);
    }
    for (int i = 0; i < 800; ++i) {
      Prefix p = v4[rng() % v4.size()];
      trie->prefixDel(p);
      ref4.del(p);
      Ip6Prefix q = v6[rng() % v6.size()];
      trie->prefixDel(q);
      ref6.del(q);
    }
    for (int i = 0; i < 20000; ++i) {
      Prefix q4 = host4(top4 | (rng() & 0x00FFFFFFu));
      ASSERT_EQ(trie->longestMatch(q4), ref4.match(q4)) << q4;
      Prefix s4 = Prefix::masked(q4.addrHost(), rng() % 33);
      ASSERT_EQ(trie->longestMatch(s4), ref4.match(s4)) << s4;
      Ip6Prefix q6 = host6(address6(rng, 0x20010000u));
      ASSERT_EQ(trie->longestMatch(q6), ref6.match(q6)) << q6;
    }
  }
}

TEST(LongestMatch, AgreesWithReferenceOnTheSampleTables) {
  auto trie = trieFactory("sample");
  Reference4 ref4;
  Reference6 ref6;
  std::vector<Prefix> v4;
  std::vector<Ip6Prefix> v6;
  for (auto& line : readTable("routes-v4.txt.xz")) {
    Prefix p(line);
    trie->prefixIs(p);
    ref4.add(p);
    v4.push_back(p);
  }
  for (auto& line : readTable("routes-v6.txt.xz")) {
    Ip6Prefix p(line);
    trie->prefixIs(p);
    ref6.add(p);
    v6.push_back(p);
  }
  ASSERT_GT(v4.size(), 800000u);
  ASSERT_GT(v6.size(), 600000u);
  std::mt19937 rng(7);
  U64 lpmDiffers = 0;
  const int queries = 200000;
  for (int i = 0; i < queries; ++i) {
    const Prefix& p = v4[rng() % v4.size()];
    U32 hostBits = p.len() == 32 ? 0 : (rng() & (0xFFFFFFFFu >> p.len()));
    Prefix q = host4(p.addrHost() | hostBits);
    IpGenPrefix want = ref4.match(q);
    ASSERT_EQ(trie->longestMatch(q), want) << q;
    lpmDiffers += trie->lpm(q) != want;
    const Ip6Prefix& p6 = v6[rng() % v6.size()];
    Ip6Address a = p6.address();
    for (unsigned k = 0; k < 4; ++k) {
      U32 from = 32 * k;
      if (p6.len() >= from + 32) continue;
      U32 keep = p6.len() > from ? 0xFFFFFFFFu << (32 - (p6.len() - from)) : 0;
      a.wordIs(k, (a.word(k) & keep) | (rng() & ~keep));
    }
    Ip6Prefix q6 = host6(a);
    ASSERT_EQ(trie->longestMatch(q6), ref6.match(q6)) << q6;
  }
  // The documented lpm misses a share of host lookups here; longestMatch none.
  RecordProperty("lpmDiffersPercent", std::to_string(100.0 * double(lpmDiffers) / queries));
  EXPECT_GT(lpmDiffers, 0u);
}
