// A trie in shared tables: writer and reader mounts, one update per
// mutation, consistent reads, and real processes that write, read and are
// killed while they do.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sched.h>

#include "Depot/FaultInjection.h"
#include "Depot/SharedTable.h"
#include "KilnDepot/Mount.h"
#include "TrieLib/ConsistentRead.h"
#include "TrieLib/TrieCheck.h"
#include "TrieLib/TrieMount.h"
#include "support/Changes.h"
#include "support/Generate.h"
#include "support/Process.h"
#include "support/Reference.h"
#include "support/TempRoot.h"
#include "support/Walk.h"

using namespace Routing::Lattice;
using namespace testkit;
using testing::HasSubstr;

namespace {

struct Root : TempRoot {
  MountOptions options{.root = path};
};

void apply(Trie& t, Reference& ref, const Op& op) {
  if (op.insert) t.prefixIs(op.prefix), ref.insert(op.prefix);
  else t.prefixDel(op.prefix), ref.erase(op.prefix);
}

// Both families in walk order, as one list.
std::vector<IpGenPrefix> stored(Trie& t) {
  auto v = walkFamily(t, false), v6 = walkFamily(t, true);
  v.insert(v.end(), v6.begin(), v6.end());
  return v;
}
std::vector<IpGenPrefix> stored(const Reference& ref) { return {ref.all().begin(), ref.all().end()}; }

}  // namespace

TEST(TrieMount, AReaderFollowsTheWriterThroughGrowthAndCannotWrite) {
  Root root;
  EXPECT_FALSE(trieExists("T", root.options));
  auto writer = trieWriterNew("T", root.options);
  auto reader = trieReaderNew("T", root.options);
  const U64 firstCapacity = writer->trieNodeMap().table().capacity();
  Reference ref;
  const auto ops = history(3, 6000);
  U64 largest = firstCapacity;
  for (size_t i = 0; i < ops.size(); ++i) {
    apply(*writer, ref, ops[i]);
    largest = std::max(largest, writer->trieNodeMap().table().capacity());
    if (i % 1000 == 999) {
      ASSERT_EQ(stored(*reader), stored(ref)) << "after " << i;
    }
  }
  EXPECT_GT(largest, firstCapacity);
  // Sized up front, a trie takes a load of that size without growing.
  root.options.ipv4Prefixes = root.options.ipv6Prefixes = ops.size();
  auto sized = trieWriterNew("S", root.options);
  for (const Op& op : ops) sized->prefixIs(op.prefix);
  for (const Depot::Table* t : {&sized->trieNodeMap().table(), &sized->trieNode6Map().table()})
    EXPECT_EQ(dynamic_cast<const Depot::SharedTable&>(*t).generation(), 1u);
  MountOptions huge = root.options;
  huge.ipv6Prefixes = U64(1) << 40;  // more than a table holds: refused, nothing created
  EXPECT_THROW(trieWriterNew("X", huge), Basis::RangeException);
  EXPECT_FALSE(trieExists("X", root.options));
  EXPECT_EQ(checkTrie(*reader), std::vector<std::string>());
  EXPECT_THROW(reader->prefixIs(IpGenPrefix("1.0.0.0/8")), Depot::AccessException);
  EXPECT_THROW(trieDrop("T", root.options), Basis::Exception);
  // A trie that answered from its local table answers from the shared one
  // once mounted, even where both tables' update counters read the same.
  auto local = trieFactory("T");
  const IpGenPrefix host("10.1.2.3"), local8("10.0.0.0/8");
  for (U32 k = 0; local->trieNodeMap().updateCounter() != writer->trieNodeMap().updateCounter(); ++k)
    local->prefixIs(IpGenPrefix(fmt::format("192.0.{}.{}", k / 256 % 256, k % 256)));
  local->prefixIs(local8), writer->prefixIs(local8), ref.insert(local8);
  ASSERT_EQ(local->longestMatch(host), local8);
  ASSERT_NE(reader->longestMatch(host), local8);
  KilnDepot::mountReader(local->trieNodeMap(), root.options.root);
  EXPECT_EQ(local->longestMatch(host), reader->longestMatch(host));
  writer = nullptr;
  auto restarted = trieWriterNew("T", root.options);
  EXPECT_EQ(stored(*restarted), stored(ref));
  restarted = nullptr;
  trieDrop("T", root.options);
  EXPECT_FALSE(trieExists("T", root.options));
}

