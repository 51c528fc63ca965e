// The IPv6 trie: node bits, record shapes written by insertion and deletion,
// longest-prefix match, successor, walk and the depth guards.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <map>
#include <string>
#include <string_view>
#include <vector>

#include "Kiln/Trace.h"
#include "Ringlog/Ringlog.h"
#include "TrieLib/DepotTrie.h"
#include "TrieLib/Trie6.h"
#include "TrieTestSupport.h"

using namespace Routing::Lattice;
using Addrkit::Ip6Prefix;
using Addrkit::IpGenPrefix;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

namespace {

using trietest::Collector;
using trietest::TraceCapture;

Ip6Prefix p6(const char* text) { return Ip6Prefix(text); }
IpGenPrefix g6(const char* text) { return IpGenPrefix(Ip6Prefix(text)); }

Basis::Ptr<Trie> newTrie() {
  static int serial = 0;
  return trieFactory("trie6-" + std::to_string(++serial));
}

std::array<U32, 4> words(const TrieNode6& n) { return {n.black0(), n.black1(), n.black2(), n.black3()}; }

std::vector<std::string> keys6(const Trie& t) {
  std::vector<std::string> v;
  for (auto it = t.trieNode6Map().begin(); it.valid(); it.advance()) v.push_back(it->key().stringValue());
  std::sort(v.begin(), v.end());
  return v;
}

bool stored(const Trie& t, const char* key) { return t.trieNode6(p6(key)).key() == p6(key); }

// The keys of field trieNode6 that the trie publishes, in order: one per
// write or removal.
class KeyRecorder : public Kiln::Notifiee {
 public:
  explicit KeyRecorder(Trie& t) : trie_(t) {
    trie_.publisher()->subscribe(this);
    activeIs(true);
  }
  ~KeyRecorder() override { trie_.publisher()->unsubscribe(this); }
  void onChange(const Kiln::Change& c) override {
    if (c.field == Trie::trieNode6Id) keys.push_back(std::any_cast<Ip6Prefix>(c.value).stringValue());
  }
  std::vector<std::string> keys;

 private:
  Trie& trie_;
};



std::vector<std::string> walk(const Trie& t, const IpGenPrefix& root, const std::string& at = "",
                              WalkAction action = continueWalk) {
  Basis::Ptr<Collector> c(new Collector);
  if (!at.empty()) c->answers[at] = action;
  t.preOrderWalk(c, root);
  return c->seen;
}

std::vector<std::string> enumerate(const Trie& t, const IpGenPrefix& start) {
  std::vector<std::string> v;
  for (IpGenPrefix p = t.getNext(start); !p.isEmpty(); p = t.getNext(p)) v.push_back(p.stringValue());
  return v;
}

TrieNode6 record(const char* key, std::array<U32, 4> black, const char* left, const char* right) {
  TrieNode6 n(p6(key));
  for (U32 w = 0; w < 4; ++w) n.blackIs(w, black[w]);
  n.leftChildIs(p6(left));
  n.rightChildIs(p6(right));
  return n;
}

// The assertion line as a death-test pattern matching it literally.
std::string deathText(const std::string& condition, const std::string& signature) {
  const std::string line = "assertion failed: " + condition + " (/src/TrieLib/DepotTrie: " + signature + ")";
  std::string pattern;
  for (char c : line) {
    if (std::string_view(".^$|()[]{}*+?\\").find(c) != std::string_view::npos) pattern += '\\';
    pattern += c;
  }
  return pattern;
}

const char* ones = "ffff:ffff:ffff:ffff:ffff:ffff:ffff:ffff/128";

}  // namespace

TEST(Trie6Bits, SetBlackPlacesEachLengthAndAliasesZero) {
  TrieNode6 n(p6("2001:db8::/32"));
  setBlack6(n, 1, true);
  setBlack6(n, 32, true);
  setBlack6(n, 33, true);
  setBlack6(n, 96, true);
  EXPECT_EQ(words(n), (std::array<U32, 4>{0x80000001u, 0x80000000u, 0x00000001u, 0}));
  setBlack6(n, 0, true);
  EXPECT_EQ(n.black3(), 1u);
  EXPECT_TRUE(hasBlack6(n, 128));
  setBlack6(n, 128, false);
  EXPECT_FALSE(hasBlack6(n, 0));
  setBlack6(n, 32, false);
  EXPECT_EQ(words(n), (std::array<U32, 4>{0x80000000u, 0x80000000u, 0x00000001u, 0}));
  EXPECT_TRUE(anyBlack6(n));
  EXPECT_EQ(firstBlack6(n), 1u);

  TrieNode6 m(p6("2001:db8::/32"));
  EXPECT_FALSE(anyBlack6(m));
  EXPECT_EQ(firstBlack6(m), 0u);
  setBlack6(m, 100, true);
  EXPECT_EQ(firstBlack6(m), 100u);
}

