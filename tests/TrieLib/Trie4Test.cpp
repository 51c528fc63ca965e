// The IPv4 trie algorithms: record shapes after insertion and deletion, the
// reserved prefixes, longest match, successor, walk, depth limits and traces.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <map>
#include <string>
#include <vector>

#include "Kiln/Trace.h"
#include "TrieLib/DepotTrie.h"
#include "TrieLib/Trie4.h"
#include "TrieTestSupport.h"

using namespace Routing::Lattice;
using Addrkit::IpGenPrefix;
using Addrkit::Prefix;
using ::testing::ElementsAre;
using ::testing::HasSubstr;

namespace {

using trietest::Collector;
using trietest::TraceCapture;

// "black [child00 child01 child10 child11]" with "-" for an empty slot, or
// "absent" when no record has the key.
std::string shape(const Trie& t, const char* key) {
  TrieNode n = t.trieNode(Prefix(key));
  if (n.key() != Prefix(key)) return "absent";
  std::string s = fmt::format("{:#x} [", n.black());
  for (U32 slot = 0; slot < 4; ++slot) {
    s += n.child(slot) == nullPrefix ? std::string("-") : n.child(slot).stringValue();
    s += slot < 3 ? " " : "]";
  }
  return s;
}

Prefix topKey(const Trie& t) { return t.trieNode(rootPrefix).root(); }

Basis::Ptr<Trie> trieWith(std::initializer_list<const char*> prefixes) {
  auto t = trieFactory("trie4");
  t->afIs(Addrkit::AddressFamily::ipv4);
  for (const char* p : prefixes) t->prefixIs(IpGenPrefix(p));
  return t;
}

U64 writes(const Trie& t) { return t.counters().counter("trieNodeIs")->value(); }

// Record changes in publication order: "+key" for a write, "-key" for a removal.
class WriteLog : public Kiln::Notifiee {
 public:
  explicit WriteLog(Trie& t) : trie_(t) {
    trie_.publisher()->subscribe(this);
    activeIs(true);
  }
  ~WriteLog() override { trie_.publisher()->unsubscribe(this); }
  void onChange(const Kiln::Change& c) override {
    if (c.field != Trie::trieNodeId) return;
    Prefix key = std::any_cast<Prefix>(c.value);
    entries.push_back((trie_.trieNode(key).key() == key ? "+" : "-") + key.stringValue());
  }
  std::vector<std::string> entries;

 private:
  Trie& trie_;
};



std::vector<std::string> walk(const Trie& t, const IpGenPrefix& from, std::map<std::string, WalkAction> answers = {}) {
  Basis::Ptr<Collector> c(new Collector);
  c->answers = std::move(answers);
  t.preOrderWalk(c, from);
  return c->seen;
}

std::vector<std::string> enumerate(const Trie& t) {
  std::vector<std::string> out;
  for (IpGenPrefix p = t.getNext(rootPrefix); p != IpGenPrefix(); p = t.getNext(p)) out.push_back(p.stringValue());
  return out;
}

std::string lpm(const Trie& t, const char* p) { return t.lpm(IpGenPrefix(p)).stringValue(); }

// Nodes along the prefixes of addr at lengths 0, 2, ..., 2 * (count - 1),
// each in the slot its key selects, under the root record. The last node
// gets `lastBlack` and, when `lastChild` is given, that child in slot `lastSlot`.
void writeChain(Trie& t, U32 addr, U32 count, U32 lastBlack, const Prefix* lastChild = nullptr, U32 lastSlot = 0) {
  TrieNode root(rootPrefix);
  root.rootIs(Prefix::masked(addr, 0));
  t.trieNodeIs(root);
  for (U32 i = 0; i < count; ++i) {
    TrieNode n(Prefix::masked(addr, 2 * i));
    if (i + 1 < count) {
      Prefix next = Prefix::masked(addr, 2 * i + 2);
      n.childIs(childSlot(next, 2 * i), next);
    } else {
      n.blackIs(lastBlack);
      if (lastChild) n.childIs(lastSlot, *lastChild);
    }
    t.trieNodeIs(n);
  }
}

std::string escapeRegex(const std::string& s) {
  std::string out;
  for (char ch : s) {
    if (std::string_view("\\^$.|?*+()[]{}").find(ch) != std::string_view::npos) out += '\\';
    out += ch;
  }
  return out;
}

std::string assertionText(const std::string& condition, const std::string& signature) {
  return escapeRegex("assertion failed: " + condition + " (/src/TrieLib/DepotTrie: " + signature + ")");
}

constexpr U32 chainAddr = 0x01010101;  // 1.1.1.1

}  // namespace