// Each space reservation, mapping, allocation and file operation of a load
// with growth fails in turn, once (space returns) or from then on (the disk
// stays full for a while): the failed insertion leaves no trace, the writer
// goes on, and a reader and the next writer find the acknowledged prefixes.
TEST(TrieFailures, AFailureAtAnyPointOfALoadWithGrowthLosesNothing) {
  PrefixGen gen(5);
  std::vector<IpGenPrefix> load(8000);
  for (size_t i = 0; i < load.size(); ++i) load[i] = gen.prefix(i % 3 == 0);
  U64 n = 1;
  for (bool failed = true; failed; ++n) {
    Root root;
    auto writer = trieWriterNew("T", root.options);
    auto reader = trieReaderNew("T", root.options);
    Reference ref;
    failed = false;
    Depot::injectFailureAt(n, n % 4 == 0);
    for (size_t i = 0, offAt = load.size(); i < load.size(); ++i) {
      if (i == offAt) Depot::injectFailureAt(0);
      try {
        writer->prefixIs(load[i]);
        ref.insert(load[i]);
        continue;
      } catch (const std::exception& e) {
        EXPECT_THAT(e.what(), testing::ContainsRegex("space|memory|map|alloc|generation")) << n;
      }
      if (failed) continue;
      failed = true, offAt = i + 40;
      Depot::injectFailureAt(0);
      ASSERT_EQ(stored(*reader), stored(ref)) << "failure point " << n;
      ASSERT_EQ(checkTrie(*writer), std::vector<std::string>()) << "failure point " << n;
      Depot::injectFailureAt(n % 4 == 0 ? 1 : 0, true);  // every fourth time the disk stays full a while
    }
    Depot::injectFailureAt(0);
    writer = nullptr;
    writer = trieWriterNew("T", root.options);
    ASSERT_EQ(stored(*writer), stored(ref)) << "failure point " << n;
    ASSERT_EQ(checkTrie(*writer), std::vector<std::string>()) << "failure point " << n;
  }
  EXPECT_GT(n, 20u);  // the load met that many points
}

TEST(TrieUpdates, EachMutationIsOneUpdateOfItsFamilysTableOnly) {
  auto t = trieFactory("T");
  t->prefixIs(IpGenPrefix("10.0.0.0/8"));
  t->prefixIs(IpGenPrefix("2001:db8::/32"));
  // A split, a hoist, a leaf extension, and the IPv6 twins.
  for (const char* step : {"+11.0.0.0/8", "-11.0.0.0/8", "+10.1.0.0/16", "+2001:db9::/32", "-2001:db9::/32"}) {
    const IpGenPrefix p(step + 1);
    const bool v4 = p.af() == Addrkit::AddressFamily::ipv4;
    auto& own = v4 ? static_cast<KilnDepot::CollectionBinding&>(t->trieNodeMap()) : t->trieNode6Map();
    auto& other = v4 ? static_cast<KilnDepot::CollectionBinding&>(t->trieNode6Map()) : t->trieNodeMap();
    const U64 before = own.updateCounter(), otherBefore = other.updateCounter();
    std::vector<U64> seen;  // the counter at every record change
    ChangeLog log(*t, [&](const Kiln::Change&) { seen.push_back(own.updateCounter()); });
    if (step[0] == '+')
      t->prefixIs(p);
    else
      EXPECT_TRUE(t->prefixDel(p));
    EXPECT_GE(seen.size(), 3u) << step;
    EXPECT_THAT(seen, testing::Each(before + 1)) << step;
    EXPECT_EQ(own.updateCounter(), before + 2) << step;
    EXPECT_EQ(other.updateCounter(), otherBefore) << step;
  }
}

