// Update brackets of the trie's mutations, consistent reads (repeated runs,
// buffered walks, stuck writers) and the walk's guard against damaged tables.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>

#include <functional>
#include <random>

#include "Depot/SharedTable.h"
#include "TrieLib/ConsistentRead.h"
#include "TrieProcessSupport.h"

using namespace Routing::Lattice;
using Addrkit::Ip6Address;
using Addrkit::Ip6Prefix;
using Addrkit::IpGenPrefix;
using Addrkit::Prefix;
using testing::ElementsAre;
using testing::HasSubstr;
using trietest::TempRoot;

namespace {

// Records, at every node record the trie writes or removes, the update
// counter of that record's table and whether the table's control says it is
// quiesced.
class UpdateWatch : public Kiln::Notifiee {
 public:
  explicit UpdateWatch(Trie& trie) : trie_(trie) {
    trie_.publisher()->subscribe(this);
    activeIs(true);
  }
  ~UpdateWatch() override { trie_.publisher()->unsubscribe(this); }
  void onChange(const Kiln::Change& c) override {
    if (c.field == Trie::trieNodeId)
      seen.push_back({4, trie_.trieNodeMap().updateCounter(), trie_.trieNodeControl()->quiesced()});
    if (c.field == Trie::trieNode6Id)
      seen.push_back({6, trie_.trieNode6Map().updateCounter(), trie_.trieNode6Control()->quiesced()});
  }
  struct Seen {
    int family;
    U64 counter;
    bool quiesced;
  };
  std::vector<Seen> seen;

 private:
  Trie& trie_;
};

// Every change of one mutation came from the given family's table, inside
// the one update that opened at `before`.
void expectOneUpdate(const UpdateWatch& watch, int family, U64 before, size_t atLeast) {
  EXPECT_GE(watch.seen.size(), atLeast);
  for (const UpdateWatch::Seen& s : watch.seen) {
    EXPECT_EQ(s.family, family);
    EXPECT_EQ(s.counter, before + 1);
    EXPECT_FALSE(s.quiesced);
  }
}

TEST(TrieUpdates, EachInsertionAndDeletionIsOneUpdateOfItsFamilysTable) {
  Basis::Ptr<Trie> t = trieFactory("T");
  t->prefixIs(IpGenPrefix("10.0.0.0/8"));
  t->prefixIs(IpGenPrefix("2001:db8::/32"));
  struct Step {
    const char* prefix;
    bool insert;
    size_t changes;  // records written or removed at least
  };
  // A split, a hoist that removes two records, a leaf extension; the same
  // in IPv6.
  for (const Step& step : {Step{"11.0.0.0/8", true, 3}, Step{"11.0.0.0/8", false, 3}, Step{"10.1.0.0/16", true, 3},
                           Step{"2001:db9::/32", true, 3}, Step{"2001:db9::/32", false, 3}}) {
    SCOPED_TRACE(step.prefix);
    const IpGenPrefix p(step.prefix);
    const bool v4 = p.af() == Addrkit::AddressFamily::ipv4;
    const KilnDepot::CollectionBinding& own = v4 ? static_cast<const KilnDepot::CollectionBinding&>(t->trieNodeMap())
                                                 : t->trieNode6Map();
    const KilnDepot::CollectionBinding& other = v4 ? static_cast<const KilnDepot::CollectionBinding&>(t->trieNode6Map())
                                                   : t->trieNodeMap();
    const U64 before = own.updateCounter(), otherBefore = other.updateCounter();
    ASSERT_EQ(before % 2, 0u);
    UpdateWatch watch(*t);
    if (step.insert) t->prefixIs(p);
    else EXPECT_TRUE(t->prefixDel(p));
    expectOneUpdate(watch, v4 ? 4 : 6, before, step.changes);
    EXPECT_EQ(own.updateCounter(), before + 2);
    EXPECT_EQ(other.updateCounter(), otherBefore);
    EXPECT_TRUE(t->trieNodeControl()->quiesced());
    EXPECT_TRUE(t->trieNode6Control()->quiesced());
  }
  EXPECT_EQ(t->lpm(IpGenPrefix("10.1.2.3/32")), IpGenPrefix("10.1.0.0/16"));
}

TEST(TrieUpdates, AnUpdateThatFailsIsStillClosed) {
  Basis::Ptr<Trie> t = trieFactory("T");
  t->trieNodeMap().tableIs(Depot::temporaryTableNew(t->trieNodeMap().layout(), "T/trieNode", 4, 4));
  t->handleInitialized();
  t->prefixIs(IpGenPrefix("10.0.0.0/8"));
  t->prefixIs(IpGenPrefix("20.0.0.0/8"));
  // A split needs two more records: the table is full half-way.
  EXPECT_THROW(t->prefixIs(IpGenPrefix("30.0.0.0/8")), Depot::TableFullException);
  const U64 after = t->trieNodeMap().updateCounter();
  EXPECT_EQ(after % 2, 0u);
  EXPECT_TRUE(t->trieNodeControl()->quiesced());
  // The next update opens a bracket of its own (it rewrites a stored record).
  t->prefixIs(IpGenPrefix("10.0.0.0/8"));
  EXPECT_EQ(t->trieNodeMap().updateCounter(), after + 2);
}

TEST(TrieUpdates, SharedTablesStayInsideTheUpdateWhileTheyGrow) {
  TempRoot root;
  Basis::Ptr<Trie> w = trieWriterNew("T", root.options);
  Basis::Ptr<Trie> r = trieReaderNew("T", root.options);
  const U64 firstCapacity = w->trieNodeMap().table().capacity();
  std::mt19937 rng(5);
  U64 inserted = 0;
  while (w->trieNodeMap().table().capacity() == firstCapacity && inserted < 20000) {
    const IpGenPrefix p(Prefix::masked(U32(rng()), 8 + rng() % 25));
    const U64 before = w->trieNodeMap().updateCounter();
    ASSERT_EQ(before % 2, 0u);
    UpdateWatch watch(*w);
    w->prefixIs(p);
    ++inserted;
    for (const UpdateWatch::Seen& s : watch.seen)
      ASSERT_EQ(s.counter % 2, 1u) << "the writer's table reads as quiesced inside the insertion of " << p
                                   << " (insertion " << inserted << ", capacity "
                                   << w->trieNodeMap().table().capacity() << ")";
    ASSERT_EQ(w->trieNodeMap().updateCounter() % 2, 0u);
    ASSERT_GT(w->trieNodeMap().updateCounter(), before);
  }
  EXPECT_GT(w->trieNodeMap().table().capacity(), firstCapacity);
  // The reader moves to the grown table and finds every prefix.
  EXPECT_EQ(trietest::walkedSet(*r), trietest::walkedSet(*w));
}

// Reads another trie's table and, before chosen reads, lets the test change
// that trie, as a writer in another process would between two reads of a
// query.
class InterleavedTable : public Depot::Table {
 public:
  explicit InterleavedTable(Depot::Table& base) : base_(base) {}
  std::function<void(const U8* key)> beforeFind;