TEST(Trie4Bits, BlackBitsLengthsAndOrder) {
  TrieNode n(Prefix("10.0.0.0/8"));
  setBlack(n, 1, true);
  EXPECT_EQ(n.black(), 0x80000000u);
  setBlack(n, 32, true);
  EXPECT_EQ(n.black(), 0x80000001u);
  setBlack(n, 0, false);  // length 0 wraps onto the bit of length 32
  EXPECT_EQ(n.black(), 0x80000000u);
  setBlack(n, 1, true);
  setBlack(n, 7, false);
  EXPECT_EQ(n.black(), 0x80000000u);
  EXPECT_EQ(n.key(), Prefix("10.0.0.0/8"));

  EXPECT_EQ(commonPrefixLen(Prefix("10.0.0.0/8"), Prefix("10.0.0.0/8"), 8), 8u);
  EXPECT_EQ(commonPrefixLen(Prefix("10.0.0.0/8"), Prefix("10.0.0.0/8"), 40), 40u);
  EXPECT_EQ(commonPrefixLen(Prefix("128.0.0.0/1"), Prefix("0.0.0.0/1"), 1), 0u);
  EXPECT_EQ(commonPrefixLen(Prefix("10.0.0.0/8"), Prefix("10.128.0.0/16"), 16), 8u);
  EXPECT_EQ(commonPrefixLen(Prefix("10.0.0.0/8"), Prefix("11.0.0.0/8"), 32), 7u);
  EXPECT_EQ(commonPrefixLen(Prefix("10.0.0.0/8"), Prefix("10.1.0.0/16"), 8), 8u);

  EXPECT_EQ(childSlot(Prefix("192.0.0.0/2"), 0), 3u);
  EXPECT_EQ(childSlot(Prefix("10.64.0.0/10"), 8), 1u);
  EXPECT_EQ(childSlot(Prefix("0.0.0.3/32"), 30), 3u);

  EXPECT_EQ(nodeKeyFor(Prefix("10.0.0.0/7")), Prefix("10.0.0.0/8"));
  EXPECT_EQ(nodeKeyFor(Prefix("10.0.0.0/8")), Prefix("10.0.0.0/8"));
  EXPECT_EQ(nodeKeyFor(Prefix("1.2.3.4/31")), Prefix("1.2.3.4/32"));

  EXPECT_TRUE(prefixLexicallyGreater4(Prefix("10.0.0.0/16"), Prefix("10.0.0.0/8")));
  EXPECT_FALSE(prefixLexicallyGreater4(Prefix("10.0.0.0/8"), Prefix("10.0.0.0/16")));
  EXPECT_FALSE(prefixLexicallyGreater4(Prefix("10.0.0.0/8"), Prefix("10.0.0.0/8")));
  EXPECT_TRUE(prefixLexicallyGreater4(Prefix("11.0.0.0/8"), Prefix("10.255.0.0/16")));
  EXPECT_TRUE(prefixLexicallyGreater4(Prefix("128.0.0.0/1"), Prefix("127.0.0.0/8")));
}

