// The trie entity and its records: attributes, the write path's
// notifications and counters, the records' text and wire forms, and the
// depth guards that stop a process on a looped table.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "Depot/Table.h"
#include "TrieLib/DepotTrie.h"
#include "support/Changes.h"

using namespace Routing::Lattice;
using Addrkit::Ip6Prefix;
using Addrkit::IpGenPrefix;
using Addrkit::Prefix;
using testkit::ChangeLog;

namespace {

U64 count(const Trie& t, const char* name) { return t.counters().counter(name)->value(); }

}  // namespace

TEST(TrieEntity, AttributesPublishTheOldValueOnlyOnChange) {
  auto trie = trieFactory("attrs");
  ChangeLog rec(*trie);
  EXPECT_EQ(trie->getRootPrefix(), IpGenPrefix(rootPrefix6));  // an unset family reads as IPv6
  trie->afIs(Addrkit::AddressFamily::ipv4);
  trie->afIs(Addrkit::AddressFamily::ipv4);
  EXPECT_EQ(trie->getRootPrefix(), IpGenPrefix(rootPrefix));
  trie->initializedIs(false);
  trie->initializedIs(true);
  trie->nodesVisitedCountIs(4294967295u);
  EXPECT_EQ(trie->nodesVisitedCountInc(1), 0u);  // wraps
  EXPECT_EQ(trie->nodesVisitedCountInc(0), 0u);
  ASSERT_EQ(rec.fields(), (std::vector<Kiln::FieldId>{Trie::afId, Trie::initializedId, Trie::nodesVisitedCountId,
                                                      Trie::nodesVisitedCountId}));
  EXPECT_EQ(std::any_cast<Addrkit::AddressFamily>(rec.changes[0].value), Addrkit::AddressFamily::none);
  EXPECT_EQ(std::any_cast<U32>(rec.changes[3].value), 4294967295u);
}

TEST(TrieEntity, WritesAndRemovalsOfPresentKeysPublishAndEveryCallCounts) {
  auto trie = trieFactory("writes");
  ChangeLog rec(*trie);
  TrieNode n(Prefix("10.0.0.0/8"));
  n.blackIs(2);
  trie->trieNodeIs(n);
  EXPECT_EQ(trie->trieNodeDel(Prefix("11.0.0.0/8")), TrieNode());  // absent: counted, not published
  EXPECT_EQ(trie->trieNodeDel(n.key()), n);
  TrieNode6 n6(Ip6Prefix("2001:db8::/32"));
  trie->trieNode6Is(n6);
  EXPECT_EQ(trie->trieNode6Del(Ip6Prefix("2001:db9::/32")), TrieNode6());
  trie->trieNodeIs(n);
  TrieNode* stored = trie->trieNodeMap().inPlace(n.key());
  ASSERT_NE(stored, nullptr);
  stored->blackIs(7);
  trie->trieNodeCommit(stored);
  EXPECT_EQ(trie->trieNode(n.key()).black(), 7u);
  EXPECT_EQ(rec.fields(), (std::vector<Kiln::FieldId>{Trie::trieNodeId, Trie::trieNodeId, Trie::trieNode6Id,
                                                      Trie::trieNodeId, Trie::trieNodeId}));
  EXPECT_EQ(std::any_cast<Prefix>(rec.changes[0].value), n.key());
  EXPECT_EQ(count(*trie, "trieNodeIs"), 4u);  // a commit counts as a write
  EXPECT_EQ(count(*trie, "trieNodeDel"), 2u);
  EXPECT_EQ(count(*trie, "trieNodeNotify"), 5u);
  EXPECT_EQ(count(*trie, "trieNode6Del"), 1u);
}

TEST(TrieEntity, DelAllIsQuietWithoutSubscribersAndPublishesEachRecordWithThem) {
  for (bool listening : {false, true}) {
    auto trie = trieFactory("all");
    for (U32 i = 1; i <= 150; ++i) trie->trieNodeIs(TrieNode(Prefix::masked(i << 8, 24)));
    std::optional<ChangeLog> rec;
    if (listening) rec.emplace(*trie);
    trie->trieNodeDelAll();
    EXPECT_EQ(trie->trieNodeMap().table().occupancy(), 0u);
    EXPECT_EQ(count(*trie, "trieNodeDel"), listening ? 151u : 0u);
    EXPECT_EQ(rec ? rec->changes.size() : 0u, listening ? 151u : 0u);
  }
}

TEST(TrieEntity, ControlsOwnTheTrieOnceItsUsersLetGo) {
  Basis::Ptr<KilnDepot::CollectionControl> control;
  {
    auto trie = trieFactory("orphan");
    trie->prefixIs(IpGenPrefix("10.0.0.0/8"));
    control = trie->trieNodeControl();
  }
  auto* trie = static_cast<Trie*>(control->entityRef().ptr());
  ASSERT_NE(trie, nullptr);
  EXPECT_EQ(trie->lpm(IpGenPrefix("10.1.1.1")), IpGenPrefix("10.0.0.0/8"));
  EXPECT_EQ(control->binding(), &trie->trieNodeMap());
  control.reset();  // everything goes now; ASan checks that nothing leaks
}

TEST(TrieEntity, ParentingRenamesTheCollectionsOnFreshWriters) {
  auto parent = Kiln::entityNew<Kiln::Entity>("routing");
  auto trie = trieFactory("rib");
  trie->prefixIs(IpGenPrefix("10.0.0.0/8"));
  trie->parentIs(parent.ptr());
  EXPECT_EQ(trie->trieNodeMap().name(), "routing/rib/trieNode");
  EXPECT_EQ(trie->trieNodeMap().table().occupancy(), 0u);
  EXPECT_THROW(trie->parentIs(parent.ptr()), Basis::Exception);
  trie->parentIs(nullptr);
  EXPECT_EQ(trie->trieNode6Map().name(), "rib/trieNode6");
}