  const Depot::RecordLayout& layout() const override { return base_.layout(); }
  const std::string& rootPath() const override { return base_.rootPath(); }
  bool isWriter() const override { return false; }
  bool find(const U8* key, U8* out) const override {
    if (beforeFind) beforeFind(key);
    return base_.find(key, out);
  }
  void write(const U8*) override { refuse(); }
  bool remove(const U8*, U8*) override { refuse(); }
  U8* inPlace(const U8*) override { refuse(); }
  void commit(const U8*) override { refuse(); }
  bool iterFirst(U64& hint, U8* out) const override { return base_.iterFirst(hint, out); }
  bool iterFrom(const U8* key, U64& hint, U8* out) const override { return base_.iterFrom(key, hint, out); }
  bool iterNext(U64& hint, U8* out) const override { return base_.iterNext(hint, out); }
  void updateBegin() override { refuse(); }
  void updateEnd() override { refuse(); }
  U64 updateCounter() const override { return base_.updateCounter(); }
  void reportCorruption(std::string_view) override { ++corruptions_; }
  U64 corruptionCount() const override { return corruptions_; }
  U64 occupancy() const override { return base_.occupancy(); }
  U64 capacity() const override { return base_.capacity(); }
  U64 bytes() const override { return base_.bytes(); }