TEST(Trie6Bits, NextAndPreviousMarkedLength) {
  TrieNode6 n(p6("2001:db8::/32"));
  for (U32 len : {5u, 32u, 33u, 64u, 127u, 128u}) setBlack6(n, len, true);
  EXPECT_EQ(nextBlack6(n, 0), 5u);
  EXPECT_EQ(nextBlack6(n, 5), 32u);
  EXPECT_EQ(nextBlack6(n, 32), 33u);
  EXPECT_EQ(nextBlack6(n, 33), 64u);
  EXPECT_EQ(nextBlack6(n, 64), 127u);
  EXPECT_EQ(nextBlack6(n, 127), 128u);
  EXPECT_EQ(nextBlack6(n, 128), 0u);
  TrieNode6 one(p6("2001:db8::/32"));
  setBlack6(one, 40, true);
  EXPECT_EQ(nextBlack6(one, 40), 0u);
  EXPECT_EQ(nextBlack6(one, 39), 40u);

  EXPECT_EQ(prevBlack6(n, 128), 128u);
  EXPECT_EQ(prevBlack6(n, 126), 64u);
  EXPECT_EQ(prevBlack6(n, 63), 33u);
  EXPECT_EQ(prevBlack6(n, 33), 33u);
  EXPECT_EQ(prevBlack6(n, 31), 5u);
  EXPECT_EQ(prevBlack6(n, 4), 0u);
  EXPECT_EQ(prevBlack6(n, 0), 0u);
  EXPECT_EQ(prevBlack6(one, 96), 40u);
}

TEST(Trie6Bits, CommonPrefixLengthAndLexicalOrder) {
  EXPECT_EQ(commonPrefixLen6(p6("2001:db8::/32"), p6("2001:db9::/32"), 128), 31u);
  EXPECT_EQ(commonPrefixLen6(p6("2001:db8::/32"), p6("2001:db9::/32"), 20), 20u);
  EXPECT_EQ(commonPrefixLen6(p6("2001:db8::/32"), p6("2001:db8::/48"), 48), 48u);
  EXPECT_EQ(commonPrefixLen6(p6("2001:db8::/32"), p6("2001:db8::/32"), 200), 128u);
  EXPECT_EQ(commonPrefixLen6(p6("2001:db8::/32"), p6("3001:db8::/32"), 0), 0u);
  EXPECT_EQ(commonPrefixLen6(p6("2001:db8::1/128"), p6("2001:db8::2/128"), 128), 126u);
  EXPECT_EQ(commonPrefixLen6(p6("2001:db8:0:0:1::/80"), p6("2001:db8::/80"), 128), 79u);

  EXPECT_TRUE(prefixLexicallyGreater6(p6("2001:db8::/48"), p6("2001:db8::/32")));
  EXPECT_FALSE(prefixLexicallyGreater6(p6("2001:db8::/32"), p6("2001:db8::/48")));
  EXPECT_FALSE(prefixLexicallyGreater6(p6("2001:db8::/32"), p6("2001:db8::/32")));
  EXPECT_TRUE(prefixLexicallyGreater6(p6("2001:db9::/32"), p6("2001:db8::/48")));
  EXPECT_FALSE(prefixLexicallyGreater6(p6("::/0"), p6("::1/128")));
}

