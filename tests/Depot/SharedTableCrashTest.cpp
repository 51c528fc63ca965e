// A writer killed at random moments of a seeded run of updates: the next
// writer must find the records of the last update that the killed one
// finished, or of the one after it (which may have finished without being
// counted), whatever it was doing: writing a slot, journaling, growing,
// shrinking, or itself recovering from an earlier kill.
#include <fmt/format.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>

#include <atomic>
#include <map>
#include <new>
#include <random>
#include <vector>

#include "SharedTableSupport.h"

using namespace depottest;

namespace {

constexpr int killCount = 40;
constexpr U32 keySpace = 700;

struct Op {
  enum Kind { write, remove, commit } kind;
  U32 key;
  U32 version;
};
// One update: bracketed when it has several changes, else a change of its own.
using Update = std::vector<Op>;
using State = std::map<U32, U32>;

// Seeded updates of 1 to 8 changes, sometimes to the same key twice. The
// table fills to the whole key space and empties again from the top keys
// down, over and over, so that updates grow it and shrink it on the way.
std::vector<Update> updatePlan(U32 seed, size_t count) {
  std::mt19937 rng(seed);
  std::vector<Update> plan;
  U32 version = 1;
  for (size_t u = 0; u < count; ++u) {
    const bool filling = (u / 300) % 2 == 0;
    const U32 span = filling ? std::min<U32>(keySpace, 20 + U32(u % 300) * 3) : keySpace - U32(u % 300) * 2;
    Update update(1 + rng() % 8);
    for (Op& op : update) {
      const U32 pick = rng() % 10;
      op.key = pick == 0 && &op != &update[0] ? (&op - 1)->key : rng() % span;
      op.version = version++;
      op.kind = pick < 6 ? Op::write : pick < 8 ? Op::commit : Op::remove;
      if (!filling && pick >= 6) {
        op.kind = Op::remove;
        op.key = span - 1 - rng() % 20;
      }
    }
    plan.push_back(std::move(update));
  }
  return plan;
}

void applyToModel(State& state, const Update& update) {
  for (const Op& op : update) {
    if (op.kind == Op::remove) state.erase(op.key);
    else if (op.kind == Op::write || state.count(op.key)) state[op.key] = op.version;
  }
}

// Calls step(i) before change i and, with i the number of changes, before
// the update ends.
void applyToTable(Depot::Table& t, const Update& update, const std::function<void(size_t)>& step) {
  const bool bracket = update.size() > 1;
  if (bracket) t.updateBegin();
  for (const Op& op : update) {
    step(&op - update.data());
    Rec r = makeRec<Rec>(op.key, op.version), key{}, removed;
    keyOf(op.key, key);
    switch (op.kind) {
      case Op::write: t.write(reinterpret_cast<const U8*>(&r)); break;
      case Op::remove: t.remove(key.key, reinterpret_cast<U8*>(&removed)); break;
      case Op::commit:
        if (U8* stored = t.inPlace(key.key)) {
          std::memcpy(stored, &r, sizeof r);
          t.commit(stored);
        }
        break;
    }
  }
  step(update.size());
  if (bracket) t.updateEnd();
}

// Every record, each whole and met once.
State tableContents(const Depot::Table& t, std::string& trouble) {
  State seen;
  Rec r;
  U64 hint;
  for (bool ok = t.iterFirst(hint, reinterpret_cast<U8*>(&r)); ok; ok = t.iterNext(hint, reinterpret_cast<U8*>(&r))) {
    if (!selfConsistent(r)) trouble = fmt::format("a torn record in slot {}", hint);
    if (!seen.emplace(keyNumber(r), versionOf(r)).second) trouble = fmt::format("key {} met twice", keyNumber(r));
  }
  return seen;
}

// The number of updates the child has finished, in memory it shares.
class SharedProgress {
 public:
  SharedProgress()
      : done_(new (mmap(nullptr, sizeof(std::atomic<U64>), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0))
                  std::atomic<U64>(0)) {}
  ~SharedProgress() { munmap(done_, sizeof *done_); }
  std::atomic<U64>& operator*() const { return *done_; }
  std::atomic<U64>* operator->() const { return done_; }

