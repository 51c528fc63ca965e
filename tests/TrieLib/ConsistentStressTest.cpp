// A writer process applies thousands of seeded insertions and deletions of
// both families to a shared trie (its tables grow) while reader processes
// ask consistent queries all along. Every answer must be the answer of a
// state between two of the writer's operations, one that lies within the
// time the query took; at the end every reader sees exactly the writer's set.
#include <gtest/gtest.h>
#include <sched.h>

#include <cstdio>
#include <map>
#include <random>

#include "TrieLib/ConsistentRead.h"
#include "TrieLib/TrieCheck.h"
#include "TrieProcessSupport.h"

using namespace Routing::Lattice;
using namespace trietest;
using Addrkit::Ip6Address;
using Addrkit::Ip6Prefix;
using Addrkit::Prefix;

namespace {

constexpr size_t opCount = 12000;
constexpr U32 readerCount = 3;
constexpr U64 maxQueries = 20'000'000;
// The pace of the run: the writer waits for every reader to answer a query
// after this many updates, and a reader waits for the next update after
// this many queries.
constexpr size_t updatesPerQuery = 2;
constexpr U32 queriesPerUpdate = 4;

// Answers skipSubtree or abortWalk for some prefixes, by a hash of the
// prefix and the query, and keeps what it was given.
class ScriptedWalk : public TrieWalkCallback {
 public:
  explicit ScriptedWalk(U64 nonce) : nonce_(nonce) {}
  WalkAction handleWalkCallback(const IpGenPrefix& p) override {
    const std::string text = p.stringValue();
    seen += text;
    seen += ' ';
    const U64 h = std::hash<std::string>()(text) ^ nonce_;
    if (h % 211 == 0) return abortWalk;
    return h % 13 == 0 ? skipSubtree : continueWalk;
  }
  std::string seen;