TEST(Trie6Insert, FirstLeafExtensionAndMarkFlip) {
  auto t = newTrie();
  prefixIs6(t.ptr(), p6("2001:db8::/32"));
  EXPECT_EQ(t->trieNode6(rootPrefix6).leftChild(), p6("2001:db8::/32"));
  EXPECT_EQ(words(t->trieNode6(p6("2001:db8::/32"))), (std::array<U32, 4>{1, 0, 0, 0}));

  KeyRecorder rec(*t);
  prefixIs6(t.ptr(), p6("2001:db8::/48"));
  EXPECT_THAT(rec.keys, ElementsAre(ones, "2001:db8::/48", "2001:db8::/32"));
  EXPECT_FALSE(stored(*t, "2001:db8::/32"));
  TrieNode6 leaf = t->trieNode6(p6("2001:db8::/48"));
  EXPECT_EQ(words(leaf), (std::array<U32, 4>{1, 0x00010000u, 0, 0}));
  EXPECT_EQ(leaf.leftChild(), nullPrefix6);
  EXPECT_EQ(leaf.rightChild(), nullPrefix6);
  EXPECT_EQ(t->trieNode6(rootPrefix6).leftChild(), p6("2001:db8::/48"));

  auto flipped = newTrie();
  prefixIs6(flipped.ptr(), p6("2001:db8::/48"));
  prefixIs6(flipped.ptr(), p6("2001:db8::/32"));
  EXPECT_THAT(keys6(*flipped), ElementsAre("2001:db8::/48", ones));
  EXPECT_EQ(words(flipped->trieNode6(p6("2001:db8::/48"))), words(leaf));
  prefixIs6(flipped.ptr(), p6("2001:db8::/32"));
  EXPECT_THAT(keys6(*flipped), ElementsAre("2001:db8::/48", ones));
  EXPECT_EQ(words(flipped->trieNode6(p6("2001:db8::/48"))), words(leaf));
}

TEST(Trie6Insert, SplitsMoveMarksAndHangOnTheRightSide) {
  auto t = newTrie();
  prefixIs6(t.ptr(), p6("2001::/16"));
  prefixIs6(t.ptr(), p6("2001:db8::/32"));
  KeyRecorder rec(*t);
  prefixIs6(t.ptr(), p6("2001:db9::/32"));
  EXPECT_THAT(rec.keys,
              ElementsAre(ones, "2001:db8::/31", "2001:db9::/32", "2001:db8::/31", "2001:db8::/31", "2001:db8::/32"));
  TrieNode6 split = t->trieNode6(p6("2001:db8::/31"));
  EXPECT_EQ(words(split), (std::array<U32, 4>{0x00010000u, 0, 0, 0}));
  EXPECT_EQ(split.leftChild(), p6("2001:db8::/32"));
  EXPECT_EQ(split.rightChild(), p6("2001:db9::/32"));
  EXPECT_EQ(words(t->trieNode6(p6("2001:db8::/32"))), (std::array<U32, 4>{1, 0, 0, 0}));
  EXPECT_EQ(t->trieNode6(rootPrefix6).leftChild(), p6("2001:db8::/31"));

  // A split below a node takes the node's side under it; marks up to the
  // split length stay with the split record, across the word boundary.
  prefixIs6(t.ptr(), p6("2001:db9:8000::/33"));
  EXPECT_FALSE(stored(*t, "2001:db9::/32"));
  EXPECT_EQ(words(t->trieNode6(p6("2001:db9:8000::/33"))), (std::array<U32, 4>{1, 0x80000000u, 0, 0}));
  prefixIs6(t.ptr(), p6("2001:db9::/33"));
  EXPECT_EQ(t->trieNode6(p6("2001:db8::/31")).rightChild(), p6("2001:db9::/32"));
  TrieNode6 inner = t->trieNode6(p6("2001:db9::/32"));
  EXPECT_EQ(words(inner), (std::array<U32, 4>{1, 0, 0, 0}));
  EXPECT_EQ(inner.leftChild(), p6("2001:db9::/33"));
  EXPECT_EQ(inner.rightChild(), p6("2001:db9:8000::/33"));
  EXPECT_EQ(words(t->trieNode6(p6("2001:db9:8000::/33"))), (std::array<U32, 4>{0, 0x80000000u, 0, 0}));
  EXPECT_EQ(words(t->trieNode6(p6("2001:db9::/33"))), (std::array<U32, 4>{0, 0x80000000u, 0, 0}));

  auto zero = newTrie();
  prefixIs6(zero.ptr(), p6("8000::/1"));
  prefixIs6(zero.ptr(), p6("::/1"));
  TrieNode6 top = zero->trieNode6(p6("::/0"));
  EXPECT_EQ(zero->trieNode6(rootPrefix6).leftChild(), p6("::/0"));
  EXPECT_EQ(words(top), (std::array<U32, 4>{0, 0, 0, 0}));
  EXPECT_EQ(top.leftChild(), p6("::/1"));
  EXPECT_EQ(top.rightChild(), p6("8000::/1"));
  EXPECT_EQ(zero->lpm(g6("4000::1/128")), g6("::/1"));
  EXPECT_EQ(zero->lpm(g6("::/0")), IpGenPrefix());
  EXPECT_THAT(enumerate(*zero, nullPrefix6), ElementsAre("::/1", "8000::/1"));
}

