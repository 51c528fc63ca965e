// Shared tables across real processes: readers reading while a writer
// writes, grows and reopens, and processes that die on the spot.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>

#include <map>
#include <random>
#include <vector>

#include "SharedTableSupport.h"

using namespace depottest;

namespace {

constexpr U32 keyCount = 3000;
constexpr U32 doneKey = keyCount + 1;  // written last
constexpr U32 hotKeys = 32;            // where half of the work goes, so that reads meet writes
constexpr U32 stableFrom = 16;         // keys from here on are never removed once written

U32 pickKey(std::mt19937& rng) { return rng() % (rng() % 2 ? hotKeys : keyCount); }

// The writer's deterministic work: insert every key (the table grows from
// its smallest size), then a mix of overwrites, removals, re-inserts and
// in-place commits. Returns key -> version of the final contents; with a
// table it also carries the work out.
std::map<U32, U32> writerWork(Depot::Table* t) {
  std::map<U32, U32> model;
  auto put = [&](U32 k, U32 v) {
    model[k] = v;
    if (!t) return;
    Rec r = makeRec<Rec>(k, v);
    t->write(reinterpret_cast<const U8*>(&r));
  };
  for (U32 k = 0; k < keyCount; ++k) put(k, 1);
  std::mt19937 rng(7);
  for (U32 i = 2; i < 150000; ++i) {
    U32 k = pickKey(rng);
    switch (rng() % 8) {
      case 0:
      case 1: {
        if (k >= stableFrom) break;
        model.erase(k);
        if (!t) break;
        Rec key{}, removed;
        keyOf(k, key);
        t->remove(key.key, reinterpret_cast<U8*>(&removed));
        break;
      }
      case 2: {
        if (!model.count(k)) break;
        model[k] = i;
        if (!t) break;
        Rec key{};
        keyOf(k, key);
        U8* stored = t->inPlace(key.key);
        Rec changed = makeRec<Rec>(k, i);
        std::memcpy(stored, &changed, sizeof changed);
        t->commit(stored);
        break;
      }
      default: put(k, i);
    }
  }
  return model;
}

// A reader's checks, from before the writer starts until it has finished:
// every record it reads is whole (its bytes follow from its key and
// version) and belongs to the key it asked for, and a key that is never
// removed never goes missing once seen. (An iteration is no snapshot: a key
// removed and re-inserted behind it may show up twice.)
int readerWork(const std::string& path, U32 seed, int readyFd) {
  std::unique_ptr<Depot::SharedTable> t;
  try {
    t = Depot::SharedTable::readerNew(recLayout(), path);
  } catch (const std::exception&) {
    return 2;
  }
  char one = 1;
  if (write(readyFd, &one, 1) != 1) return 3;
  std::mt19937 rng(seed);
  Rec done{};
  keyOf(doneKey, done);
  std::vector<bool> seen(keyCount);
  for (U32 i = 0; i < 20'000'000; ++i) {
    Rec key{}, r;
    U32 k = pickKey(rng);
    keyOf(k, key);
    if (t->find(key.key, reinterpret_cast<U8*>(&r))) {
      if (!selfConsistent(r) || keyNumber(r) != k) return 4;
      seen[k] = true;
    } else if (seen[k] && k >= stableFrom) {
      return 7;
    }
    if (i % 256 == 0 && t->find(done.key, reinterpret_cast<U8*>(&r))) return 0;
    if (i % 20000 == 0) {
      U64 hint;
      for (bool ok = t->iterFirst(hint, reinterpret_cast<U8*>(&r)); ok; ok = t->iterNext(hint, reinterpret_cast<U8*>(&r)))
        if (!selfConsistent(r) || keyNumber(r) > doneKey) return 5;
    }
  }
  return 6;
}

TEST(SharedTableProcesses, ReadersNeverSeeATornRecordWhileTheWriterWorks) {
  TempRoot root;
  std::string path = root / "T/trieNode";
  Depot::SharedTable::writerNew(recLayout(), path, {.capacity = 1});

  int ready[2];
  ASSERT_EQ(pipe(ready), 0);
  std::vector<pid_t> readers;
  for (U32 n = 0; n < 3; ++n) {
    pid_t pid = fork();
    if (pid == 0) _exit(readerWork(path, n, ready[1]));
    readers.push_back(pid);
  }
  pid_t writer = fork();
  if (writer == 0) {
    char c;
    for (size_t n = 0; n < 3; ++n)
      if (read(ready[0], &c, 1) != 1) _exit(2);
    auto t = Depot::SharedTable::writerNew(recLayout(), path, {.capacity = 1});
    writerWork(t.get());
    Rec r = makeRec<Rec>(doneKey, 1);
    t->write(reinterpret_cast<const U8*>(&r));
    _exit(0);
  }

  auto statusOf = [](pid_t pid) {
    int status = 0;
    waitpid(pid, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : 100 + WTERMSIG(status);
  };
  EXPECT_EQ(statusOf(writer), 0);
  for (pid_t pid : readers) EXPECT_EQ(statusOf(pid), 0) << "reader " << pid;
  close(ready[0]);
  close(ready[1]);

  // Afterwards a reader sees exactly the writer's records.
  auto t = Depot::SharedTable::readerNew(recLayout(), path);
  std::map<U32, U32> expected = writerWork(nullptr), seen;
  expected[doneKey] = 1;
  Rec r;
  U64 hint;
  for (bool ok = t->iterFirst(hint, reinterpret_cast<U8*>(&r)); ok; ok = t->iterNext(hint, reinterpret_cast<U8*>(&r))) {
    EXPECT_TRUE(selfConsistent(r));
    seen[keyNumber(r)] = versionOf(r);
  }
  EXPECT_EQ(seen, expected);
  EXPECT_EQ(t->occupancy(), expected.size());
  EXPECT_GT(t->generation(), 3u);
}

// A nearly full index has long probe sequences, and every removal shifts
// entries along them: readers looking up keys that stay must find them
// every time, also while their entries move.
TEST(SharedTableProcesses, KeysThatStayAreNeverMissedWhileOthersChurn) {
  TempRoot root;
  std::string path = root / "T/trieNode";
  constexpr U32 stay = 24, churn = 24, done = 1000;
  {
    auto t = Depot::SharedTable::writerNew(recLayout(), path, {.capacity = 52, .maxEntries = 52});
    for (U32 k = 0; k < stay + churn; ++k) {
      Rec r = makeRec<Rec>(k, 1);
      t->write(reinterpret_cast<const U8*>(&r));
    }
  }
  int ready[2];
  ASSERT_EQ(pipe(ready), 0);
  std::vector<pid_t> children;
  for (U32 n = 0; n < 2; ++n) {
    pid_t pid = fork();
    if (pid == 0) {
      auto t = Depot::SharedTable::readerNew(recLayout(), path);
      char one = 1;
      if (write(ready[1], &one, 1) != 1) _exit(2);
      Rec key{}, r;
      for (U32 i = 0; i < 50'000'000; ++i) {
        keyOf(i % 256 == 0 ? done : i % stay, key);
        bool found = t->find(key.key, reinterpret_cast<U8*>(&r));
        if (i % 256 == 0 && found) _exit(0);
        if (i % 256 != 0 && (!found || !selfConsistent(r))) _exit(3);
      }
      _exit(4);
    }
    children.push_back(pid);
  }
  pid_t writer = fork();
  if (writer == 0) {
    char c;
    for (int n = 0; n < 2; ++n)
      if (read(ready[0], &c, 1) != 1) _exit(2);
    auto t = Depot::SharedTable::writerNew(recLayout(), path, {.capacity = 52, .maxEntries = 52});
    std::mt19937 rng(3);
    Rec key{}, removed;
    for (U32 i = 0; i < 300000; ++i) {
      U32 k = stay + rng() % churn;
      keyOf(k, key);
      t->remove(key.key, reinterpret_cast<U8*>(&removed));
      Rec r = makeRec<Rec>(k, i);
      t->write(reinterpret_cast<const U8*>(&r));
    }
    Rec r = makeRec<Rec>(done, 1);
    t->write(reinterpret_cast<const U8*>(&r));
    _exit(0);
  }
  children.push_back(writer);
  for (pid_t pid : children) {
    int status = 0;
    waitpid(pid, &status, 0);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "process " << pid << " status " << status;
  }
  close(ready[0]);
  close(ready[1]);
}

TEST(SharedTableProcesses, AKilledWriterBlocksNobody) {
  TempRoot root;
  std::string path = root / "T/trieNode";
  int killed = inChild([&] {
    auto t = Depot::SharedTable::writerNew(recLayout(), path, {.capacity = 1});
    for (U32 k = 0; k < 1000; ++k) {
      Rec r = makeRec<Rec>(k, 1);
      t->write(reinterpret_cast<const U8*>(&r));
    }
    raise(SIGKILL);
    return 0;
  });
  EXPECT_EQ(killed, 100 + SIGKILL);

  auto reader = Depot::SharedTable::readerNew(recLayout(), path);
  EXPECT_EQ(reader->occupancy(), 1000u);
  auto writer = Depot::SharedTable::writerNew(recLayout(), path);
  EXPECT_EQ(writer->occupancy(), 1000u);
  EXPECT_EQ(writer->corruptionCount(), 0u);

  // A killed reader leaves nothing behind either.
  int readerKilled = inChild([&] {
    auto t = Depot::SharedTable::readerNew(recLayout(), path);
    Rec key{}, r;
    keyOf(5, key);
    if (!t->find(key.key, reinterpret_cast<U8*>(&r))) return 1;
    raise(SIGKILL);
    return 0;
  });
  EXPECT_EQ(readerKilled, 100 + SIGKILL);
  Rec r = makeRec<Rec>(5000, 1);
  writer->write(reinterpret_cast<const U8*>(&r));
  EXPECT_EQ(reader->occupancy(), 1001u);
}

}  // namespace