TEST(TrieNodeForms, TextFormPrintsEveryFieldAndParsesBack) {
  TrieNode n(Prefix("10.0.0.0/8"));
  n.blackIs(16777216);
  n.child01Is(Prefix("10.64.0.0/10"));
  const std::string text =
      "Routing::Lattice::TrieNode(key=10.0.0.0/8, black=16777216, child00=255.255.255.255/32, "
      "child01=10.64.0.0/10, child10=255.255.255.255/32, child11=255.255.255.255/32)";
  EXPECT_EQ(stringValue(n), text);
  EXPECT_EQ(strepToValue(text, static_cast<TrieNode*>(nullptr)), n);
  TrieNode6 n6(Ip6Prefix("2001:db8::/32"));
  n6.black2Is(7);
  n6.rightChildIs(Ip6Prefix("2001:db8:8000::/33"));
  EXPECT_EQ(stringValue(n6),
            "Routing::Lattice::TrieNode6(key=2001:db8::/32, black0=0, black1=0, black2=7, black3=0, "
            "leftChild=ffff:ffff:ffff:ffff:ffff:ffff:ffff:ffff/128, rightChild=2001:db8:8000::/33)");
  EXPECT_EQ(strepToValue(stringValue(n6), static_cast<TrieNode6*>(nullptr)), n6);
}

TEST(TrieNodeForms, WireFormWritesEveryFieldAndReadsAnyOrderSkippingUnknownFields) {
  Basis::WriteBufferItr w;
  writeMessage(w, TrieNode());
  const std::basic_string<U8> tags[] = {{0xB2, 0xD5, 0x07}, {0xB0, 0xF4, 0x08}, {0x9A, 0x98, 0x04},
                                        {0x92, 0x98, 0x04}, {0x92, 0x9A, 0x04}, {0x9A, 0x9A, 0x04}};
  size_t found = 0;
  for (const auto& tag : tags) found += w.bytes().find(tag) != std::basic_string<U8>::npos;
  EXPECT_EQ(found, 6u);

  TrieNode n(Prefix("10.0.0.0/8"));
  n.blackIs(0xFFFFFFFFu);
  n.child11Is(Prefix("10.192.0.0/10"));
  Basis::WriteBufferItr pb;
  writePbMessage(pb, n);
  writePbMessage(pb, TrieNode(rootPrefix));
  pb.writeTag(1, Basis::WireType::varint);  // an unknown field after both messages
  pb.writeVarint(300);
  Basis::ReadBufferItr r(pb.data(), pb.size());
  TrieNode first, second;
  readMessage(r, first);
  readMessage(r, second);
  EXPECT_EQ(first, n);
  EXPECT_EQ(second, TrieNode(rootPrefix));
}

namespace {

// Nodes along 1.1.1.1 at lengths 0, 2, ..., 30 whose last one names the
// first as its child: a loop no sound trie has.
Basis::Ptr<Trie> loopedTrie4() {
  auto t = trieFactory("loop");
  TrieNode root(rootPrefix);
  root.rootIs(Prefix::masked(0x01010101, 0));
  t->trieNodeIs(root);
  for (U32 len = 0; len <= 30; len += 2) {
    TrieNode n(Prefix::masked(0x01010101, len));
    const Prefix next = len < 30 ? Prefix::masked(0x01010101, len + 2) : Prefix::masked(0x01010101, 0);
    n.childIs((0x01010101u >> (30 - len)) & 3, next);
    t->trieNodeIs(n);
  }
  return t;
}

testing::Matcher<const std::string&> assertion(const std::string& condition, const std::string& function) {
  return testing::HasSubstr("assertion failed: " + condition + " (/src/TrieLib/DepotTrie: " + function + ")");
}

}  // namespace

TEST(TrieDepthDeathTest, ALoopedTableStopsTheProcessNamingTheGuard) {
  const IpGenPrefix p("1.1.1.1/32");
  const std::string depth = "trieDepth++ <= 16", sig = "(Routing::Lattice::Trie*, const Addrkit::Prefix&)";
  EXPECT_DEATH(loopedTrie4()->prefixIs(p), assertion(depth, "void Routing::Lattice::prefixIs4" + sig));
  EXPECT_DEATH(loopedTrie4()->prefixDel(p), assertion(depth, "bool Routing::Lattice::prefixDel4" + sig));
  EXPECT_DEATH(loopedTrie4()->lpm(p), assertion(depth,
                                                "Routing::Lattice::TrieNode Routing::Lattice::lpm4Node(const "
                                                "Routing::Lattice::Trie*, const Addrkit::Prefix&)"));
  EXPECT_DEATH(loopedTrie4()->getNext(IpGenPrefix(rootPrefix)),
               assertion("recursionDepth++ <= trie->ipv4TrieMaxDepth() && \"recursion depth exceeded\"",
                         "Addrkit::IpGenPrefix Routing::Lattice::doGetNext4(const Routing::Lattice::Trie*, const "
                         "Addrkit::Prefix&, const Addrkit::Prefix&, U32)"));
  EXPECT_DEATH(trieFactory("t")->getNext(IpGenPrefix("0.0.0.0/32")),
               assertion("prefix != prefix032 && \"Invalid Lookup 0/32\"",
                         "Addrkit::IpGenPrefix Routing::Lattice::getNext4(const Routing::Lattice::Trie*, const "
                         "Addrkit::Prefix&)"));
  EXPECT_DEATH(trieFactory("t")->getNext(IpGenPrefix("::/128")), testing::HasSubstr("Invalid Lookup 0/128"));
  EXPECT_THROW(loopedTrie4()->longestMatch(p), Basis::Exception);
}