TEST(Trie6Insert, DefaultRouteAndRefusedPrefixes) {
  auto t = newTrie();
  TraceCapture trace;
  prefixIs6(t.ptr(), prefix0128);
  prefixIs6(t.ptr(), nullPrefix6);
  EXPECT_TRUE(trace.has("prefixIs6 Trie cannot allow prefix: ::/128"));
  EXPECT_THAT(keys6(*t), ElementsAre(ones));

  prefixIs6(t.ptr(), p6("2001:db8::/32"));
  TrieNode6 rootBefore = t->trieNode6(rootPrefix6);
  prefixIs6(t.ptr(), prefix006);
  TrieNode6 def = t->trieNode6(prefix0128);
  EXPECT_EQ(def.key(), prefix0128);
  EXPECT_EQ(words(def), (std::array<U32, 4>{0, 0, 0, 1}));
  EXPECT_EQ(def.leftChild(), nullPrefix6);
  EXPECT_EQ(def.rightChild(), nullPrefix6);
  EXPECT_EQ(t->trieNode6(rootPrefix6), rootBefore);
  EXPECT_THAT(keys6(*t), ElementsAre("2001:db8::/32", "::/128", ones));
  EXPECT_EQ(checkForPrefix006(t.ptr()), g6("::/0"));
}

TEST(Trie6Lpm, LongestMatchAndItsEmptyAnswers) {
  auto t = newTrie();
  EXPECT_EQ(lpm6(t.ptr(), p6("2001:db8::/32")), IpGenPrefix());
  prefixIs6(t.ptr(), prefix006);
  EXPECT_EQ(lpm6(t.ptr(), p6("2001:db8::/32")), g6("::/0"));
  EXPECT_EQ(lpm6(t.ptr(), p6("::/0")), g6("::/0"));
  EXPECT_EQ(lpm6(t.ptr(), prefix0128), IpGenPrefix());
  EXPECT_EQ(lpm6(t.ptr(), nullPrefix6), IpGenPrefix());

  prefixIs6(t.ptr(), p6("2001:db8::/32"));
  {
    TraceCapture trace;
    EXPECT_EQ(lpm6(t.ptr(), p6("2001:db8:1::/48")), g6("2001:db8::/32"));
    EXPECT_TRUE(trace.has("lpm6 Node is lpm."));
  }
  {
    TraceCapture trace;
    EXPECT_EQ(lpm6(t.ptr(), p6("2001:db8::/32")), g6("2001:db8::/32"));
    EXPECT_TRUE(trace.has("lpm6 Prefix is lpm."));
  }
  EXPECT_EQ(lpm6(t.ptr(), p6("2001:db8::/31")), IpGenPrefix());
  EXPECT_EQ(lpm6(t.ptr(), p6("3000::/16")), g6("::/0"));

  prefixIs6(t.ptr(), p6("2001:db8:1::/48"));
  {
    TraceCapture trace;
    EXPECT_EQ(lpm6(t.ptr(), p6("2001:db8::/40")), g6("2001:db8::/32"));
    EXPECT_TRUE(trace.has("lpm6 PrevBlack is lpm."));
  }
  EXPECT_EQ(lpm6(t.ptr(), p6("2001:db8:1::1/128")), g6("2001:db8:1::/48"));

  // The query ends inside the /48 leaf's edge below its only mark: no answer,
  // neither the split record's /32 nor the default route.
  prefixIs6(t.ptr(), p6("2001:db8:2::/48"));
  EXPECT_EQ(words(t->trieNode6(p6("2001:db8::/46"))), (std::array<U32, 4>{1, 0, 0, 0}));
  EXPECT_EQ(lpm6(t.ptr(), p6("2001:db8::/47")), IpGenPrefix());
  EXPECT_EQ(lpm6(t.ptr(), p6("2001:db8:3::/48")), g6("2001:db8::/32"));
  EXPECT_EQ(t->lpm(g6("2001:db8:2:ff::/64")), g6("2001:db8:2::/48"));

  TrieNode6 holder = lpm6Node(t.ptr(), p6("2001:db8:1:5::/64"));
  EXPECT_EQ(holder.key(), p6("2001:db8:1::/48"));
  EXPECT_EQ(lpm6Node(t.ptr(), p6("3000::/16")), TrieNode6(prefix006));
}