TEST(Trie4Insert, FirstNodeEdgeAndLeafExtension) {
  auto t = trieWith({"10.0.0.0/8"});
  EXPECT_EQ(topKey(*t), Prefix("10.0.0.0/8"));
  EXPECT_EQ(shape(*t, "10.0.0.0/8"), "0x1000000 [- - - -]");
  U64 before = writes(*t);
  t->prefixIs(IpGenPrefix("10.0.0.0/8"));  // stored again: same records, one rewrite
  EXPECT_EQ(shape(*t, "10.0.0.0/8"), "0x1000000 [- - - -]");
  EXPECT_EQ(writes(*t), before + 1);

  t->prefixIs(IpGenPrefix("8.0.0.0/6"));  // on the edge of 10.0.0.0/8
  EXPECT_EQ(shape(*t, "10.0.0.0/8"), "0x5000000 [- - - -]");

  WriteLog log(*t);
  t->prefixIs(IpGenPrefix("10.1.0.0/16"));
  EXPECT_EQ(topKey(*t), Prefix("10.1.0.0/16"));
  EXPECT_EQ(shape(*t, "10.1.0.0/16"), "0x5010000 [- - - -]");
  EXPECT_EQ(shape(*t, "10.0.0.0/8"), "absent");
  EXPECT_THAT(log.entries, ElementsAre("+255.255.255.255/32", "+10.1.0.0/16", "-10.0.0.0/8"));

  auto odd = trieWith({"10.0.0.0/7"});
  EXPECT_EQ(topKey(*odd), Prefix("10.0.0.0/8"));
  EXPECT_EQ(shape(*odd, "10.0.0.0/8"), "0x2000000 [- - - -]");
}

TEST(Trie4Insert, SplitsAndDanglingBits) {
  auto t = trieWith({"10.0.0.0/8"});
  WriteLog log(*t);
  t->prefixIs(IpGenPrefix("11.0.0.0/8"));
  EXPECT_EQ(topKey(*t), Prefix("8.0.0.0/6"));
  EXPECT_EQ(shape(*t, "8.0.0.0/6"), "0x0 [- - 10.0.0.0/8 11.0.0.0/8]");
  EXPECT_EQ(shape(*t, "10.0.0.0/8"), "0x1000000 [- - - -]");
  EXPECT_EQ(shape(*t, "11.0.0.0/8"), "0x1000000 [- - - -]");
  // Parent first: the root record, the split node, the new node, then the
  // split node completed, the old node last.
  EXPECT_THAT(log.entries, ElementsAre("+255.255.255.255/32", "+8.0.0.0/6", "+11.0.0.0/8", "+8.0.0.0/6",
                                       "+8.0.0.0/6", "+10.0.0.0/8"));

  // The /7 along 11.0.0.0/8 moves to the new x0 node.
  auto moved = trieWith({"11.0.0.0/8", "10.0.0.0/7"});
  EXPECT_EQ(shape(*moved, "11.0.0.0/8"), "0x3000000 [- - - -]");
  moved->prefixIs(IpGenPrefix("10.0.0.0/8"));
  EXPECT_EQ(shape(*moved, "8.0.0.0/6"), "0x0 [- - 10.0.0.0/8 11.0.0.0/8]");
  EXPECT_EQ(shape(*moved, "10.0.0.0/8"), "0x3000000 [- - - -]");
  EXPECT_EQ(shape(*moved, "11.0.0.0/8"), "0x1000000 [- - - -]");

  // The /5 along 12.0.0.0/8 gets a node of its own.
  auto own = trieWith({"12.0.0.0/8", "8.0.0.0/5"});
  WriteLog ownLog(*own);
  own->prefixIs(IpGenPrefix("0.0.0.0/8"));
  EXPECT_EQ(shape(*own, "0.0.0.0/4"), "0x0 [0.0.0.0/8 - 8.0.0.0/6 12.0.0.0/8]");
  EXPECT_EQ(shape(*own, "0.0.0.0/8"), "0x1000000 [- - - -]");
  EXPECT_EQ(shape(*own, "8.0.0.0/6"), "0x8000000 [- - - -]");
  EXPECT_EQ(shape(*own, "12.0.0.0/8"), "0x1000000 [- - - -]");
  EXPECT_THAT(ownLog.entries, ElementsAre("+255.255.255.255/32", "+0.0.0.0/4", "+0.0.0.0/8", "+0.0.0.0/4",
                                          "+0.0.0.0/4", "+8.0.0.0/6", "+0.0.0.0/4", "+12.0.0.0/8"));
  // The x0 node keeps its own /e+1 bit; the split node takes the bits above e.
  auto keep = trieWith({"10.0.0.0/8", "10.0.0.0/7", "8.0.0.0/6"});
  keep->prefixIs(IpGenPrefix("11.0.0.0/8"));
  EXPECT_EQ(shape(*keep, "8.0.0.0/6"), "0x4000000 [- - 10.0.0.0/8 11.0.0.0/8]");
  EXPECT_EQ(shape(*keep, "10.0.0.0/8"), "0x3000000 [- - - -]");

  // A split at length 0 makes an ordinary node 0.0.0.0/0.
  auto zero = trieWith({"10.0.0.0/8", "192.0.0.0/8"});
  EXPECT_EQ(topKey(*zero), Prefix("0.0.0.0/0"));
  EXPECT_EQ(shape(*zero, "0.0.0.0/0"), "0x0 [10.0.0.0/8 - - 192.0.0.0/8]");
  EXPECT_EQ(shape(*zero, "0.0.0.0/32"), "absent");
  // Below a branch: an empty slot gets a new leaf.
  zero->prefixIs(IpGenPrefix("64.0.0.0/3"));
  EXPECT_EQ(shape(*zero, "0.0.0.0/0"), "0x0 [10.0.0.0/8 64.0.0.0/4 - 192.0.0.0/8]");
  EXPECT_EQ(shape(*zero, "64.0.0.0/4"), "0x20000000 [- - - -]");
}

