// The trie entity: its birth records, attributes, write path, controls and
// the hand-over of ownership when its users let go.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <map>
#include <vector>

#include "Depot/Table.h"
#include "TrieLib/DepotTrie.h"

using namespace Routing::Lattice;
using Addrkit::Ip6Prefix;
using Addrkit::IpGenPrefix;
using Addrkit::Prefix;

namespace {

// Records every change the trie publishes.
class Recorder : public Kiln::Notifiee {
 public:
  explicit Recorder(Trie& t) : trie_(t) {
    trie_.publisher()->subscribe(this);
    activeIs(true);
  }
  ~Recorder() override { trie_.publisher()->unsubscribe(this); }
  void onChange(const Kiln::Change& c) override { changes.push_back(c); }
  std::vector<Kiln::FieldId> fields() const {
    std::vector<Kiln::FieldId> f;
    for (auto& c : changes) f.push_back(c.field);
    return f;
  }
  std::vector<Kiln::Change> changes;

 private:
  Trie& trie_;
};

U64 count(const Trie& t, const char* name) { return t.counters().counter(name)->value(); }

std::vector<TrieNode> records4(const Trie& t) {
  std::vector<TrieNode> v;
  for (auto it = t.trieNodeMap().begin(); it.valid(); it.advance()) v.push_back(*it);
  return v;
}
std::vector<TrieNode6> records6(const Trie& t) {
  std::vector<TrieNode6> v;
  for (auto it = t.trieNode6Map().begin(); it.valid(); it.advance()) v.push_back(*it);
  return v;
}

TrieNode node(const char* key, U32 black) {
  TrieNode n{Prefix(key)};
  n.blackIs(black);
  return n;
}

}  // namespace

TEST(TrieEntity, ConstantsAndRecordDefaults) {
  EXPECT_EQ(rootPrefix, Prefix("255.255.255.255/32"));
  EXPECT_EQ(nullPrefix, rootPrefix);
  EXPECT_EQ(rootPrefix6, Ip6Prefix("ffff:ffff:ffff:ffff:ffff:ffff:ffff:ffff/128"));
  EXPECT_EQ(nullPrefix6, rootPrefix6);
  EXPECT_EQ(prefix00, Prefix("0.0.0.0/0"));
  EXPECT_EQ(prefix032, Prefix("0.0.0.0/32"));
  EXPECT_EQ(prefix006, Ip6Prefix("::/0"));
  EXPECT_EQ(prefix0128, Ip6Prefix("::/128"));
  EXPECT_EQ(TrieNode::nullChild(), nullPrefix);
  EXPECT_EQ(TrieNode6::nullChild(), nullPrefix6);

  TrieNode n;
  EXPECT_EQ(n.key(), prefix00);
  EXPECT_EQ(n.black(), 0u);
  for (U32 s = 0; s < 4; ++s) EXPECT_EQ(n.child(s), nullPrefix);
  n.rootIs(Prefix("10.0.0.0/8"));
  EXPECT_EQ(n.child00(), Prefix("10.0.0.0/8"));
  n.child00Is(Prefix("11.0.0.0/8"));
  EXPECT_EQ(n.root(), Prefix("11.0.0.0/8"));

  TrieNode6 n6;
  EXPECT_EQ(n6.key(), prefix006);
  EXPECT_EQ(n6.leftChild(), nullPrefix6);
  EXPECT_EQ(n6.rightChild(), nullPrefix6);
  EXPECT_EQ(n6.black0() | n6.black1() | n6.black2() | n6.black3(), 0u);
}