 private:
  [[noreturn]] static void refuse() { throw Depot::AccessException("a reader cannot write"); }
  Depot::Table& base_;
  U64 corruptions_ = 0;
};

bool isKey(const U8* key, const Prefix& p) { return std::memcmp(key, &p, sizeof p) == 0; }

class Recorder : public TrieWalkCallback {
 public:
  WalkAction handleWalkCallback(const IpGenPrefix& p) override {
    seen.push_back(p.stringValue());
    return continueWalk;
  }
  std::vector<std::string> seen;
};

std::vector<std::string> directWalk(const Trie& t, const IpGenPrefix& from) {
  Basis::Ptr<Recorder> r(new Recorder);
  t.preOrderWalk(r, from);
  return r->seen;
}

TEST(ConsistentRead, ARunThatAnUpdateOverlapsIsRepeated) {
  Basis::Ptr<Trie> w = trieFactory("W");
  for (const char* p : {"10.0.0.0/8", "10.1.0.0/16", "20.0.0.0/8", "30.0.0.0/8"}) w->prefixIs(IpGenPrefix(p));
  Basis::Ptr<Trie> r = trieFactory("R");
  auto table = std::make_unique<InterleavedTable>(w->trieNodeMap().table());
  InterleavedTable& reads = *table;
  r->trieNodeMap().tableIs(std::move(table));
  ConsistentReader reader(*r);

  // Once the walk has passed 10.1.0.0/16 and reaches 20.0.0.0/8, the writer
  // removes the one and adds 30.1.0.0/16 further on: a direct walk mixes the
  // two states.
  auto changeOnce = [&](const Prefix& trigger, const std::function<void()>& change) {
    reads.beforeFind = [&, trigger, change, fired = false](const U8* key) mutable {
      if (fired || !isKey(key, trigger)) return;
      fired = true;
      change();
    };
  };
  auto moveOn = [&] {
    w->prefixDel(IpGenPrefix("10.1.0.0/16"));
    w->prefixIs(IpGenPrefix("30.1.0.0/16"));
  };
  changeOnce(Prefix("20.0.0.0/8"), moveOn);
  EXPECT_THAT(directWalk(*r, IpGenPrefix(rootPrefix)),
              ElementsAre("10.0.0.0/8", "10.1.0.0/16", "20.0.0.0/8", "30.0.0.0/8", "30.1.0.0/16"));

  for (const char* p : {"10.1.0.0/16", "30.1.0.0/16"}) w->prefixDel(IpGenPrefix(p));
  w->prefixIs(IpGenPrefix("10.1.0.0/16"));
  changeOnce(Prefix("20.0.0.0/8"), moveOn);
  Basis::Ptr<Recorder> walk(new Recorder);
  reader.preOrderWalk(walk, IpGenPrefix(rootPrefix));
  EXPECT_THAT(walk->seen, ElementsAre("10.0.0.0/8", "20.0.0.0/8", "30.0.0.0/8", "30.1.0.0/16"));
  EXPECT_EQ(reader.lastRuns(), 2u);
  EXPECT_EQ(reader.lastUpdateCounter(), w->trieNodeMap().updateCounter());

  // The same for a longest match and a successor; a quiet trie needs one run.
  changeOnce(Prefix("16.0.0.0/4"), [&] { w->prefixIs(IpGenPrefix("30.1.2.0/24")); });
  EXPECT_EQ(reader.lpm(IpGenPrefix("30.1.2.3/32")), IpGenPrefix("30.1.2.0/24"));
  EXPECT_EQ(reader.lastRuns(), 2u);
  changeOnce(Prefix("16.0.0.0/4"), [&] { w->prefixIs(IpGenPrefix("30.1.0.0/17")); });
  EXPECT_EQ(reader.getNext(IpGenPrefix("30.1.0.0/16")), IpGenPrefix("30.1.0.0/17"));
  EXPECT_EQ(reader.lastRuns(), 2u);
  EXPECT_EQ(reader.longestMatch(IpGenPrefix("30.1.128.1/32")), IpGenPrefix("30.1.0.0/16"));
  EXPECT_EQ(reader.lastRuns(), 1u);

  // A run that an update leads into a loop raises nothing: the writer puts a
  // record that names itself and then repairs it when the next run starts.
  const TrieNode sound = w->trieNode(Prefix("20.0.0.0/8"));
  TrieNode looped = sound;
  looped.child00Is(sound.key());
  enum { sound_, damaged_, repaired_ } state = sound_;
  reads.beforeFind = [&](const U8* key) {
    if (state == sound_ && isKey(key, sound.key())) {
      state = damaged_;
      w->trieNodeIs(looped);
    } else if (state == damaged_ && isKey(key, prefix032)) {
      state = repaired_;
      w->trieNodeIs(sound);
    }
  };
  Basis::Ptr<Recorder> again(new Recorder);
  reader.preOrderWalk(again, IpGenPrefix(rootPrefix));
  EXPECT_THAT(again->seen,
              ElementsAre("10.0.0.0/8", "20.0.0.0/8", "30.0.0.0/8", "30.1.0.0/16", "30.1.0.0/17", "30.1.2.0/24"));
  EXPECT_EQ(reader.lastRuns(), 3u);
}

// Answers skipSubtree or abortWalk for some prefixes, by a hash of the prefix.
class ScriptedWalk : public TrieWalkCallback {
 public:
  explicit ScriptedWalk(U64 nonce) : nonce_(nonce) {}
  WalkAction handleWalkCallback(const IpGenPrefix& p) override {
    seen.push_back(p.stringValue());
    const U64 h = std::hash<std::string>()(seen.back()) ^ nonce_;
    if (h % 89 == 0) return abortWalk;
    if (h % 7 == 0) return skipSubtree;
    return h % 5 == 0 ? WalkAction(3 + h % 200) : continueWalk;
  }
  std::vector<std::string> seen;