TEST(Trie4Insert, ReservedPrefixesAndDefaultRoute) {
  TraceCapture trace;
  auto t = trieWith({});
  U64 before = writes(*t);
  t->prefixIs(IpGenPrefix("0.0.0.0/32"));
  t->prefixIs(IpGenPrefix("255.255.255.255/32"));
  EXPECT_EQ(writes(*t), before);
  EXPECT_THAT(trace.all(), HasSubstr("prefixIs4 Trie cannot allow prefix: 0.0.0.0/32"));
  EXPECT_THAT(trace.all(), HasSubstr("prefixIs4 Trie cannot allow prefix: 255.255.255.255/32"));

  t->prefixIs(IpGenPrefix("0.0.0.0/0"));
  EXPECT_EQ(shape(*t, "0.0.0.0/32"), "0x1 [- - - -]");
  EXPECT_EQ(topKey(*t), nullPrefix);

  // The default route and the node of 0.0.0.0/31 share a key: each write
  // replaces the other.
  t->prefixIs(IpGenPrefix("0.0.0.0/31"));
  EXPECT_EQ(topKey(*t), Prefix("0.0.0.0/32"));
  EXPECT_EQ(shape(*t, "0.0.0.0/32"), "0x2 [- - - -]");
  t->prefixIs(IpGenPrefix("0.0.0.0/0"));
  EXPECT_EQ(shape(*t, "0.0.0.0/32"), "0x1 [- - - -]");
  EXPECT_EQ(lpm(*t, "0.0.0.0/31"), "none");

  // Without the root record the trie counts as empty and the record read in
  // its place is written under its own key.
  auto bare = trieWith({});
  bare->trieNodeDel(rootPrefix);
  bare->prefixIs(IpGenPrefix("10.0.0.0/8"));
  EXPECT_EQ(shape(*bare, "255.255.255.255/32"), "absent");
  EXPECT_EQ(shape(*bare, "0.0.0.0/0"), "0x0 [10.0.0.0/8 - - -]");
  EXPECT_EQ(shape(*bare, "10.0.0.0/8"), "0x1000000 [- - - -]");
}