 private:
  std::atomic<U64>* done_;
};

volatile U32 spinSink;
void spin(U32 rounds) {
  for (; rounds > 0; --rounds) spinSink = rounds;
}

pid_t spawn(const std::function<int()>& fn) {
  pid_t pid = fork();
  if (pid == 0) _exit(fn());
  return pid;
}

TEST(SharedTableCrash, AKilledWriterLeavesTheRecordsOfItsLastOrNextUpdate) {
  TempRoot root;
  const std::string path = root / "T/trieNode";
  const std::vector<Update> plan = updatePlan(2024, 12000);
  const Depot::SharedTableOptions options{.capacity = 1, .maxEntries = keySpace, .mode = 0644};
  SharedProgress progress;
  std::mt19937 rng(7);
  Depot::SharedTable::writerNew(recLayout(), path, options);

  size_t applied = 0;  // updates the table holds
  State model;         // their records
  for (int round = 0; round < killCount && applied < plan.size(); ++round) {
    SCOPED_TRACE(fmt::format("kill {} with {} updates applied", round, applied));
    *progress = applied;
    // Even rounds: the writer kills itself before a change picked at random,
    // or once a change other than the first of its update has moved the
    // table to a new generation. Odd rounds: it is killed from outside at a
    // random moment, and every fourth time so is the writer that recovers.
    // The writer stops after 100 updates, so that it cannot run away from a
    // parent that is slow to kill it.
    const bool selfKill = round % 2 == 0, afterGrowth = round % 4 == 2;
    const U64 changes = 1 + rng() % 400;
    const size_t updates = std::min(plan.size(), applied + 100);
    pid_t child = spawn([&] {
      auto t = Depot::SharedTable::writerNew(recLayout(), path, options);
      U64 made = 0, generation = 0;
      for (size_t u = applied; u < updates; ++u) {
        applyToTable(*t, plan[u], [&](size_t op) {
          const U64 now = t->generation();
          if (afterGrowth ? op >= 2 && now != generation : selfKill && op < plan[u].size() && ++made == changes)
            raise(SIGKILL);
          generation = now;
        });
        progress->store(u + 1, std::memory_order_release);
      }
      if (updates == plan.size()) return 0;
      if (selfKill) raise(SIGKILL);
      pause();
      return 0;
    });
    int status = 0;
    bool ended = false;
    if (!selfKill) {
      const U64 target = applied + changes / 8;
      while (!ended && progress->load(std::memory_order_acquire) < target) {
        ended = waitpid(child, &status, WNOHANG) == child;
        spin(100);
      }
      spin(rng() % 20000);
      if (!ended) kill(child, SIGKILL);
    }
    if (!ended) waitpid(child, &status, 0);
    ASSERT_TRUE(WIFSIGNALED(status) || (WIFEXITED(status) && WEXITSTATUS(status) == 0)) << "status " << status;
    if (!selfKill && round % 4 == 1) {
      pid_t recovering = spawn([&] {
        Depot::SharedTable::writerNew(recLayout(), path, options);
        return 0;
      });
      spin(rng() % 200000);
      kill(recovering, SIGKILL);
      waitpid(recovering, &status, 0);
    }

    const size_t returned = progress->load();
    for (; applied < returned; ++applied) applyToModel(model, plan[applied]);
    State next = model;
    if (returned < plan.size()) applyToModel(next, plan[returned]);

    auto t = Depot::SharedTable::writerNew(recLayout(), path, options);
    std::string trouble;
    const State stored = tableContents(*t, trouble);
    EXPECT_EQ(trouble, "");
    EXPECT_EQ(t->corruptionCount(), 0u);
    EXPECT_EQ(t->updateCounter() % 2, 0u);
    EXPECT_EQ(t->occupancy(), stored.size());
    ASSERT_TRUE(stored == model || stored == next)
        << returned << " updates returned; the table holds " << stored.size() << " records, the last state "
        << model.size() << " and the next " << next.size();
    if (stored == next && stored != model) {
      model = next;
      ++applied;
    }
    // A reader sees the same records, each under its own key.
    auto reader = Depot::SharedTable::readerNew(recLayout(), path);
    Rec r, key{};
    for (const auto& [k, version] : model) {
      keyOf(k, key);
      ASSERT_TRUE(reader->find(key.key, reinterpret_cast<U8*>(&r))) << k;
      EXPECT_EQ(versionOf(r), version);
    }
  }
  EXPECT_GT(applied, 500u);
}

// An update that the table grows in the middle of, killed after that: the
// journal moved to the new generation, and the next writer undoes the whole
// update.
TEST(SharedTableCrash, AnUpdateCutShortAfterTheTableGrewIsUndone) {
  TempRoot root;
  const std::string path = root / "T/trieNode";
  const Depot::SharedTableOptions options{.capacity = 1, .maxEntries = (U64(1) << 31) - 1, .mode = 0644};
  State before;
  {
    auto t = Depot::SharedTable::writerNew(recLayout(), path, options);
    for (U32 k = 0; k < 20; ++k) {
      applyToTable(*t, {{Op::write, k, k + 1}}, [](size_t) {});
      before[k] = k + 1;
    }
  }
  int status = inChild([&] {
    auto t = Depot::SharedTable::writerNew(recLayout(), path, options);
    const U64 generation = t->generation();
    t->updateBegin();
    Rec key{}, removed;
    keyOf(3, key);
    t->remove(key.key, reinterpret_cast<U8*>(&removed));
    for (U32 k = 4; k < 9; ++k) {
      Rec r = makeRec<Rec>(k, 1000 + k);
      t->write(reinterpret_cast<const U8*>(&r));
    }
    for (U32 k = 1000; t->generation() == generation; ++k) {
      if (k == 1020) return 1;
      Rec r = makeRec<Rec>(k, 1);
      t->write(reinterpret_cast<const U8*>(&r));
    }
    Rec r = makeRec<Rec>(12, 2000);
    t->write(reinterpret_cast<const U8*>(&r));
    keyOf(0, key);
    t->remove(key.key, reinterpret_cast<U8*>(&removed));
    raise(SIGKILL);
    return 2;
  });
  ASSERT_EQ(status, 100 + SIGKILL);
  auto t = Depot::SharedTable::writerNew(recLayout(), path, options);
  std::string trouble;
  EXPECT_EQ(tableContents(*t, trouble), before);
  EXPECT_EQ(trouble, "");
  EXPECT_EQ(t->occupancy(), before.size());
  EXPECT_EQ(t->updateCounter() % 2, 0u);
}

}  // namespace