TEST(Trie6Delete, MarksLeavesAndHoisting) {
  auto t = newTrie();
  EXPECT_FALSE(prefixDel6(t.ptr(), p6("2001:db8::/32")));
  prefixIs6(t.ptr(), p6("2001:db8::/32"));
  EXPECT_TRUE(prefixDel6(t.ptr(), p6("2001:db8::/32")));
  EXPECT_EQ(t->trieNode6(rootPrefix6).leftChild(), nullPrefix6);
  EXPECT_THAT(keys6(*t), ElementsAre(ones));

  prefixIs6(t.ptr(), p6("2001:db8::/32"));
  prefixIs6(t.ptr(), p6("2001:db9::/32"));
  prefixIs6(t.ptr(), p6("2001::/16"));
  KeyRecorder rec(*t);
  EXPECT_TRUE(prefixDel6(t.ptr(), p6("2001:db9::/32")));
  EXPECT_THAT(rec.keys, ElementsAre("2001:db9::/32", ones, "2001:db8::/32", "2001:db8::/31", "2001:db9::/32"));
  EXPECT_THAT(keys6(*t), ElementsAre("2001:db8::/32", ones));
  EXPECT_EQ(t->trieNode6(rootPrefix6).leftChild(), p6("2001:db8::/32"));
  EXPECT_EQ(words(t->trieNode6(p6("2001:db8::/32"))), (std::array<U32, 4>{0x00010001u, 0, 0, 0}));

  // One of two marks goes; the leaf stays.
  EXPECT_TRUE(prefixDel6(t.ptr(), p6("2001::/16")));
  EXPECT_EQ(words(t->trieNode6(p6("2001:db8::/32"))), (std::array<U32, 4>{1, 0, 0, 0}));

  TraceCapture trace;
  EXPECT_FALSE(prefixDel6(t.ptr(), p6("2001:d00::/24")));
  EXPECT_TRUE(trace.has("prefixDel6 White node. Cannot delete"));
  EXPECT_FALSE(prefixDel6(t.ptr(), p6("2001:db8::/48")));
  EXPECT_TRUE(trace.has("prefixDel6 Failed to delete prefix: 2001:db8::/48 because it does not exist in Trie"));
  EXPECT_FALSE(prefixDel6(t.ptr(), p6("2001:db9::/32")));
  EXPECT_FALSE(prefixDel6(t.ptr(), prefix0128));
  EXPECT_FALSE(prefixDel6(t.ptr(), nullPrefix6));
  EXPECT_EQ(words(t->trieNode6(p6("2001:db8::/32"))), (std::array<U32, 4>{1, 0, 0, 0}));

  prefixIs6(t.ptr(), prefix006);
  EXPECT_TRUE(prefixDel6(t.ptr(), prefix006));
  EXPECT_FALSE(prefixDel6(t.ptr(), prefix006));
  EXPECT_THAT(keys6(*t), ElementsAre("2001:db8::/32", ones));
}