TEST(Trie4Delete, BitsLeavesAndHoists) {
  auto t = trieWith({"10.0.0.0/7", "10.0.0.0/8"});
  EXPECT_TRUE(t->prefixDel(IpGenPrefix("10.0.0.0/8")));
  EXPECT_EQ(shape(*t, "10.0.0.0/8"), "0x2000000 [- - - -]");
  EXPECT_FALSE(t->prefixDel(IpGenPrefix("10.0.0.0/8")));
  EXPECT_TRUE(t->prefixDel(IpGenPrefix("10.0.0.0/7")));
  EXPECT_EQ(topKey(*t), nullPrefix);
  EXPECT_EQ(shape(*t, "10.0.0.0/8"), "absent");

  auto h = trieWith({"10.0.0.0/8", "11.0.0.0/8"});
  WriteLog log(*h);
  EXPECT_TRUE(h->prefixDel(IpGenPrefix("11.0.0.0/8")));
  EXPECT_EQ(topKey(*h), Prefix("10.0.0.0/8"));
  EXPECT_EQ(shape(*h, "10.0.0.0/8"), "0x1000000 [- - - -]");
  EXPECT_THAT(log.entries, ElementsAre("+11.0.0.0/8", "+255.255.255.255/32", "+10.0.0.0/8", "-8.0.0.0/6",
                                       "-11.0.0.0/8"));

  // The hoisted node takes over the black bits of the node it replaces.
  auto m = trieWith({"10.0.0.0/8", "10.1.0.0/16", "10.2.0.0/16"});
  EXPECT_EQ(shape(*m, "10.0.0.0/14"), "0x1000000 [- 10.1.0.0/16 10.2.0.0/16 -]");
  EXPECT_TRUE(m->prefixDel(IpGenPrefix("10.2.0.0/16")));
  EXPECT_EQ(topKey(*m), Prefix("10.1.0.0/16"));
  EXPECT_EQ(shape(*m, "10.1.0.0/16"), "0x1010000 [- - - -]");
  EXPECT_EQ(shape(*m, "10.0.0.0/14"), "absent");

  // A white node with children stays; a parent with two more children only
  // loses the slot.
  auto w = trieWith({"10.1.0.0/16", "10.1.1.0/24", "10.1.2.0/24", "10.1.3.0/24"});
  EXPECT_EQ(shape(*w, "10.1.0.0/22"), "0x10000 [- 10.1.1.0/24 10.1.2.0/24 10.1.3.0/24]");
  EXPECT_TRUE(w->prefixDel(IpGenPrefix("10.1.0.0/16")));
  EXPECT_EQ(shape(*w, "10.1.0.0/22"), "0x0 [- 10.1.1.0/24 10.1.2.0/24 10.1.3.0/24]");
  EXPECT_TRUE(w->prefixDel(IpGenPrefix("10.1.2.0/24")));
  EXPECT_EQ(shape(*w, "10.1.0.0/22"), "0x0 [- 10.1.1.0/24 - 10.1.3.0/24]");
  EXPECT_EQ(shape(*w, "10.1.2.0/24"), "absent");
}

TEST(Trie4Delete, RefusedAbsentAndWhite) {
  TraceCapture trace;
  auto t = trieWith({});
  EXPECT_FALSE(t->prefixDel(IpGenPrefix("10.0.0.0/8")));
  EXPECT_THAT(trace.all(), HasSubstr("prefixDel4 No root installed... prefix doesn't exist: 10.0.0.0/8"));
  EXPECT_FALSE(t->prefixDel(IpGenPrefix("0.0.0.0/0")));
  EXPECT_FALSE(t->prefixDel(IpGenPrefix("0.0.0.0/32")));
  EXPECT_FALSE(t->prefixDel(IpGenPrefix("255.255.255.255/32")));
  t->prefixIs(IpGenPrefix("0.0.0.0/0"));
  EXPECT_TRUE(t->prefixDel(IpGenPrefix("0.0.0.0/0")));
  EXPECT_EQ(shape(*t, "0.0.0.0/32"), "absent");

  for (const char* p : {"0.0.0.0/8", "64.0.0.0/8"}) t->prefixIs(IpGenPrefix(p));
  U64 before = writes(*t);
  // An empty slot leads to the root record: a prefix of ones ends on its
  // white edge, any other one leaves it.
  trace.lines.clear();
  EXPECT_FALSE(t->prefixDel(IpGenPrefix("192.0.0.0/2")));
  EXPECT_THAT(trace.all(), HasSubstr("prefixDel4 White node. Cannot delete"));
  trace.lines.clear();
  EXPECT_FALSE(t->prefixDel(IpGenPrefix("128.0.0.0/2")));
  EXPECT_THAT(trace.all(), HasSubstr("prefixDel4 Could not find prefix... failed delete"));
  // On the edge of 64.0.0.0/8 but not stored; below it, an empty slot.
  EXPECT_FALSE(t->prefixDel(IpGenPrefix("64.0.0.0/4")));
  EXPECT_FALSE(t->prefixDel(IpGenPrefix("64.0.0.0/9")));
  EXPECT_EQ(writes(*t), before);
}