 private:
  U64 nonce_;
};

TEST(ConsistentRead, WalksAnswerAsTheDirectWalkDoes) {
  for (U32 seed = 1; seed <= 12; ++seed) {
    SCOPED_TRACE(seed);
    Basis::Ptr<Trie> t = trieFactory("T");
    const std::vector<trietest::TrieOp> ops = trietest::opSequence(seed, 500);
    for (const trietest::TrieOp& op : ops) trietest::apply(*t, op);
    if (seed % 2) {
      t->prefixIs(IpGenPrefix("0.0.0.0/0"));
      t->prefixIs(IpGenPrefix("::/0"));
    }
    ConsistentReader reader(*t);
    std::vector<IpGenPrefix> roots = {IpGenPrefix(rootPrefix), IpGenPrefix(rootPrefix6), IpGenPrefix("10.0.0.0/7"),
                                      IpGenPrefix("2001:db8::/30")};
    for (size_t i = 0; i < ops.size(); i += 25) roots.push_back(ops[i].prefix);
    for (size_t i = 0; i < roots.size(); ++i) {
      for (U64 nonce : {U64(0), U64(seed) * 7919 + i}) {
        Basis::Ptr<ScriptedWalk> direct(new ScriptedWalk(nonce)), buffered(new ScriptedWalk(nonce));
        t->preOrderWalk(direct, roots[i]);
        reader.preOrderWalk(buffered, roots[i]);
        ASSERT_EQ(buffered->seen, direct->seen) << "walk from " << roots[i] << " nonce " << nonce;
      }
    }
  }
}

TEST(ConsistentRead, AWriterStuckMidUpdateIsReported) {
  TempRoot root;
  Basis::Ptr<Trie> w = trieWriterNew("T", root.options);
  w->prefixIs(IpGenPrefix("10.0.0.0/8"));
  w->prefixIs(IpGenPrefix("2001:db8::/32"));
  Basis::Ptr<Trie> r = trieReaderNew("T", root.options);
  ConsistentReadOptions options;
  options.stuckAfterMs = 50;
  ConsistentReader reader(*r, options);
  auto expectStuck = [&] {
    try {
      reader.lpm(IpGenPrefix("10.1.2.3/32"));
      ADD_FAILURE() << "a consistent read behind an open update returned";
    } catch (const ConsistentReadException& e) {
      EXPECT_THAT(e.what(), HasSubstr("trie T: the writer of T/trieNode appears stuck mid-update"));
    }
  };

  w->trieNodeMap().updateBegin();
  expectStuck();
  // The other family's table is not held up.
  EXPECT_EQ(reader.lpm(IpGenPrefix("2001:db8::1/128")), IpGenPrefix("2001:db8::/32"));
  w->trieNodeMap().updateEnd();
  EXPECT_EQ(reader.lpm(IpGenPrefix("10.1.2.3/32")), IpGenPrefix("10.0.0.0/8"));
  w = nullptr;

  // A writer killed inside an update; the next writer's mount settles it.
  int ready[2];
  ASSERT_EQ(pipe(ready), 0);
  pid_t writer = trietest::spawn([&] {
    Basis::Ptr<Trie> t = trieWriterNew("T", root.options);
    t->trieNodeMap().updateBegin();
    char c = 1;
    if (write(ready[1], &c, 1) != 1) return 2;
    pause();
    return 3;
  });
  char c;
  ASSERT_EQ(read(ready[0], &c, 1), 1);
  kill(writer, SIGKILL);
  EXPECT_EQ(trietest::statusOf(writer), 100 + SIGKILL);
  expectStuck();
  w = trieWriterNew("T", root.options);
  EXPECT_EQ(reader.lpm(IpGenPrefix("10.1.2.3/32")), IpGenPrefix("10.0.0.0/8"));
  close(ready[0]);
  close(ready[1]);
}

Ip6Address flipped(Ip6Address a, U32 bit) {
  a.wordIs(bit / 32, a.word(bit / 32) ^ (0x80000000u >> (bit % 32)));
  return a;
}

TEST(WalkDepth, TheDeepestTriesAreWalkedAndCyclesInDamagedTablesAreReported) {
  // A node at every even length (IPv4) and at every length (IPv6): 17 and
  // 129 levels, each with a sibling branch so that no edge is compressed.
  Basis::Ptr<Trie> deep = trieFactory("deep");
  const U32 a4 = 0x5A5A5A5Au;
  std::set<std::string> want;
  for (U32 len = 2; len <= 32; len += 2) {
    for (U32 addr : {a4, a4 ^ (0x40000000u >> (len - 2))}) {
      const Prefix p = Prefix::masked(addr, len);
      deep->prefixIs(p);
      want.insert(p.stringValue());
    }
  }
  Ip6Address a6;
  for (U32 k = 0; k < 4; ++k) a6.wordIs(k, 0x20010DB8u ^ (k * 0x11111111u));
  for (U32 len = 1; len <= 128; ++len) {
    for (const Ip6Address& addr : {a6, flipped(a6, len - 1)}) {
      const Ip6Prefix p = Ip6Prefix::masked(addr, len);
      deep->prefixIs(p);
      want.insert(p.stringValue());
    }
  }
  EXPECT_EQ(trietest::walkedSet(*deep), want);
  ConsistentReader deepReader(*deep);
  Basis::Ptr<Recorder> all(new Recorder);
  deepReader.preOrderWalk(all, IpGenPrefix(rootPrefix));
  deepReader.preOrderWalk(all, IpGenPrefix(rootPrefix6));
  EXPECT_EQ(std::set<std::string>(all->seen.begin(), all->seen.end()), want);

  auto expectDamage = [](const Trie& t, const IpGenPrefix& from, const std::string& what) {
    for (bool consistent : {false, true}) {
      Basis::Ptr<Recorder> r(new Recorder);
      try {
        if (consistent) ConsistentReader(t).preOrderWalk(r, from);
        else t.preOrderWalk(r, from);
        ADD_FAILURE() << "walked a damaged trie from " << from;
      } catch (const ConsistentReadException& e) {
        ADD_FAILURE() << e.what();
      } catch (const Basis::Exception& e) {
        EXPECT_EQ(std::string(e.what()), what);
      }
      if (consistent) {
        EXPECT_THAT(r->seen, testing::IsEmpty());
      }
    }
  };
  // A child key with no record: the walk falls back to the node that holds
  // the key, which leads to the same child again.
  Basis::Ptr<Trie> dangling = trieFactory("dangling");
  for (const char* p : {"10.0.0.0/8", "10.1.0.0/16", "10.2.0.0/16"}) dangling->prefixIs(IpGenPrefix(p));
  dangling->trieNodeDel(Prefix("10.1.0.0/16"));
  expectDamage(*dangling, IpGenPrefix(rootPrefix),
               "trie dangling: IPv4 walk deeper than 17 levels at 10.1.0.0/16; the trie is damaged");

  // Nodes that name themselves as a child.
  Basis::Ptr<Trie> looped = trieFactory("looped");
  looped->prefixIs(IpGenPrefix("10.0.0.0/8"));
  looped->prefixIs(IpGenPrefix("2001:db8::/32"));
  TrieNode n = looped->trieNode(Prefix("10.0.0.0/8"));
  n.child11Is(n.key());
  looped->trieNodeIs(n);
  TrieNode6 n6 = looped->trieNode6(Ip6Prefix("2001:db8::/32"));
  n6.leftChildIs(n6.key());
  looped->trieNode6Is(n6);
  expectDamage(*looped, IpGenPrefix("10.0.0.0/8"),
               "trie looped: IPv4 walk deeper than 17 levels at 10.0.0.0/8; the trie is damaged");
  expectDamage(*looped, IpGenPrefix(rootPrefix6),
               "trie looped: IPv6 walk deeper than 129 levels at 2001:db8::/32; the trie is damaged");
}

}  // namespace
