// A route table and its trie in shared tables: writer and reader mounts,
// one update per mutation, consistent reads, failures at every point of a
// load, and real processes that write, read and are killed while they do.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sched.h>

#include <filesystem>

#include "Depot/SharedTable.h"
#include "Depot/FaultInjection.h"
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
  depottrie::Options table{.root = path};
};

}  // namespace

// A table by name (its answers, a reader's, refusals and reopening are
// checked by the model, process and Python tests): its files keep their mode
// through growth; sized up front it does not grow; a local trie mounted on
// it answers from it; drop removes it but not under a writer; its name is a
// plain path under the root.
TEST(RouteTableMount, ModeSizingMountingAndDrop) {
  Root root;
  root.table.mode = 0600;
  RouteTable writer = RouteTable::openWriter("T", root.table);
  RouteTable reader = RouteTable::openReader("T", root.table);
  EXPECT_THROW(RouteTable::drop("T", root.table), depottrie::Error);
  const auto ops = history(3, 6000);
  for (size_t i = 0; i < ops.size(); ++i)
    ops[i].insert ? (void)writer.insert(front(ops[i].prefix), i) : (void)writer.erase(front(ops[i].prefix));
  EXPECT_GT(dynamic_cast<const Depot::SharedTable&>(Access::trie(writer).trieNodeMap().table()).generation(), 1u);
  for (const char* file : {"T/trieNode6", "T/value"})  // every generation keeps the mode
    EXPECT_EQ(std::filesystem::status(root.file(file)).permissions(), std::filesystem::perms(0600)) << file;
  // Sized up front, a table takes a load of that size without growing.
  depottrie::Options sized = root.table;
  sized.ipv4Capacity = sized.ipv6Capacity = ops.size();
  RouteTable s = RouteTable::openWriter("S", sized);
  for (const Op& op : ops) s.insert(front(op.prefix));
  for (const Depot::Table* t : {&Access::trie(s).trieNodeMap().table(), &Access::trie(s).trieNode6Map().table()})
    EXPECT_EQ(dynamic_cast<const Depot::SharedTable&>(*t).generation(), 1u);
  sized.ipv6Capacity = U64(1) << 40;  // more than a table holds: refused, nothing created
  EXPECT_TRUE(testing::Value([&] { RouteTable::openWriter("X", sized); }, testing::Throws<depottrie::Error>()) && !RouteTable::exists("X", root.table));
  for (const char* bad : {"", "/T", "..", "../T", "T/../../x", "T//U", "T/./U", "."})  // names stay plain paths under the root
    EXPECT_THROW(RouteTable::openWriter(bad, root.table), depottrie::Error) << bad;
  for (unsigned mode : {0u, 0400u, 01644u}) EXPECT_THROW(RouteTable::openWriter("M", {.root = root.path, .mode = mode}), depottrie::Error) << mode;
  // A trie that answered from its local table answers from the shared one
  // once mounted, even where both tables' update counters read the same.
  auto local = trieFactory("T");
  const IpGenPrefix host("10.1.2.3"), local8("10.0.0.0/8");
  writer.insert("10.1.2.0/23", 1);
  for (U32 k = 0; local->trieNodeMap().updateCounter() != Access::trie(writer).trieNodeMap().updateCounter(); ++k)
    local->prefixIs(IpGenPrefix(fmt::format("192.0.{}.{}", k / 256 % 256, k % 256)));
  local->prefixIs(local8), writer.insert(front(local8), 8);
  ASSERT_EQ(local->longestMatch(host), local8);
  ASSERT_NE(reader.lookup(front(host))->prefix, front(local8));
  KilnDepot::mountReader(local->trieNodeMap(), root.path);
  EXPECT_EQ(front(local->longestMatch(host)), reader.lookup(front(host))->prefix);
  writer = RouteTable::openReader("T", root.table);
  // A value cache that cannot be read: readers leave it aside, the next writer makes it again.
  const std::optional<depottrie::Route> before = reader.lookup("10.1.2.3");
  std::filesystem::resize_file(root.file("T/valuecache"), 8192);
  for (bool write : {false, true, false})
    EXPECT_EQ((write ? RouteTable::openWriter : RouteTable::openReader)("T", root.table).lookup("10.1.2.3"), before);
  RouteTable::drop("T", root.table);
  EXPECT_FALSE(RouteTable::exists("T", root.table));
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
    EXPECT_TRUE(step[0] == '+' ? (t->prefixIs(p), true) : t->prefixDel(p));
    EXPECT_THAT(seen, testing::AllOf(testing::SizeIs(testing::Ge(3u)), testing::Each(before + 1))) << step;
    EXPECT_EQ(std::pair(own.updateCounter(), other.updateCounter()), std::pair(before + 2, otherBefore)) << step;
  }
}