TEST(Trie4Delete, DefaultRouteOverTheSlash31Node) {
  auto t = trieWith({"0.0.0.0/31"});
  EXPECT_TRUE(t->prefixDel(IpGenPrefix("0.0.0.0/0")));
  EXPECT_EQ(shape(*t, "0.0.0.0/32"), "absent");
  EXPECT_EQ(topKey(*t), Prefix("0.0.0.0/32"));  // the root record names a missing record
}

TEST(Trie4Lpm, MatchesAndKnownMisses) {
  TraceCapture trace;
  auto t = trieWith({});
  EXPECT_EQ(lpm(*t, "10.1.2.0/24"), "none");
  t->prefixIs(IpGenPrefix("0.0.0.0/0"));
  EXPECT_EQ(lpm(*t, "10.1.2.0/24"), "0.0.0.0/0");
  EXPECT_EQ(lpm(*t, "0.0.0.0/0"), "0.0.0.0/0");
  EXPECT_EQ(lpm(*t, "0.0.0.0/32"), "none");
  EXPECT_EQ(lpm(*t, "255.255.255.255/32"), "none");
  EXPECT_THAT(trace.all(), HasSubstr("lpm4 Trie cannot find prefix: 0.0.0.0/32"));

  t->prefixIs(IpGenPrefix("10.0.0.0/8"));
  trace.lines.clear();
  EXPECT_EQ(lpm(*t, "10.1.2.0/24"), "10.0.0.0/8");
  EXPECT_THAT(trace.all(), HasSubstr("lpm4 Node is lpm."));
  EXPECT_EQ(lpm(*t, "10.0.0.0/8"), "10.0.0.0/8");
  EXPECT_THAT(trace.all(), HasSubstr("lpm4 Prefix is lpm."));
  EXPECT_EQ(lpm(*t, "11.0.0.0/8"), "0.0.0.0/0");
  EXPECT_EQ(lpm(*t, "10.0.0.0/7"), "none");  // ends inside the node's edge, below no black bit

  t->prefixIs(IpGenPrefix("10.1.2.0/24"));
  t->prefixIs(IpGenPrefix("10.128.0.0/16"));
  EXPECT_EQ(shape(*t, "10.0.0.0/8"), "0x1000000 [10.1.2.0/24 - 10.128.0.0/16 -]");
  EXPECT_EQ(lpm(*t, "10.1.2.3/32"), "10.1.2.0/24");
  EXPECT_EQ(lpm(*t, "10.1.3.0/24"), "10.0.0.0/8");
  EXPECT_EQ(lpm(*t, "10.64.0.1/32"), "10.0.0.0/8");
  // The query ends inside the edge of 10.1.2.0/24, whose node has no bit up
  // to /20: the answer is empty although 10.0.0.0/8 and 0/0 cover it.
  EXPECT_EQ(lpm(*t, "10.1.0.0/20"), "none");

  // An odd length is carried on the x0 side: after the split a host on the
  // x1 side misses it.
  auto odd = trieWith({"0.0.0.0/23"});
  EXPECT_EQ(lpm(*odd, "0.0.1.252/32"), "0.0.0.0/23");
  odd->prefixIs(IpGenPrefix("0.0.2.199/32"));
  EXPECT_EQ(shape(*odd, "0.0.0.0/22"), "0x0 [0.0.0.0/24 - 0.0.2.199/32 -]");
  EXPECT_EQ(lpm(*odd, "0.0.1.252/32"), "none");
  EXPECT_EQ(lpm(*odd, "0.0.0.252/32"), "0.0.0.0/23");
}