TEST(TrieEntity, NewTrieHoldsExactlyTheTwoRootRecords) {
  for (auto af : {Addrkit::AddressFamily::none, Addrkit::AddressFamily::ipv4, Addrkit::AddressFamily::ipv6}) {
    auto trie = trieFactory("birth");
    trie->afIs(af);
    auto v4 = records4(*trie);
    ASSERT_EQ(v4.size(), 1u);
    EXPECT_EQ(v4[0], TrieNode(rootPrefix));
    auto v6 = records6(*trie);
    ASSERT_EQ(v6.size(), 1u);
    EXPECT_EQ(v6[0], TrieNode6(rootPrefix6));
    EXPECT_EQ(count(*trie, "trieNodeIs"), 1u);
    EXPECT_EQ(count(*trie, "trieNode6Is"), 1u);
  }
  auto trie = trieFactory("names");
  EXPECT_EQ(trie->name(), "names");
  EXPECT_EQ(trie->trieNodeMap().name(), "names/trieNode");
  EXPECT_EQ(trie->trieNode6Map().name(), "names/trieNode6");
  EXPECT_FALSE(trie->initialized());
  EXPECT_TRUE(trie->trieNodeControl());
  EXPECT_TRUE(trie->trieNode6Control());
  EXPECT_EQ(checkForPrefix00(trie.ptr()), IpGenPrefix());
  EXPECT_EQ(checkForPrefix006(trie.ptr()), IpGenPrefix());
}

TEST(TrieEntity, AttributesPublishOnlyOnChange) {
  auto trie = trieFactory("attrs");
  Recorder rec(*trie);

  EXPECT_EQ(trie->getRootPrefix(), IpGenPrefix(rootPrefix6));  // unset family reads as IPv6
  trie->afIs(Addrkit::AddressFamily::none);
  trie->afIs(Addrkit::AddressFamily::ipv4);
  trie->afIs(Addrkit::AddressFamily::ipv4);
  EXPECT_EQ(trie->getRootPrefix(), IpGenPrefix(rootPrefix));
  trie->afIs(Addrkit::AddressFamily::ipv6);
  EXPECT_EQ(trie->getRootPrefix(), IpGenPrefix(rootPrefix6));
  ASSERT_EQ(rec.fields(), (std::vector<Kiln::FieldId>{Trie::afId, Trie::afId}));
  EXPECT_EQ(std::any_cast<Addrkit::AddressFamily>(rec.changes[0].value), Addrkit::AddressFamily::none);
  EXPECT_EQ(std::any_cast<Addrkit::AddressFamily>(rec.changes[1].value), Addrkit::AddressFamily::ipv4);

  rec.changes.clear();
  trie->initializedIs(false);
  trie->initializedIs(true);
  EXPECT_EQ(rec.fields(), std::vector<Kiln::FieldId>{Trie::initializedId});

  rec.changes.clear();
  EXPECT_EQ(trie->nodesVisitedCountInc(0), 0u);
  EXPECT_TRUE(rec.changes.empty());
  trie->nodesVisitedCountIs(4294967295u);
  EXPECT_EQ(trie->nodesVisitedCountInc(1), 0u);  // wraps
  EXPECT_EQ(trie->nodesVisitedCountInc(3), 3u);
  trie->nodesVisitedCountIs(3);
  ASSERT_EQ(rec.changes.size(), 3u);
  EXPECT_EQ(std::any_cast<U32>(rec.changes[1].value), 4294967295u);  // old value carried
  EXPECT_EQ(rec.changes[2].field, Trie::nodesVisitedCountId);

  // Replacing a control publishes the old pointer; the same pointer is a no-op.
  rec.changes.clear();
  auto old = trie->trieNodeControl();
  trie->trieNodeControlIs(old);
  EXPECT_TRUE(rec.changes.empty());
  Basis::Ptr<KilnDepot::CollectionControl> other(new KilnDepot::CollectionControl(nullptr));
  trie->trieNodeControlIs(other);
  ASSERT_EQ(rec.fields(), std::vector<Kiln::FieldId>{Trie::trieNodeControlId});
  EXPECT_EQ(std::any_cast<Basis::Ptr<KilnDepot::CollectionControl>>(rec.changes[0].value), old);
  EXPECT_EQ(trie->trieNodeControl(), other);
}