// A live writer that keeps an update open is reported as stuck; once it is
// gone, readers answer at once from the state before its open update.
TEST(ConsistentRead, AWriterStuckMidUpdateIsReportedAndOneThatDiedIsReadAround) {
  Root root;
  auto w = trieWriterNew("T", root.options);
  w->prefixIs(IpGenPrefix("10.0.0.0/8"));
  w->prefixIs(IpGenPrefix("2001:db8::/32"));
  auto r = trieReaderNew("T", root.options);
  ConsistentReadOptions options;
  options.stuckAfterMs = 50;
  ConsistentReader reader(*r, options);
  auto expectStuck = [&] {
    EXPECT_THAT([&] { reader.lpm(IpGenPrefix("10.1.2.3")); },
                testing::ThrowsMessage<ConsistentReadException>(HasSubstr("trie T: the writer of T/trieNode appears stuck mid-update")));
  };
  w->trieNodeMap().updateBegin();
  expectStuck();
  EXPECT_EQ(reader.lpm(IpGenPrefix("2001:db8::1")), IpGenPrefix("2001:db8::/32"));  // the other family goes on
  w->trieNodeMap().updateEnd();
  EXPECT_EQ(reader.lpm(IpGenPrefix("10.1.2.3")), IpGenPrefix("10.0.0.0/8"));
  w = nullptr;
  SharedCounters shared;
  Child killed([&] {
    auto t = trieWriterNew("T", root.options);
    t->trieNodeMap().updateBegin();
    t->trieNodeDelAll();  // half of a change: every IPv4 record gone
    shared->ready = 1;
    pause();
    return 3;
  });
  ASSERT_TRUE(eventually([&] { return shared->ready == 1; }));
  expectStuck();
  EXPECT_EQ(killed.kill9(), 100 + SIGKILL);
  EXPECT_EQ(reader.lpm(IpGenPrefix("10.1.2.3")), IpGenPrefix("10.0.0.0/8"));
  EXPECT_EQ(std::pair(walkText(*r, IpGenPrefix(rootPrefix)), checkTrie(*r)), std::pair(std::string("10.0.0.0/8"), std::vector<std::string>()));
  w = trieWriterNew("T", root.options);
  EXPECT_EQ(reader.lpm(IpGenPrefix("10.1.2.3")), IpGenPrefix("10.0.0.0/8"));
}

namespace {

// What a query answers, as text; walks skip and abort by a hash of the
// prefix. Longest matches go through the consistent reader's batches.
std::string answer(Trie& direct, ConsistentReader* reader, int kind, const IpGenPrefix& p) {
  if (kind == 0) return (reader ? reader->lpm(p) : direct.lpm(p)).stringValue();
  IpGenPrefix match;
  if (kind == 1 && reader) reader->longestMatch(std::span(&p, 1), std::span(&match, 1));
  if (kind == 1) return (reader ? match : direct.longestMatch(p)).stringValue();
  if (kind == 2) return (reader ? reader->getNext(p) : direct.getNext(p)).stringValue();
  std::map<std::string, WalkAction> answers;
  for (const char* s : {"10.0.0.0/8", "2001:db8::/32"}) answers[s] = skipSubtree;
  return reader ? walkText(*reader, p, answers) : walkText(direct, p, answers);
}

}  // namespace