TEST(Trie4GetNext, OrderDefaultRouteAndVisits) {
  TraceCapture trace;
  auto t = trieWith({});
  EXPECT_EQ(t->getNext(rootPrefix), IpGenPrefix());
  EXPECT_THAT(trace.all(), HasSubstr("getNext4 Empty trie"));
  EXPECT_EQ(t->nodesVisitedCount(), 0u);
  t->prefixIs(IpGenPrefix("0.0.0.0/0"));
  EXPECT_EQ(t->getNext(rootPrefix), IpGenPrefix("0.0.0.0/0"));
  EXPECT_EQ(t->getNext(IpGenPrefix("0.0.0.0/0")), IpGenPrefix());

  for (const char* p : {"10.1.0.0/16", "10.0.0.0/8", "10.0.0.0/16", "0.0.0.0/8", "11.0.0.0/8", "10.0.0.0/7"})
    t->prefixIs(IpGenPrefix(p));
  EXPECT_THAT(enumerate(*t), ElementsAre("0.0.0.0/0", "0.0.0.0/8", "10.0.0.0/7", "10.0.0.0/8", "10.0.0.0/16",
                                         "10.1.0.0/16", "11.0.0.0/8"));
  EXPECT_EQ(t->getNext(IpGenPrefix("10.0.0.5/32")), IpGenPrefix("10.1.0.0/16"));
  EXPECT_EQ(t->getNext(IpGenPrefix("11.0.0.0/8")), IpGenPrefix());
  EXPECT_EQ(t->getNext(IpGenPrefix("9.0.0.0/8")), IpGenPrefix("10.0.0.0/7"));

  auto n = trieWith({"10.0.0.0/8", "11.0.0.0/8"});
  EXPECT_EQ(n->getNext(rootPrefix), IpGenPrefix("10.0.0.0/8"));
  EXPECT_EQ(n->nodesVisitedCount(), 2u);
  EXPECT_EQ(n->getNext(IpGenPrefix("10.0.0.0/8")), IpGenPrefix("11.0.0.0/8"));
  EXPECT_EQ(n->nodesVisitedCount(), 3u);
  // The subtree under 10.0.0.0/14 lies before 11.0.0.0/8 and is cut off at
  // its top node.
  for (const char* p : {"10.1.0.0/16", "10.2.0.0/16"}) n->prefixIs(IpGenPrefix(p));
  EXPECT_EQ(n->getNext(IpGenPrefix("11.0.0.0/8")), IpGenPrefix());
  EXPECT_EQ(n->nodesVisitedCount(), 3u);
  EXPECT_EQ(n->getNext(IpGenPrefix("10.1.0.0/16")), IpGenPrefix("10.2.0.0/16"));
  EXPECT_EQ(n->nodesVisitedCount(), 4u);
}

TEST(Trie4Walk, OrderActionsAndSubtrees) {
  auto t = trieWith({"11.0.0.0/8", "10.1.0.0/16", "10.0.0.0/8", "10.2.0.0/16", "10.2.3.0/24", "10.0.0.0/7"});
  const IpGenPrefix whole(rootPrefix);
  EXPECT_THAT(walk(*t, whole), ElementsAre("10.0.0.0/7", "10.0.0.0/8", "10.1.0.0/16", "10.2.0.0/16",
                                           "10.2.3.0/24", "11.0.0.0/8"));
  t->prefixIs(IpGenPrefix("0.0.0.0/0"));
  EXPECT_THAT(walk(*t, whole, {{"10.0.0.0/8", skipSubtree}}),
              ElementsAre("0.0.0.0/0", "10.0.0.0/7", "10.0.0.0/8", "11.0.0.0/8"));
  EXPECT_THAT(walk(*t, whole, {{"10.1.0.0/16", abortWalk}}),
              ElementsAre("0.0.0.0/0", "10.0.0.0/7", "10.0.0.0/8", "10.1.0.0/16"));
  EXPECT_THAT(walk(*t, whole, {{"0.0.0.0/0", abortWalk}}), ElementsAre("0.0.0.0/0"));
  EXPECT_EQ(walk(*t, whole, {{"10.2.0.0/16", WalkAction(7)}}).size(), 7u);
  // 10.2.0.0/16 lies on the edge of 10.2.3.0/24: that node's lengths from 16
  // on, then its children; the default route comes first whatever the subtree.
  EXPECT_THAT(walk(*t, IpGenPrefix("10.2.0.0/16")), ElementsAre("0.0.0.0/0", "10.2.0.0/16", "10.2.3.0/24"));
  EXPECT_THAT(walk(*t, IpGenPrefix("192.168.0.0/16")), ElementsAre("0.0.0.0/0"));
  EXPECT_THAT(walk(*t, IpGenPrefix()), ElementsAre());

  // A subtree root that is no node key starts at the node lpm4Node finds.
  auto s = trieWith({"10.1.0.0/16", "10.1.1.0/24", "10.1.2.0/24"});
  EXPECT_THAT(walk(*s, IpGenPrefix("10.0.0.0/8")), ElementsAre("10.1.0.0/16", "10.1.1.0/24", "10.1.2.0/24"));
  EXPECT_THAT(walk(*s, IpGenPrefix("10.1.0.0/20")), ElementsAre("10.1.1.0/24", "10.1.2.0/24"));

  // A walk from length 0 tests the wrapped bit of length 32 first.
  auto host = trieWith({"1.2.3.4/32"});
  EXPECT_THAT(walk(*host, IpGenPrefix("0.0.0.0/0")), ElementsAre("0.0.0.0/0", "1.2.3.4/32"));
  EXPECT_THAT(walk(*host, IpGenPrefix(rootPrefix)), ElementsAre("1.2.3.4/32"));
  EXPECT_THAT(walk(*trieWith({}), IpGenPrefix(rootPrefix)), ElementsAre());
}