TEST(TrieEntity, WritePathCountsAndNotifies) {
  auto trie = trieFactory("writes");
  Recorder rec(*trie);
  const Prefix k("10.0.0.0/8");

  // An absent key reads as the default record and is not created.
  EXPECT_EQ(trie->trieNode(k), TrieNode(prefix00));
  EXPECT_EQ(records4(*trie).size(), 1u);

  trie->trieNodeIs(node("10.0.0.0/8", 1));
  trie->trieNodeIs(node("10.0.0.0/8", 2));
  EXPECT_EQ(trie->trieNode(k).black(), 2u);
  EXPECT_EQ(records4(*trie).size(), 2u);
  ASSERT_EQ(rec.fields(), (std::vector<Kiln::FieldId>{Trie::trieNodeId, Trie::trieNodeId}));
  EXPECT_EQ(std::any_cast<Prefix>(rec.changes[0].value), k);
  EXPECT_EQ(count(*trie, "trieNodeIs"), 3u);
  EXPECT_EQ(count(*trie, "trieNodeNotify"), 3u);

  // Removing an absent key is counted but not published.
  rec.changes.clear();
  EXPECT_EQ(trie->trieNodeDel(Prefix("11.0.0.0/8")), TrieNode(prefix00));
  EXPECT_TRUE(rec.changes.empty());
  EXPECT_EQ(count(*trie, "trieNodeDel"), 1u);
  EXPECT_EQ(count(*trie, "trieNodeNotify"), 3u);

  EXPECT_EQ(trie->trieNodeDel(k), node("10.0.0.0/8", 2));
  EXPECT_EQ(rec.fields(), std::vector<Kiln::FieldId>{Trie::trieNodeId});
  EXPECT_EQ(count(*trie, "trieNodeDel"), 2u);
  EXPECT_EQ(count(*trie, "trieNodeNotify"), 4u);

  // In-place change, then commit.
  trie->trieNodeIs(node("12.0.0.0/8", 0));
  TrieNode* stored = trie->trieNodeMap().inPlace(Prefix("12.0.0.0/8"));
  ASSERT_NE(stored, nullptr);
  stored->blackIs(0x01000000);
  rec.changes.clear();
  trie->trieNodeCommit(stored);
  EXPECT_EQ(rec.fields(), std::vector<Kiln::FieldId>{Trie::trieNodeId});
  EXPECT_EQ(trie->trieNode(Prefix("12.0.0.0/8")).black(), 0x01000000u);

  // The IPv6 twins use field 261 and their own counters.
  rec.changes.clear();
  TrieNode6 n6{Ip6Prefix("2001:db8::/32")};
  trie->trieNode6Is(n6);
  EXPECT_EQ(trie->trieNode6(Ip6Prefix("2001:db8::/32")), n6);
  EXPECT_EQ(trie->trieNode6Del(Ip6Prefix("2001:db9::/32")), TrieNode6(prefix006));
  EXPECT_EQ(trie->trieNode6Del(Ip6Prefix("2001:db8::/32")), n6);
  EXPECT_EQ(rec.fields(), (std::vector<Kiln::FieldId>{Trie::trieNode6Id, Trie::trieNode6Id}));
  EXPECT_EQ(count(*trie, "trieNode6Is"), 2u);
  EXPECT_EQ(count(*trie, "trieNode6Del"), 2u);
  EXPECT_EQ(count(*trie, "trieNode6Notify"), 3u);
}

TEST(TrieEntity, DelAllTakesTheQuietPathOnlyWithoutSubscribers) {
  auto quiet = trieFactory("quiet");
  for (int i = 1; i <= 150; ++i) quiet->trieNodeIs(TrieNode(Prefix::masked(U32(i) << 8, 24)));
  quiet->trieNodeDelAll();
  EXPECT_TRUE(records4(*quiet).empty());
  EXPECT_EQ(quiet->trieNode(rootPrefix), TrieNode(prefix00));  // the root went too
  EXPECT_EQ(count(*quiet, "trieNodeDel"), 0u);
  EXPECT_EQ(records6(*quiet).size(), 1u);

  auto loud = trieFactory("loud");
  for (int i = 1; i <= 150; ++i) loud->trieNodeIs(TrieNode(Prefix::masked(U32(i) << 8, 24)));
  {
    Recorder rec(*loud);
    loud->trieNodeDelAll();
    EXPECT_EQ(rec.changes.size(), 151u);
  }
  EXPECT_TRUE(records4(*loud).empty());
  EXPECT_EQ(count(*loud, "trieNodeDel"), 151u);
  loud->trieNode6DelAll();  // the publisher left its initial state for good
  EXPECT_TRUE(records6(*loud).empty());
  EXPECT_EQ(count(*loud, "trieNode6Del"), 1u);
}