// A live writer that keeps an update open is reported as stuck, in its
// family only (one that died mid-update is read around: the kill tests).
TEST(ConsistentRead, AWriterStuckMidUpdateIsReported) {
  Root root;
  auto w = trieWriterNew("T", root.options);
  for (const char* p : {"10.0.0.0/8", "2001:db8::/32"}) w->prefixIs(IpGenPrefix(p));
  auto r = trieReaderNew("T", root.options);
  ConsistentReader reader(*r, {.stuckAfterMs = 50});
  w->trieNodeMap().updateBegin();
  EXPECT_THAT([&] { reader.lpm(IpGenPrefix("10.1.2.3")); },
              testing::ThrowsMessage<ConsistentReadException>(HasSubstr("trie T: the writer of T/trieNode appears stuck mid-update")));
  EXPECT_EQ(reader.lpm(IpGenPrefix("2001:db8::1")), IpGenPrefix("2001:db8::/32"));  // the other family goes on
  w->trieNodeMap().updateEnd();
  EXPECT_EQ(reader.lpm(IpGenPrefix("10.1.2.3")), IpGenPrefix("10.0.0.0/8"));
}

namespace {

// What a query answers through a reader, or by the model, as text of routes:
// a single and a batched longest match, the next route, the covering ones,
// and those inside p's first 16 (IPv4) or 40 (IPv6) bits.
std::string answer(const RouteTable* t, const Model& m, int kind, const IpGenPrefix& p) {
  std::vector<std::optional<Route>> got(1);
  const IpGenPrefix wide = cut(p, std::min(p.len(), p.af() == Addrkit::AddressFamily::ipv4 ? 16u : 40u));
  const Prefix q = front(p);
  if (kind == 1 && t) t->lookup(std::span(&q, 1), got);
  std::vector<Route> routes;
  if (kind == 0 || kind == 1) got[0] = t ? (kind ? got[0] : t->lookup(q)) : m.routeIf(m.ref.longestMatch(p));
  if (kind == 2) got[0] = t ? t->next(q) : m.routeIf(m.ref.next(p));
  if (kind == 3) routes = t ? t->covering(q) : m.routes(m.ref.covering(p));
  if (kind == 4) routes = t ? t->covered(front(wide)) : m.routes(m.ref.covered(wide));
  if (got[0]) routes.push_back(*got[0]);
  std::string text;
  for (const Route& r : routes) text += fmt::format("{}={} ", r.prefix.toString(), r.value);
  return text;
}

}  // namespace