// Readers ask consistent queries while a writer process applies thousands of
// updates to growing tables: every answer is the answer of some state
// between two of the writer's updates that lies within the query's time.
TEST(TrieProcesses, ConsistentReadersOnlySeeStatesBetweenUpdates) {
  Root root;
  const auto ops = history(2024, 8000);
  SharedCounters shared;
  trieWriterNew("S", root.options) = nullptr;
  std::vector<Child> readers;
  for (U32 id = 0; id < 2; ++id) {
    readers.emplace_back([&, id] {
      auto t = trieReaderNew("S", root.options);
      ConsistentReader reader(*t);
      auto replay = trieFactory("replay");
      size_t at = 0;
      PrefixGen gen(100 + id);
      shared->ready++;
      for (bool last = false; !last;) {
        const size_t first = shared->done.load();
        last = first == ops.size();
        const int kind = gen.rng() % 4;
        IpGenPrefix p = kind == 3 && gen.rng() % 3 == 0
                            ? (gen.rng() % 2 ? IpGenPrefix(rootPrefix) : IpGenPrefix(rootPrefix6))
                            : gen.hostInside(ops[gen.rng() % ops.size()].prefix);
        if (p == IpGenPrefix("0.0.0.0/32") || p == IpGenPrefix("::/128")) continue;
        const std::string got = answer(*t, &reader, kind, p);
        shared->answered++;
        const size_t lastState = std::min(shared->done.load() + 1, ops.size());
        bool matched = false;
        for (size_t s = std::max(first, at); s <= lastState && !matched; ++s) {
          for (; at < s; ++at)
            ops[at].insert ? replay->prefixIs(ops[at].prefix) : (void)replay->prefixDel(ops[at].prefix);
          matched = answer(*replay, nullptr, kind, p) == got;
        }
        if (!matched) {
          fmt::print(stderr, "reader {}: query {} {} answered '{}' outside states {}..{}\n", id, kind, p, got, first,
                     lastState);
          return 3;
        }
      }
      return checkTrie(*t).empty() ? 0 : 4;
    });
  }
  Child writer([&] {
    if (!eventually([&] { return shared->ready == 2; })) return 5;
    auto t = trieWriterNew("S", root.options);
    for (size_t i = 0; i < ops.size(); ++i) {
      ops[i].insert ? t->prefixIs(ops[i].prefix) : (void)t->prefixDel(ops[i].prefix);
      shared->done = i + 1;
      // Let the readers ask a question every few updates (while they live).
      const auto until = std::chrono::steady_clock::now() + std::chrono::seconds(10);
      for (U64 want = shared->answered + 2; i % 4 == 0 && shared->answered < want; sched_yield())
        if (std::chrono::steady_clock::now() > until) return 6;
    }
    return 0;
  });
  EXPECT_EQ(writer.wait(), 0);
  for (Child& r : readers) EXPECT_EQ(r.wait(), 0);
}

// A writer process killed with SIGKILL at random moments of a history: a
// reader, before any writer comes back, and the next writer find the same
// sound trie, holding the prefixes of the last operation that returned or of
// the one after it.
TEST(TrieProcesses, AKilledWriterLeavesTheStateOfItsLastOrNextOperation) {
  Root root;
  const auto ops = history(4711, 6000);
  SharedCounters shared;
  PrefixGen gen(99);
  trieWriterNew("C", root.options) = nullptr;
  size_t applied = 0;
  for (int round = 0; round < 60 && applied < ops.size(); ++round) {
    shared->done = applied;
    Child child([&] {
      auto t = trieWriterNew("C", root.options);
      // Record changes take a while, so that most kills land inside an update.
      ChangeLog slow(*t, [](const Kiln::Change&) { for (U32 n = 0; n < 5000; ++n) asm volatile(""); });
      for (size_t i = applied; i < ops.size(); ++i) {
        ops[i].insert ? t->prefixIs(ops[i].prefix) : (void)t->prefixDel(ops[i].prefix);
        shared->done = i + 1;
      }
      return 0;
    });
    const size_t target = applied + 1 + gen.rng() % 300;
    eventually([&] { return shared->done >= std::min(target, ops.size()); });
    for (U32 n = gen.rng() % 100000; n > 0; --n) asm volatile("");  // anywhere in the next few
    const int status = child.kill9();
    ASSERT_TRUE(status == 0 || status == 100 + SIGKILL) << status;
    const size_t returned = shared->done;
    auto r = trieReaderNew("C", root.options);
    const auto seen = stored(*r);
    ASSERT_EQ(checkTrie(*r), std::vector<std::string>()) << "kill " << round << " after " << returned;
    auto t = trieWriterNew("C", root.options);
    ASSERT_EQ(checkTrie(*t), std::vector<std::string>()) << "kill " << round << " after " << returned;
    Reference before, after;
    for (size_t i = 0; i < returned; ++i)
      ops[i].insert ? (void)before.insert(ops[i].prefix) : (void)before.erase(ops[i].prefix);
    after = before;
    if (returned < ops.size())
      ops[returned].insert ? (void)after.insert(ops[returned].prefix) : (void)after.erase(ops[returned].prefix);
    const auto now = stored(*t);
    ASSERT_TRUE(now == stored(before) || now == stored(after)) << "kill " << round << " after " << returned;
    ASSERT_EQ(seen, now) << "kill " << round << " after " << returned;
    applied = now == stored(before) ? returned : std::min(returned + 1, ops.size());
  }
}