TEST(Trie4Depth, SixteenDescentsAreAllowed) {
  auto t = trieWith({});
  writeChain(*t, chainAddr, 17, 0x1);
  const IpGenPrefix deepest("1.1.1.1/32");
  EXPECT_EQ(t->lpm(deepest), deepest);
  EXPECT_EQ(t->getNext(rootPrefix), deepest);
  EXPECT_EQ(t->nodesVisitedCount(), 17u);
  // The parent loses its only child and stays, white and childless.
  EXPECT_TRUE(t->prefixDel(deepest));
  EXPECT_EQ(shape(*t, "1.1.1.1/32"), "absent");
  EXPECT_EQ(shape(*t, "1.1.1.0/30"), "0x0 [- - - -]");
  t->prefixIs(deepest);
  EXPECT_EQ(shape(*t, "1.1.1.0/30"), "absent");
  EXPECT_EQ(shape(*t, "1.1.1.1/32"), "0x1 [- - - -]");
}

TEST(Trie4DepthDeathTest, CorruptChainsStopTheProcess) {
  const std::string depth = "trieDepth++ <= 16";
  auto looped = [] {
    auto t = trieWith({});
    Prefix top = Prefix::masked(chainAddr, 0);
    writeChain(*t, chainAddr, 16, 0, &top, childSlot(Prefix::masked(chainAddr, 32), 30));
    return t;
  };
  const IpGenPrefix p("1.1.1.1/32");
  EXPECT_DEATH(looped()->prefixIs(p),
               assertionText(depth, "void Routing::Lattice::prefixIs4(Routing::Lattice::Trie*, const Addrkit::Prefix&)"));
  EXPECT_DEATH(looped()->prefixDel(p),
               assertionText(depth, "bool Routing::Lattice::prefixDel4(Routing::Lattice::Trie*, const Addrkit::Prefix&)"));
  EXPECT_DEATH(looped()->lpm(p), assertionText(depth, "Routing::Lattice::TrieNode Routing::Lattice::lpm4Node(const "
                                                      "Routing::Lattice::Trie*, const Addrkit::Prefix&)"));
  auto tooDeep = [] {
    auto t = trieWith({});
    Prefix below("2.0.0.0/8");
    writeChain(*t, chainAddr, 17, 0, &below);
    return t;
  };
  EXPECT_DEATH(tooDeep()->getNext(rootPrefix),
               assertionText("recursionDepth++ <= trie->ipv4TrieMaxDepth() && \"recursion depth exceeded\"",
                             "Addrkit::IpGenPrefix Routing::Lattice::doGetNext4(const Routing::Lattice::Trie*, const "
                             "Addrkit::Prefix&, const Addrkit::Prefix&, U32)"));
  EXPECT_DEATH(trieWith({})->getNext(IpGenPrefix("0.0.0.0/32")),
               assertionText("prefix != prefix032 && \"Invalid Lookup 0/32\"",
                             "Addrkit::IpGenPrefix Routing::Lattice::getNext4(const Routing::Lattice::Trie*, const "
                             "Addrkit::Prefix&)"));
}