// Readers ask consistent queries while a writer process applies thousands of
// changes with values to growing tables: every answer, prefixes and values,
// is the answer of some state between two of the writer's changes that lies
// within the query's time; and the change feed replays to the final state.
TEST(RouteTableProcesses, ConsistentReadersOnlySeeStatesBetweenChanges) {
  Root root;
  root.table.changeFeedEntries = 64;
  const auto ops = history(2024, 8000);
  SharedCounters shared;
  RouteTable::openWriter("S", root.table);
  std::vector<Child> readers;
  for (U32 id = 0; id < 2; ++id) {
    readers.emplace_back([&, id] {
      RouteTable t = RouteTable::openReader("S", root.table);
      Model replay;
      size_t at = 0;
      PrefixGen gen(100 + id);
      shared->ready++;
      for (bool last = false; !last;) {
        const size_t first = shared->done.load();
        last = first == ops.size();
        const int kind = gen.rng() % 5;
        const IpGenPrefix p = kind == 2 && gen.rng() % 3 == 0 ? IpGenPrefix(gen.rng() % 2 ? "0.0.0.0/0" : "::/0")
                                                              : gen.hostInside(ops[gen.rng() % ops.size()].prefix);
        const std::string got = answer(&t, replay, kind, p);
        shared->answered++;
        const size_t lastState = std::min(shared->done.load() + 1, ops.size());
        bool matched = false;
        for (size_t s = std::max(first, at); s <= lastState && !matched; ++s) {
          for (; at < s; ++at) replay.apply(ops[at].prefix, ops[at].insert, at);
          matched = answer(nullptr, replay, kind, p) == got;
        }
        if (!matched) {
          fmt::print(stderr, "reader {}: query {} {} answered '{}' outside states {}..{}\n", id, kind, p, got, first,
                     lastState);
          return 3;
        }
      }
      return checkTrie(Access::trie(t)).empty() ? 0 : 4;
    });
  }
  Child writer([&] {
    if (!eventually([&] { return shared->ready == 2; })) return 5;
    RouteTable t = RouteTable::openWriter("S", root.table);
    for (size_t i = 0; i < ops.size(); ++i) {
      ops[i].insert ? (void)t.insert(front(ops[i].prefix), i) : (void)t.erase(front(ops[i].prefix));
      shared->done = i + 1;
      // Let the readers ask a question every few changes (while they live).
      const auto until = std::chrono::steady_clock::now() + std::chrono::seconds(10);
      for (U64 want = shared->answered + 2; i % 4 == 0 && shared->answered < want; sched_yield())
        if (std::chrono::steady_clock::now() > until) return 6;
    }
    return 0;
  });
  // Meanwhile this process follows the change feed, a ring too small to keep
  // up with: replayed, with the table listed afresh whenever changes were
  // lost, it ends where the writer did.
  const RouteTable follower = RouteTable::openReader("S", root.table);
  depottrie::ChangeFeed feed(follower);
  auto listing = [&] { std::map<Prefix, std::uint64_t> m; for (const Route& r : follower) m[r.prefix] = r.value; return m; };
  std::map<Prefix, std::uint64_t> seen;
  for (U64 polls = 0, quiet = 0; quiet < 2; ++polls) {
    const bool finished = shared->done == ops.size();
    const depottrie::ChangeFeed::Changes got = feed.poll();
    if (got.lost) seen = listing();
    for (const depottrie::Change& c : got.changes)
      c.kind == depottrie::Change::Kind::removed ? (void)seen.erase(c.route.prefix) : (void)(seen[c.route.prefix] = c.route.value);
    quiet = finished && got.changes.empty() ? quiet + 1 : 0;
    std::this_thread::sleep_for(std::chrono::milliseconds(polls % 10 ? 1 : 100));
  }
  EXPECT_EQ(writer.wait(), 0);
  for (Child& r : readers) EXPECT_EQ(r.wait(), 0);
  EXPECT_EQ(seen, listing());
}