 private:
  U64 nonce_;
};

enum class Kind { lpm, longestMatch, getNext, walk };

struct Query {
  Kind kind;
  IpGenPrefix prefix;
  U64 nonce;
};

std::string describe(const Query& q) {
  static const char* names[] = {"lpm", "longestMatch", "getNext", "walk"};
  return fmt::format("{} {} (nonce {})", names[int(q.kind)], q.prefix, q.nonce);
}

// A prefix that p covers: p itself or a longer one inside it.
IpGenPrefix inside(const IpGenPrefix& p, std::mt19937& rng) {
  if (p.af() == Addrkit::AddressFamily::ipv4) {
    const U32 len = p.len() + rng() % (33 - p.len());
    const U32 host = p.v4().addrHost() | (U32(rng()) & U32(0xFFFFFFFFull >> p.len()));
    return Prefix::masked(host, len);
  }
  Ip6Address a = p.v6().address();
  for (U32 k = 0; k < 4; ++k) {
    const U32 fixed = std::min(std::max(p.len(), 32 * k) - 32 * k, 32u);
    a.wordIs(k, a.word(k) | (U32(rng()) & (fixed == 32 ? 0u : 0xFFFFFFFFu >> fixed)));
  }
  return Ip6Prefix::masked(a, p.len() + rng() % (129 - p.len()));
}

Query randomQuery(const std::vector<TrieOp>& ops, std::mt19937& rng) {
  const U32 roll = rng() % 100;
  const Kind kind = roll < 35 ? Kind::lpm : roll < 55 ? Kind::longestMatch : roll < 80 ? Kind::getNext : Kind::walk;
  IpGenPrefix p = inside(ops[rng() % ops.size()].prefix, rng);
  if (kind == Kind::getNext && rng() % 20 == 0) p = rng() % 2 ? IpGenPrefix(nullPrefix) : IpGenPrefix(nullPrefix6);
  if (kind == Kind::walk && rng() % 3 == 0)
    p = p.af() == Addrkit::AddressFamily::ipv4 ? IpGenPrefix(rootPrefix) : IpGenPrefix(rootPrefix6);
  // Neither default route's storage key is a question anybody may ask.
  if (p == IpGenPrefix(prefix032) || p == IpGenPrefix(prefix0128)) p = IpGenPrefix(nullPrefix);
  return {kind, p, rng()};
}

// Where an answer (prefixes separated by spaces) first departs from the
// answer of the last state it may reflect.
std::string difference(const std::string& got, const std::string& want) {
  size_t at = 0;
  while (at < got.size() && at < want.size() && got[at] == want[at]) ++at;
  const size_t from = got.rfind(' ', at == 0 ? 0 : at - 1);
  const size_t start = from == std::string::npos ? 0 : from + 1;
  return fmt::format("answered '{}' where the last state answers '{}' (from character {})", got.substr(start, 60),
                     want.substr(start, 60), start);
}

std::string consistentAnswer(ConsistentReader& reader, const Query& q) {
  switch (q.kind) {
    case Kind::lpm: return reader.lpm(q.prefix).stringValue();
    case Kind::longestMatch: return reader.longestMatch(q.prefix).stringValue();
    case Kind::getNext: return reader.getNext(q.prefix).stringValue();
    case Kind::walk: break;
  }
  Basis::Ptr<ScriptedWalk> walk(new ScriptedWalk(q.nonce));
  reader.preOrderWalk(walk, q.prefix);
  return walk->seen;
}

std::string directAnswer(const Trie& t, const Query& q) {
  switch (q.kind) {
    case Kind::lpm: return t.lpm(q.prefix).stringValue();
    case Kind::longestMatch: return t.longestMatch(q.prefix).stringValue();
    case Kind::getNext: return t.getNext(q.prefix).stringValue();
    case Kind::walk: break;
  }
  Basis::Ptr<ScriptedWalk> walk(new ScriptedWalk(q.nonce));
  t.preOrderWalk(walk, q.prefix);
  return walk->seen;
}

// The reader's own trie, replaying the writer's operations: it answers as
// the shared trie must in the state after `at()` operations.
class Replay {
 public:
  explicit Replay(const std::vector<TrieOp>& ops) : ops_(ops), trie_(trieFactory("replay")) {}
  void advanceTo(size_t n) {
    while (at_ < n) apply(*trie_, ops_[at_++]);
  }
  size_t at() const { return at_; }
  const Trie& trie() const { return *trie_; }