TEST(TrieEntity, ControlsKeepTheTrieAliveAfterItsUsersLetGo) {
  Basis::Ptr<KilnDepot::CollectionControl> control;
  {
    auto trie = trieFactory("orphan");
    trie->trieNodeIs(node("10.0.0.0/8", 0x01000000));
    control = trie->trieNodeControl();
  }
  // The control now owns the trie; its collection is intact.
  auto* trie = static_cast<Trie*>(control->entityRef().ptr());
  ASSERT_NE(trie, nullptr);
  EXPECT_EQ(trie->trieNode(Prefix("10.0.0.0/8")).black(), 0x01000000u);
  EXPECT_EQ(records4(*trie).size(), 2u);
  EXPECT_FALSE(trie->trieNodeControl());  // the trie let go of its controls
  EXPECT_EQ(control->binding(), &trie->trieNodeMap());
  control.reset();  // and now everything goes (ASan checks nothing leaks)
}

namespace {

// A table that reports damage on every operation.
class DamagedTable : public Depot::Table {
 public:
  explicit DamagedTable(Depot::RecordLayout l) : layout_(std::move(l)) {}
  const Depot::RecordLayout& layout() const override { return layout_; }
  const std::string& rootPath() const override { return name_; }
  bool isWriter() const override { return true; }
  bool find(const U8*, U8*) const override { throw Depot::CorruptionException("chain loops"); }
  void write(const U8*) override { throw Depot::CorruptionException("chain loops"); }
  bool remove(const U8*, U8*) override { throw Depot::CorruptionException("chain loops"); }
  U8* inPlace(const U8*) override { throw Depot::CorruptionException("chain loops"); }
  void commit(const U8*) override { throw Depot::CorruptionException("chain loops"); }
  void updateBegin() override {}
  void updateEnd() override {}
  U64 updateCounter() const override { return 0; }
  bool iterFirst(U64&, U8*) const override { return false; }
  bool iterFrom(const U8*, U64&, U8*) const override { return false; }
  bool iterNext(U64&, U8*) const override { return false; }
  void reportCorruption(std::string_view) override { ++reports_; }
  U64 corruptionCount() const override { return reports_; }
  U64 occupancy() const override { return 0; }
  U64 capacity() const override { return 0; }
  U64 bytes() const override { return 0; }

 private:
  Depot::RecordLayout layout_;
  std::string name_ = "damaged";
  U64 reports_ = 0;
};

}  // namespace

TEST(TrieEntityDeathTest, DamageReadsAsDefaultButStopsWrites) {
  auto trie = trieFactory("damage");
  trie->prefixIs(IpGenPrefix("0.0.0.0/0"));
  trie->trieNodeMap().tableIs(std::make_unique<DamagedTable>(trie->trieNodeMap().layout()));
  EXPECT_EQ(trie->trieNode(rootPrefix), TrieNode(prefix00));
  EXPECT_EQ(checkForPrefix00(trie.ptr()), IpGenPrefix());  // damage reads as "not stored"
  EXPECT_EQ(trie->trieNodeMap().table().corruptionCount(), 2u);
  EXPECT_DEATH(trie->trieNodeIs(TrieNode(rootPrefix)), "in no man's land \\(DepotMap: safeWrite\\)");
  EXPECT_DEATH(trie->trieNodeDel(rootPrefix), "in no man's land \\(DepotMap: safeRemove\\)");
  TrieNode n(rootPrefix);
  EXPECT_DEATH(trie->trieNodeCommit(&n), "in no man's land \\(DepotMap: directCommit\\)");
}