TEST(Trie6Delete, HoistMergesMarksOfEveryWordAndKeepsTheSide) {
  auto t = newTrie();
  for (const char* p : {"2001:db8::/32", "2001:db8:1::/48", "2001:db8:2::/48", "2001:db8::/40", "2001:db8:2::/100"})
    prefixIs6(t.ptr(), p6(p));
  EXPECT_EQ(words(t->trieNode6(p6("2001:db8::/46"))), (std::array<U32, 4>{1, 0x01000000u, 0, 0}));
  EXPECT_TRUE(prefixDel6(t.ptr(), p6("2001:db8:1::/48")));
  EXPECT_THAT(keys6(*t), ElementsAre("2001:db8:2::/100", ones));
  EXPECT_EQ(words(t->trieNode6(p6("2001:db8:2::/100"))), (std::array<U32, 4>{1, 0x01010000u, 0, 0x10000000u}));
  EXPECT_THAT(walk(*t, rootPrefix6),
              ElementsAre("2001:db8::/32", "2001:db8::/40", "2001:db8:2::/48", "2001:db8:2::/100"));

  // Below a branching node, the hoisted child goes to the side its key picks.
  auto u = newTrie();
  for (const char* p : {"2001:db8::/32", "2001:db9::/32", "2001:db9:8000::/33", "2001:db9::/33"})
    prefixIs6(u.ptr(), p6(p));
  EXPECT_TRUE(prefixDel6(u.ptr(), p6("2001:db9::/33")));
  EXPECT_EQ(u->trieNode6(p6("2001:db8::/31")).rightChild(), p6("2001:db9:8000::/33"));
  EXPECT_EQ(words(u->trieNode6(p6("2001:db9:8000::/33"))), (std::array<U32, 4>{1, 0x80000000u, 0, 0}));
  EXPECT_FALSE(stored(*u, "2001:db9::/32"));
  EXPECT_TRUE(prefixDel6(u.ptr(), p6("2001:db8::/32")));
  EXPECT_EQ(u->trieNode6(rootPrefix6).leftChild(), p6("2001:db9:8000::/33"));
  EXPECT_THAT(keys6(*u), ElementsAre("2001:db9:8000::/33", ones));
}

TEST(Trie6Successor, EnumerationOrderAndVisitCounts) {
  auto t = newTrie();
  {
    TraceCapture trace;
    EXPECT_EQ(t->getNext(nullPrefix6), IpGenPrefix());
    EXPECT_TRUE(trace.has("getNext6 Empty trie"));
  }
  prefixIs6(t.ptr(), prefix006);
  EXPECT_THAT(enumerate(*t, nullPrefix6), ElementsAre("::/0"));

  prefixIs6(t.ptr(), p6("2001:db8::/48"));
  prefixIs6(t.ptr(), p6("2001:db8::/32"));
  EXPECT_THAT(enumerate(*t, nullPrefix6), ElementsAre("::/0", "2001:db8::/32", "2001:db8::/48"));
  EXPECT_EQ(t->nodesVisitedCount(), 1u);
  EXPECT_EQ(t->getNext(nullPrefix6), g6("::/0"));
  EXPECT_EQ(t->nodesVisitedCount(), 0u);
  EXPECT_EQ(t->getNext(g6("2001:db8::/40")), g6("2001:db8::/48"));
  EXPECT_TRUE(prefixDel6(t.ptr(), prefix006));
  EXPECT_EQ(t->getNext(nullPrefix6), g6("2001:db8::/32"));

  auto u = newTrie();
  prefixIs6(u.ptr(), p6("2001:db8::/32"));
  prefixIs6(u.ptr(), p6("2001:db9::/32"));
  EXPECT_EQ(u->getNext(nullPrefix6), g6("2001:db8::/32"));
  EXPECT_EQ(u->nodesVisitedCount(), 2u);
  EXPECT_EQ(u->getNext(g6("2001:db8::/32")), g6("2001:db9::/32"));
  EXPECT_EQ(u->nodesVisitedCount(), 3u);
  EXPECT_EQ(u->getNext(g6("2001:db9::/32")), IpGenPrefix());
  EXPECT_EQ(u->nodesVisitedCount(), 3u);
  EXPECT_EQ(u->getNext(g6("3000::/4")), IpGenPrefix());
  EXPECT_EQ(u->nodesVisitedCount(), 1u);
  EXPECT_EQ(u->getNext(g6("::/3")), g6("2001:db8::/32"));
}