 private:
  const std::vector<TrieOp>& ops_;
  Basis::Ptr<Trie> trie_;
  size_t at_ = 0;
};

int readerMain(const std::vector<TrieOp>& ops, const TempRoot& root, SharedCounters& shared, U32 id) {
  Basis::Ptr<Trie> t = trieReaderNew("S", root.options);
  ConsistentReader reader(*t);
  Replay replay(ops);
  std::mt19937 rng(1000 + id);
  shared.ready.fetch_add(1);
  U64 repeated = 0, queries = 0;
  size_t paceDone = 0;
  U32 paced = 0;
  for (bool last = false; !last; ++queries) {
    if (queries == maxQueries) return 10;
    // Operations [0, first) had returned before the query began; when it
    // ended, operation `done` may have finished without being counted yet.
    const size_t first = shared.done.load(std::memory_order_acquire);
    last = first == ops.size();
    const Query q = randomQuery(ops, rng);
    const std::string got = consistentAnswer(reader, q);
    shared.answered[id].fetch_add(1, std::memory_order_relaxed);
    repeated += reader.lastRuns() - 1;
    const size_t done = shared.done.load(std::memory_order_acquire);
    const size_t lastState = std::min(done + 1, ops.size());
    // The earliest state that answers so; later queries cannot read an
    // earlier one.
    bool matched = false;
    for (size_t s = std::max(first, replay.at()); s <= lastState && !matched; ++s) {
      replay.advanceTo(s);
      matched = directAnswer(replay.trie(), q) == got;
    }
    if (!matched) {
      replay.advanceTo(lastState);
      fmt::print(stderr, "reader {}: {} between operations {} and {}: {}\n", id, describe(q), first, lastState,
                 difference(got, directAnswer(replay.trie(), q)));
      return 3;
    }
    if (done != paceDone) {
      paceDone = done;
      paced = 0;
    } else if (++paced >= queriesPerUpdate && !last) {
      while (shared.done.load(std::memory_order_acquire) == done && shared.failed.load() == 0) sched_yield();
    }
    if (shared.failed.load() != 0) return 11;
  }
  replay.advanceTo(ops.size());
  Basis::Ptr<Collector> all(new Collector);
  reader.preOrderWalk(all, IpGenPrefix(rootPrefix));
  reader.preOrderWalk(all, IpGenPrefix(rootPrefix6));
  std::set<std::string> enumerated;
  for (IpGenPrefix start : {IpGenPrefix(nullPrefix), IpGenPrefix(nullPrefix6)})
    for (IpGenPrefix p = reader.getNext(start); !p.isEmpty(); p = reader.getNext(p)) enumerated.insert(p.stringValue());
  const std::set<std::string> want = storedAfter(ops, ops.size());
  if (std::set<std::string>(all->seen.begin(), all->seen.end()) != want || all->seen.size() != want.size()) return 4;
  if (enumerated != want) return 5;
  if (!checkTrie(*t).empty()) return 6;
  fmt::print("reader {}: {} queries, {} runs repeated after an overlapping update\n", id, queries, repeated);
  std::fflush(stdout);
  return 0;
}

TEST(ConsistentReadProcesses, ReadersOnlySeeStatesBetweenTheWritersUpdates) {
  TempRoot root;
  const std::vector<TrieOp> ops = opSequence(2024, opCount);
  SharedCountersFile shared(root.file("counters"));
  trieWriterNew("S", root.options) = nullptr;

  std::map<pid_t, std::string> processes;
  for (U32 id = 0; id < readerCount; ++id) {
    processes[spawn([&, id] { return readerMain(ops, root, *shared, id); })] = fmt::format("reader {}", id);
  }
  pid_t writer = spawn([&] {
    while (shared->ready.load() + shared->failed.load() < readerCount) sched_yield();
    Basis::Ptr<Trie> t = trieWriterNew("S", root.options);
    const U64 firstCapacity = t->trieNodeMap().table().capacity();
    U64 largest = firstCapacity;
    U64 answered[readerCount] = {};
    for (size_t i = 0; i < ops.size(); ++i) {
      apply(*t, ops[i]);
      shared->done.store(i + 1, std::memory_order_release);
      largest = std::max(largest, t->trieNodeMap().table().capacity());
      // Every few updates each reader has answered another query: the
      // readers replay and check every update, so they are slower than the
      // writer and would otherwise only see its last states.
      if ((i + 1) % updatesPerQuery != 0 || i + 1 == ops.size()) continue;
      for (U32 r = 0; r < readerCount; ++r) {
        while (shared->answered[r].load(std::memory_order_relaxed) == answered[r] && shared->failed.load() == 0)
          sched_yield();
        answered[r] = shared->answered[r].load(std::memory_order_relaxed);
      }
    }
    return largest > firstCapacity ? 0 : 3;
  });
  processes[writer] = "writer (3: its IPv4 table never grew)";
  // A process that fails releases the others from waiting for it.
  while (!processes.empty()) {
    int status = 0;
    const pid_t pid = wait(&status);
    ASSERT_GT(pid, 0);
    const int code = WIFEXITED(status) ? WEXITSTATUS(status) : 100 + WTERMSIG(status);
    if (code != 0) shared->failed.fetch_add(1);
    EXPECT_EQ(code, 0) << processes[pid];
    processes.erase(pid);
  }
}

}  // namespace