TEST(TrieEntity, ParentingRenamesAndReplacesTheWriters) {
  auto parent = Kiln::entityNew<Kiln::Entity>("routing");
  auto trie = trieFactory("rib");
  trie->trieNodeIs(node("10.0.0.0/8", 1));
  trie->parentIs(parent.ptr());
  EXPECT_EQ(trie->trieNodeMap().name(), "routing/rib/trieNode");
  EXPECT_EQ(trie->trieNode6Map().name(), "routing/rib/trieNode6");
  EXPECT_TRUE(records4(*trie).empty());  // a fresh writer under the new name
  EXPECT_THROW(trie->parentIs(parent.ptr()), Basis::Exception);
  trie->parentIs(nullptr);
  EXPECT_EQ(trie->trieNodeMap().name(), "rib/trieNode");
  EXPECT_FALSE(trie->trieNodeMap().initialized());
}

TEST(TemporaryTable, GrowsFromItsFirstSizeAndIteratesThroughRemovals) {
  Depot::RecordLayout layout{"Routing::Lattice::TrieNode", sizeof(TrieNode), TrieNode::keyOffset, sizeof(Prefix)};
  auto table = Depot::temporaryTableNew(layout, "t/trieNode", 100);
  EXPECT_EQ(table->capacity(), 100u);
  std::map<U32, TrieNode> expected;
  for (U32 i = 0; i < 1000; ++i) {
    TrieNode n(Prefix::masked(i << 8, 24));
    n.blackIs(i);
    table->write(reinterpret_cast<const U8*>(&n));
    expected.emplace(i, n);
  }
  EXPECT_EQ(table->occupancy(), 1000u);
  EXPECT_GE(table->capacity(), 1000u);

  // Remove every other record while iterating; the walk still sees each record once.
  U64 hint = 0;
  TrieNode cur;
  std::map<U32, int> seen;
  for (bool ok = table->iterFirst(hint, reinterpret_cast<U8*>(&cur)); ok;
       ok = table->iterNext(hint, reinterpret_cast<U8*>(&cur))) {
    ++seen[cur.black()];
    TrieNode removed;
    if (cur.black() % 2 == 0) {
      EXPECT_TRUE(table->remove(reinterpret_cast<const U8*>(&cur.key()), reinterpret_cast<U8*>(&removed)));
    }
  }
  EXPECT_EQ(seen.size(), 1000u);
  EXPECT_EQ(table->occupancy(), 500u);
  for (auto& [i, n] : expected) {
    TrieNode got;
    EXPECT_EQ(table->find(reinterpret_cast<const U8*>(&n.key()), reinterpret_cast<U8*>(&got)), i % 2 == 1);
  }
  Prefix k = Prefix::masked(7u << 8, 24);
  ASSERT_TRUE(table->iterFrom(reinterpret_cast<const U8*>(&k), hint, reinterpret_cast<U8*>(&cur)));
  EXPECT_EQ(cur.key(), k);
}

TEST(TemporaryTable, FixedSizeTableReportsFull) {
  Depot::RecordLayout layout{"Routing::Lattice::TrieNode", sizeof(TrieNode), TrieNode::keyOffset, sizeof(Prefix)};
  auto table = Depot::temporaryTableNew(layout, "t/trieNode", 4, 4);
  for (U32 i = 0; i < 4; ++i) {
    TrieNode n(Prefix::masked(i << 8, 24));
    table->write(reinterpret_cast<const U8*>(&n));
  }
  TrieNode again(Prefix::masked(0, 24));
  table->write(reinterpret_cast<const U8*>(&again));  // an update needs no new slot
  TrieNode extra(Prefix::masked(9u << 8, 24));
  try {
    table->write(reinterpret_cast<const U8*>(&extra));
    FAIL() << "no table-full error";
  } catch (const Depot::TableFullException& e) {
    EXPECT_STREQ(e.what(), "Depot table full (occupancy:4 tableSize:4) t/trieNode");
  }
}