TEST(Trie6Walk, PreOrderSkipAbortAndSubtrees) {
  auto t = newTrie();
  EXPECT_THAT(walk(*t, rootPrefix6), IsEmpty());
  prefixIs6(t.ptr(), prefix006);
  EXPECT_THAT(walk(*t, rootPrefix6), ElementsAre("::/0"));
  EXPECT_THAT(walk(*t, IpGenPrefix()), IsEmpty());
  EXPECT_THAT(walk(*t, rootPrefix6, "::/0", abortWalk), ElementsAre("::/0"));

  for (const char* p : {"2001:db8::/32", "2001:db8::/48", "2001:db9::/32", "2001:db9:1::/48"})
    prefixIs6(t.ptr(), p6(p));
  EXPECT_THAT(walk(*t, rootPrefix6),
              ElementsAre("::/0", "2001:db8::/32", "2001:db8::/48", "2001:db9::/32", "2001:db9:1::/48"));
  EXPECT_THAT(walk(*t, rootPrefix6, "2001:db8::/32", skipSubtree),
              ElementsAre("::/0", "2001:db8::/32", "2001:db9::/32", "2001:db9:1::/48"));
  EXPECT_THAT(walk(*t, rootPrefix6, "2001:db8::/48", abortWalk), ElementsAre("::/0", "2001:db8::/32", "2001:db8::/48"));
  EXPECT_THAT(walk(*t, g6("2001:db8::/40")), ElementsAre("::/0", "2001:db8::/48"));
  EXPECT_THAT(walk(*t, g6("2001:db9::/32")), ElementsAre("::/0", "2001:db9::/32", "2001:db9:1::/48"));
  EXPECT_THAT(walk(*t, g6("3000::/16")), ElementsAre("::/0"));

  // A subtree root of length 0 starts at length 0, whose bit is that of 128.
  auto h = newTrie();
  prefixIs6(h.ptr(), p6("2001:db8::1/128"));
  EXPECT_THAT(walk(*h, g6("::/0")), ElementsAre("::/0", "2001:db8::1/128"));
  EXPECT_THAT(walk(*h, rootPrefix6), ElementsAre("2001:db8::1/128"));
}

TEST(Trie6Depth, GuardsAllowAFullDepthTrieAndStopCorruptChains) {
  // c000:: with each of its first 127 bits flipped, itself and its last bit
  // set: branching nodes at every length 0..127 on one path, 128 descents.
  auto t = newTrie();
  Addrkit::Ip6Address base("c000::");
  auto withBit = [&](U32 n) {
    Addrkit::Ip6Address a = base;
    a.wordIs(n / 32, a.word(n / 32) ^ (0x80000000u >> (n % 32)));
    return Ip6Prefix(a, 128);
  };
  for (U32 n = 0; n < 128; ++n) prefixIs6(t.ptr(), withBit(n));
  const Ip6Prefix deepest(base, 128);
  prefixIs6(t.ptr(), deepest);
  prefixIs6(t.ptr(), deepest);
  EXPECT_EQ(t->trieNode6(p6("c000::/127")).leftChild(), deepest);
  EXPECT_EQ(lpm6(t.ptr(), deepest), IpGenPrefix(deepest));
  EXPECT_EQ(t->getNext(withBit(1)), IpGenPrefix(deepest));
  EXPECT_EQ(t->nodesVisitedCount(), 131u);
  EXPECT_TRUE(prefixDel6(t.ptr(), deepest));

  // A node whose children name itself.
  auto c = newTrie();
  TrieNode6 root(rootPrefix6);
  root.leftChildIs(p6("2001:db8::/32"));
  c->trieNode6Is(root);
  c->trieNode6Is(record("2001:db8::/32", {0, 0, 0, 0}, "2001:db8::/32", "2001:db8::/32"));
  const std::string depth = "trieDepth++ <= 128";
  EXPECT_DEATH(
      prefixIs6(c.ptr(), p6("2001:db8:1::/48")),
      deathText(depth, "void Routing::Lattice::prefixIs6(Routing::Lattice::Trie*, const Addrkit::Ip6Prefix&)"));
  EXPECT_DEATH(lpm6(c.ptr(), p6("2001:db8:1::/48")),
               deathText(depth,
                         "Routing::Lattice::TrieNode6 Routing::Lattice::lpm6Node(const Routing::Lattice::Trie*, "
                         "const Addrkit::Ip6Prefix&)"));
  EXPECT_DEATH(
      prefixDel6(c.ptr(), p6("2001:db8:1::/48")),
      deathText(depth, "bool Routing::Lattice::prefixDel6(Routing::Lattice::Trie*, const Addrkit::Ip6Prefix&)"));
  EXPECT_DEATH(c->getNext(nullPrefix6),
               deathText("recursionDepth++ <= trie->ipv6TrieMaxDepth() && \"recursion depth exceeded\"",
                         "Addrkit::IpGenPrefix Routing::Lattice::doGetNext6(const Routing::Lattice::Trie*, const "
                         "Addrkit::Ip6Prefix&, const Addrkit::Ip6Prefix&, U32)"));
  EXPECT_DEATH(c->getNext(prefix0128),
               deathText("prefix != prefix0128 && \"Invalid Lookup 0/128\"",
                         "Addrkit::IpGenPrefix Routing::Lattice::getNext6(const Routing::Lattice::Trie*, const "
                         "Addrkit::Ip6Prefix&)"));
  TrieNode6 n(p6("2001:db8::/32"));
  EXPECT_DEATH(nextBlack6(n, 129), deathText("bitPos <= 128 && \"invalid bit position\"",
                                             "U32 Routing::Lattice::nextBlack6(Routing::Lattice::TrieNode6&, U32)"));
}