// Each space reservation, mapping, allocation and file operation of a load
// with growth fails in turn, once (space returns) or from then on (the disk
// stays full for a while): the failed insertion leaves no trace in the trie
// or the values, the writer goes on, and a reader and the next writer find
// the acknowledged routes (a failure in the value cache fails none).
TEST(RouteTableFailures, AFailureAtAnyPointOfALoadWithGrowthLosesNothing) {
  PrefixGen gen(5);
  std::vector<IpGenPrefix> load(8000);
  for (size_t i = 0; i < load.size(); ++i) load[i] = gen.prefix(i % 3 == 0);
  U64 n = 1;
  for (bool reached = true; reached; ++n) {
    Root root;
    RouteTable writer = RouteTable::openWriter("T", root.table);
    const RouteTable reader = RouteTable::openReader("T", root.table);
    Model m;
    const U64 pointsBefore = Depot::failurePointsReached();
    Depot::injectFailureAt(n, n % 4 == 0);
    for (size_t i = 0, offAt = load.size(), failed = false; i < load.size(); ++i) {
      if (i == offAt) Depot::injectFailureAt(0);
      try {
        writer.insert(front(load[i]), i);
        m.apply(load[i], true, i);
        continue;
      } catch (const std::exception& e) {  // depottrie::Error, or std::bad_alloc
        EXPECT_THAT(e.what(), testing::ContainsRegex("space|memory|map|alloc|generation")) << n;
      }
      if (failed) continue;
      failed = true, offAt = i + 40;
      Depot::injectFailureAt(0);
      ASSERT_EQ(std::pair(std::vector<Route>(reader.begin(), reader.end()), checkTrie(Access::trie(writer))),
                std::pair(m.all(), std::vector<std::string>())) << "failure point " << n;
      Depot::injectFailureAt(n % 4 == 0 ? 1 : 0, true);  // every fourth time the disk stays full a while
    }
    Depot::injectFailureAt(0);
    reached = Depot::failurePointsReached() - pointsBefore >= n;
    writer = RouteTable::openReader("T", root.table);
    writer = RouteTable::openWriter("T", root.table);
    ASSERT_EQ(std::tuple(std::vector<Route>(writer.begin(), writer.end()), writer.size(), std::vector<Route>(reader.begin(), reader.end())), std::tuple(m.all(), m.ref.size(), m.all())) << n;
  }
  EXPECT_GT(n, 20u);  // the load met that many points
}

// A writer process killed with SIGKILL at random moments of a history with
// values: a reader, before any writer comes back, and the next writer find
// the same sound trie, holding the routes (values included) of the last
// operation that returned or of the one after it.
TEST(RouteTableProcesses, AKilledWriterLeavesTheStateOfItsLastOrNextOperation) {
  Root root;
  const depottrie::Options& options = root.table;
  const auto ops = history(4711, 6000);
  SharedCounters shared;
  PrefixGen gen(99);
  RouteTable::openWriter("C", options);
  auto valueOf = [](size_t i) { return std::uint64_t(i) * 0x9E3779B97F4A7C15ull; };
  size_t applied = 0;
  for (int round = 0; round < 60 && applied < ops.size(); ++round) {
    shared->done = applied;
    Child child([&] {
      RouteTable t = RouteTable::openWriter("C", options);
      // Record changes take a while, so that most kills land inside an update.
      ChangeLog slow(Access::trie(t), [](const Kiln::Change&) { for (U32 n = 0; n < 5000; ++n) asm volatile(""); });
      for (size_t i = applied; i < ops.size(); ++i) {
        ops[i].insert ? (void)t.insert(front(ops[i].prefix), valueOf(i)) : (void)t.erase(front(ops[i].prefix));
        shared->done = i + 1;
      }
      return 0;
    });
    eventually([&, target = applied + 1 + gen.rng() % 300] { return shared->done >= std::min(target, ops.size()); });
    for (U32 n = gen.rng() % 100000; n > 0; --n) asm volatile("");  // anywhere in the next few
    const int status = child.kill9();
    ASSERT_TRUE(status == 0 || status == 100 + SIGKILL) << status;
    const size_t returned = shared->done;
    RouteTable r = RouteTable::openReader("C", options);
    const std::vector<Route> seen(r.begin(), r.end());
    ASSERT_EQ(checkTrie(Access::trie(r)), std::vector<std::string>()) << "kill " << round << " after " << returned;
    RouteTable t = RouteTable::openWriter("C", options);
    Model before;
    for (size_t i = 0; i < returned; ++i) before.apply(ops[i].prefix, ops[i].insert, valueOf(i));
    Model after = before;
    if (returned < ops.size()) after.apply(ops[returned].prefix, ops[returned].insert, valueOf(returned));
    const std::vector<Route> now(t.begin(), t.end());
    ASSERT_TRUE(now == before.all() || now == after.all()) << "kill " << round << " after " << returned;
    ASSERT_EQ(std::pair(seen, t.size()), std::pair(now, now.size())) << "kill " << round << " after " << returned;
    applied = now == before.all() ? returned : std::min(returned + 1, ops.size());
  }
}