TEST(Trie6Insert, TimingMessagesNameTheInsertionSteps) {
  const std::string ring = "/tmp/trie6-ring-" + std::to_string(::getpid());
  Ringlog::ringFileIs(ring);
  auto t = newTrie();
  for (const char* p : {"2001:db8::/32", "2001:db8::/48", "2001:db9::/32"}) prefixIs6(t.ptr(), p6(p));
  Ringlog::ringFileIs("");
  std::map<std::string, U64> counts;
  for (auto& s : Ringlog::summarize(ring))
    if (s.path == "/src/TrieLib/DepotTrie") counts[s.signature] = s.count;
  std::remove(ring.c_str());
  EXPECT_EQ(
      counts["void Routing::Lattice::addNewNodeToCollection6(Routing::Lattice::Trie*, const Addrkit::Ip6Prefix&)"], 2u);
  EXPECT_EQ(counts["void Routing::Lattice::updateAndExtendNode6(Routing::Lattice::Trie*, const Addrkit::Ip6Prefix&, "
                   "Routing::Lattice::TrieNode6&, Routing::Lattice::TrieNode6&, bool)"],
            1u);
  EXPECT_EQ(counts["void Routing::Lattice::addSplitNodeToCollection6(Routing::Lattice::Trie*, const "
                   "Addrkit::Ip6Prefix&, U32, bool, Routing::Lattice::TrieNode6&, Routing::Lattice::TrieNode6&)"],
            1u);
}

TEST(TrieFamilies, BothFamiliesSideBySide) {
  auto t = newTrie();
  for (const char* p : {"10.0.0.0/8", "10.1.0.0/16", "0.0.0.0/0", "2001:db8::/32", "2001:db8:1::/48", "::/0"})
    t->prefixIs(IpGenPrefix(p));
  EXPECT_EQ(t->lpm(IpGenPrefix("10.1.2.3/32")), IpGenPrefix("10.1.0.0/16"));
  EXPECT_EQ(t->lpm(IpGenPrefix("11.1.2.3/32")), IpGenPrefix("0.0.0.0/0"));
  EXPECT_EQ(t->lpm(g6("2001:db8:1::5/128")), g6("2001:db8:1::/48"));
  EXPECT_EQ(t->lpm(g6("3001::1/128")), g6("::/0"));

  EXPECT_THAT(enumerate(*t, IpGenPrefix(nullPrefix)), ElementsAre("0.0.0.0/0", "10.0.0.0/8", "10.1.0.0/16"));
  EXPECT_THAT(enumerate(*t, nullPrefix6), ElementsAre("::/0", "2001:db8::/32", "2001:db8:1::/48"));

  t->afIs(Addrkit::AddressFamily::ipv4);
  EXPECT_THAT(walk(*t, t->getRootPrefix()), ElementsAre("0.0.0.0/0", "10.0.0.0/8", "10.1.0.0/16"));
  t->afIs(Addrkit::AddressFamily::ipv6);
  EXPECT_THAT(walk(*t, t->getRootPrefix()), ElementsAre("::/0", "2001:db8::/32", "2001:db8:1::/48"));

  EXPECT_TRUE(t->prefixDel(g6("2001:db8::/32")));
  EXPECT_EQ(t->lpm(IpGenPrefix("10.200.0.1/32")), IpGenPrefix("10.0.0.0/8"));
  EXPECT_EQ(t->lpm(g6("2001:db8:2::/48")), g6("::/0"));
}
