// Depot's keyed tables: the contract of temporary and shared tables alike, the shared table's own behaviour, and the
// shared table across processes (readers while a writer works, writers killed on the spot).
#include <fcntl.h>
#include <gmock/gmock.h>
#include <signal.h>

#include <filesystem>
#include <fstream>
#include <random>

#include "Tables.h"
#include "support/Process.h"

using testing::HasSubstr;
using testing::ThrowsMessage;
using Header = Depot::sharedfile::Header;
namespace fs = std::filesystem;

struct Kind { const char* name; bool shared; const Depot::RecordLayout* layout; };
using TableContract = testing::TestWithParam<Kind>;

// A seeded run checked against a map after every step, half of its keys crowding the index's end: in a fixed table kept
// near full (tombstones, rebuilds, probes wrapping), in one grown from one slot; then emptied by removals as it iterates.
// Every 40 steps, 8 changes go in one bracket, which is kept or undone (also across growth and failed writes).
TEST_P(TableContract, MatchesAMapThroughASeededRandomRunAndEmptiesByIteration) {
  testkit::TempRoot root;
  for (auto [capacity, maxEntries, keyCount] : {std::tuple<U64, U64, U32>{64, 64, 96}, {1, U64(1) << 30, 400}}) {
    const Depot::RecordLayout& l = *GetParam().layout;
    auto t = GetParam().shared ? Depot::SharedTable::writerNew(l, root.file(std::to_string(capacity)), {capacity, maxEntries})
                               : Depot::temporaryTableNew(l, "local/table", capacity, maxEntries);
    std::vector<U32> keys = crowdedKeys(l, keyCount / 2);
    for (U32 k = 1; k <= keyCount / 2; ++k) keys.push_back(1000000 + k);
    std::map<U32, U32> model, before;
    std::mt19937 rng(U32(capacity + l.recordSize));
    U64 full = 0, grown = 0, hint;
    Rec r{};
    for (U32 step = 1; step <= 4000; ++step, grown = std::max(grown, t->capacity())) {
      if (step % 40 == 1) t->updateBegin(), before = model;
      const U32 k = keys[rng() % keys.size()], op = rng() % 8;
      const bool present = model.count(k), writes = op < ((step / 1000) % 2 ? 2 : 5);
      if (writes && !present && model.size() == maxEntries) {
        ++full;
        ASSERT_THAT([&] { put(*t, k, step); }, ThrowsMessage<Depot::TableFullException>(
                                                    "Depot table full (occupancy:64 tableSize:64) " + t->rootPath()));
      } else if (writes) {
        put(*t, k, step), model[k] = step;
      } else if (op < 7) {
        ASSERT_TRUE(t->remove(keyOf(l, k).data(), r.data()) == present && (!present || r == recordOf(l, k, model[k]))) << step;
        model.erase(k);
      } else if (U8* stored = t->inPlace(keyOf(l, k).data())) {
        ASSERT_TRUE(present && t->iterFrom(keyOf(l, k).data(), hint, r.data()) && r == recordOf(l, k, model[k]));
        std::memcpy(stored, recordOf(l, k, step).data(), l.recordSize), t->commit(stored), model[k] = step;
      } else {
        ASSERT_FALSE(present || t->iterFrom(keyOf(l, k).data(), hint, r.data()));
      }
      if (step % 40 == 8 && rng() % 2) t->updateAbort(), model = before;
      else if (step % 40 == 8) t->updateEnd();
      ASSERT_EQ(t->occupancy(), model.size()) << "capacity " << capacity << ", step " << step;
      for (U32 q : keys) ASSERT_EQ(version(*t, q), model.count(q) ? model[q] : 0) << q;
      ASSERT_EQ(contents(*t), model);
    }
    EXPECT_THROW(t->commit(recordOf(l, keys[0], 1).data()), Depot::CorruptionException);  // not the record in place
    size_t met = 0;
    for (bool ok = t->iterFirst(hint, r.data()); ok; ok = t->iterNext(hint, r.data())) met += drop(*t, keyNumber(l, r));
    EXPECT_EQ(std::tuple(met, t->occupancy(), full > 0), std::tuple(model.size(), U64(0), maxEntries == 64));
    EXPECT_TRUE(maxEntries == 64 ? t->capacity() == 64 : grown > 300 && (!GetParam().shared || t->capacity() < 100));
    // Emptied, no tombstone is left: the last entry of a run to go clears those before it.
    EXPECT_EQ(GetParam().shared ? dynamic_cast<Depot::SharedTable&>(*t).stats().tombstones : 0, 0u);
  }
}

INSTANTIATE_TEST_SUITE_P(Kinds, TableContract,
                         testing::Values(Kind{"TemporaryNode4", false, &node4}, Kind{"TemporaryNode6", false, &node6},
                                         Kind{"SharedNode4", true, &node4}, Kind{"SharedNode6", true, &node6}),
                         [](const testing::TestParamInfo<Kind>& info) { return info.param.name; });

class SharedTable : public TableFixture {};

// A reader maps the file read-only and cannot write; it sees every change at once, also while the table grows and
// shrinks under it. Slot numbers (the hint) survive growth: an iteration spread over it meets every record once.
TEST_F(SharedTable, AReaderSeesChangesAtOnceAsTheTableGrowsAndShrinksButCannotWrite) {
  auto w = writer(1, node6);
  put(*w, 0, 1);
  auto r = reader(node6);
  std::string modes, line;  // the writer maps the file under the name it was created by
  for (std::ifstream maps("/proc/self/maps"); std::getline(maps, line);) modes += line.ends_with(path) ? line.substr(line.find(' '), 5) : "";
  EXPECT_EQ(modes, " r--s");
  Rec rec = recordOf(node6, 1, 7), key = keyOf(node6, 1);
  EXPECT_FALSE(r->readAt(r->prefetchRecord(key.data()), keyOf(node6, 2).data(), rec.data()));  // 1's slot is not 2's
  for (const auto& write : std::initializer_list<std::function<void()>>{[&] { r->write(rec.data()); }, [&] { r->updateBegin(); },
           [&] { r->remove(key.data(), rec.data()); }, [&] { r->inPlace(key.data()); }, [&] { r->commit(rec.data()); }})
    EXPECT_THAT(write, ThrowsMessage<Depot::AccessException>("invalid attempt to write scratchpad as reader"));
  std::set<U32> met;
  U64 hint, twice = 0;
  bool ok = r->iterFirst(hint, rec.data());
  for (U32 k = 1; k < 5000; ++k) {
    put(*w, k, k);
    ASSERT_EQ(std::pair(version(*r, k), version(*r, k / 2)), std::pair(k, k / 2 ? k / 2 : 1)) << k;
    if (ok && k % 3 == 0) twice += !met.insert(keyNumber(node6, rec)).second, ok = r->iterNext(hint, rec.data());
  }
  for (; ok; ok = r->iterNext(hint, rec.data())) twice += !met.insert(keyNumber(node6, rec)).second;
  EXPECT_EQ(std::pair(met.size(), twice), std::pair(size_t(5000), U64(0)));
  EXPECT_EQ(std::pair(r->generation() > 5, std::distance(fs::directory_iterator(root.file("T")), {})), std::pair(true, 2l));  // and the lock
  const U64 bigFile = r->stats().fileBytes;
  for (U32 k = 4999; k >= 10; --k) {
    ASSERT_TRUE(drop(*w, k));
    ASSERT_EQ(std::pair(version(*r, k), version(*r, k / 2)), std::pair(0u, k / 2)) << k;
  }
  EXPECT_EQ(std::tuple(r->capacity(), contents(*r).size(), r->stats().fileBytes < bigFile / 8), std::tuple(w->capacity(), size_t(10), true));
  for (U32 k = 4999; k >= 4000; --k) put(*w, k, 2);  // the writer's cache still names their slots far past the table's end
  EXPECT_EQ(std::pair(contents(*r).size(), version(*r, 4000)), std::pair(size_t(1010), 2u));
}

TEST_F(SharedTable, AnUpdateBracketGroupsSeveralChangesButNoMoreThanTheJournalHolds) {
  auto w = writer(1);
  auto r = reader();
  const U64 rest = r->updateCounter();
  w->updateBegin();  // odd until its end, across growth; a key changed often is journaled once
  for (U32 k = 1; k <= 30; ++k) put(*w, k, 1);
  for (U32 v = 2; v < 200; ++v) put(*w, 5, v);
  drop(*w, 3);
  EXPECT_EQ(std::tuple(rest % 2, r->updateCounter() - rest, r->generation() > 1, version(*r, 5)), std::tuple(0ul, 1ul, true, 199u));
  w->updateEnd();
  const U64 ended = r->updateCounter();
  put(*w, 40, 1), drop(*w, 40);  // outside a bracket each change is an update
  EXPECT_EQ(std::pair(ended, r->updateCounter()), std::pair(rest + 2, rest + 6));
  w->updateBegin();
  EXPECT_DEATH(for (U32 k = 100; k <= 132; ++k) put(*w, k, 1), "update too large");
}

// A removal leaves a tombstone (so that no index entry moves under a reader) until the next generation.
TEST_F(SharedTable, ASecondWriterIsRefusedAndTheNextKeepsEveryRecordAndCount) {
  auto first = writer(1);
  const std::vector<U32> keys = crowdedKeys(node4, 600);
  std::map<U32, U32> model;
  for (U32 k : keys) put(*first, k, 1), model[k] = 1;
  for (size_t i = 1; i < keys.size(); i += 3) drop(*first, keys[i]), model.erase(keys[i]);
  auto r = reader();
  const Depot::SharedTableStats before = r->stats();
  EXPECT_THAT([&] { writer(); }, ThrowsMessage<Depot::WriterBusyException>(HasSubstr(path + " already has a writer (pid ")));
  EXPECT_THAT([&] { Depot::sharedTableDrop(path); }, ThrowsMessage<Depot::SharedFileException>(HasSubstr("in use")));
  first.reset();
  auto second = writer();
  const Depot::SharedTableStats after = r->stats();
  EXPECT_EQ(std::tie(after.generation, after.occupancy, after.highWater, after.tombstones),
            std::tie(before.generation, before.occupancy, before.highWater, before.tombstones));
  EXPECT_EQ(std::pair(after.tombstones > 100, contents(*second)), std::pair(true, model));
  for (U32 k = 1; k < 2000; ++k) put(*second, k, 5), model[k] = 5;  // the reader follows it as it grows
  EXPECT_EQ(std::tuple(r->generation() > before.generation, r->stats().tombstones, contents(*r)), std::tuple(true, 0ul, model));
}

TEST_F(SharedTable, AttachingToABadFileFailsNamingIt) {
  const std::string good = path;
  writer(100);
  // A field set to 0 under a checksum that matches again.
  auto forge = [](auto field) { return [field](const std::string& p) { auto m = damageable(p); m->header().*field = 0; m->header().checksum = Depot::sharedfile::headerChecksum(m->header()); }; };
  auto flip = [](size_t at) { return [at](const std::string& p) { reinterpret_cast<U8*>(&damageable(p)->header())[at] ^= 0x20; }; };
  const std::vector<std::tuple<std::string, std::function<void(const std::string&)>, std::string>> cases{
      {"missing", [](const std::string& p) { fs::remove(p); }, " does not exist"},
      {"foreign", [](const std::string& p) { std::ofstream(p) << std::string(9000, 'x'); }, ": not a Depot table"},
      {"short", [](const std::string& p) { fs::resize_file(p, fs::file_size(p) - 1); }, ": truncated"},
      {"checksummedTypeNamePadding", flip(offsetof(Header, typeName) + 41), ": damaged header"},
      {"lastChecksummedByte", flip(offsetof(Header, checksum) - 1), ": damaged header"},
      {"journalCount", [](const std::string& p) { damageable(p)->header().journalCount = 33; }, ": damaged journal"},
      {"forgedGeneration", forge(&Header::generation), ": damaged header"}, {"forgedStride", forge(&Header::stride), ": damaged header"},
      {"forgedMode", [](const std::string& p) { auto m = damageable(p); m->header().mode = 01600; m->header().checksum = Depot::sharedfile::headerChecksum(m->header()); }, ": damaged header (mode 1600)"},
      {"sparse", [](const std::string& p) {  // a header promising an index of gigabytes: its writer stops before touching it
         auto m = damageable(p); const auto g = Depot::sharedfile::geometryOf(node4, U64(1) << 30); std::tie(m->header().capacity, m->header().indexEntries, m->header().slotsOffset, m->header().fileSize) = std::tuple(g.capacity, g.indexEntries, g.slotsOffset, g.fileSize);
         m->header().checksum = Depot::sharedfile::headerChecksum(m->header()), fs::resize_file(p, g.fileSize); }, ": holds "}};
  for (const auto& [name, damage, says] : cases) {
    fs::copy_file(good, path = root.file(name));
    damage(path);
    const auto fails = ThrowsMessage<Depot::SharedFileException>(HasSubstr(path + says));
    EXPECT_TRUE(name == "missing" || testing::Value([&] { writer(); }, fails)) << name;  // a writer creates a missing file
    EXPECT_TRUE(name == "journalCount" || name == "sparse" ? reader() != nullptr : testing::Value([&] { reader(); }, fails)) << name;
  }
  path = good;
  EXPECT_THAT([&] { reader(node6); }, ThrowsMessage<Depot::SharedFileException>(HasSubstr(
                  good + ": holds test::Node4 records (29 bytes, key of 5 bytes at 4), expected test::Node6")));
}

TEST_F(SharedTable, FilesGetTheirModeAndOtherUsersAreDenied) {
  for (auto [mode, dirMode] : {std::pair{0644u, 0755u}, {0640u, 0750u}, {0600u, 0700u}}) {
    Depot::SharedTable::writerNew(node4, path = root.file(fmt::format("m{:o}/trieNode", mode)), {.mode = mode});
    EXPECT_EQ(std::pair(U32(fs::status(path).permissions()), U32(fs::status(fs::path(path).parent_path()).permissions())),
              std::pair(mode, dirMode));
  }
  auto w = writer();  // options of 0644: the table's own 0600 wins in the generations it grows into
  for (U32 k = 1; k < 3000; ++k) put(*w, k, 1);
  EXPECT_EQ(std::pair(w->generation() > 1, U32(fs::status(path).permissions())), std::pair(true, 0600u));
  if (geteuid() != 0) GTEST_SKIP() << "acting as another user needs root";
  chmod(root.path.c_str(), 0755), chmod(root.file("m600").c_str(), 0755);
  const auto denied = ThrowsMessage<Depot::SharedFileException>(HasSubstr("cannot open " + path + " for reading: permission denied (mode 0600"));
  EXPECT_EQ(testkit::Child([&] { return setgid(65534) || setuid(65534) ? 2 : !testing::Value([&] { reader(); }, denied); }).wait(), 0);
}

// Damage reads as corruption naming the file: an entry naming a slot past the table, no empty entry, a slot left half-
// written by a stopped writer. The next writer reports the index and that slot, drops the slot and rebuilds the index; it
// drops a journal left at rest.
TEST_F(SharedTable, DamageIsReportedAndTheNextWriterRebuildsTheIndex) {
  for (const Depot::RecordLayout* l : {&node4, &node6}) {
    auto w = (path = root.file(l->typeName), writer(100, *l));
    for (U32 k = 1; k <= 50; ++k) put(*w, k, 1);
    auto r = reader(*l);
    auto m = damageable(path, *l);
    const Depot::sharedfile::Geometry g = m->geometry();
    const U64 hash = Depot::keyHash(keyOf(*l, 1000).data(), l->keySize);  // an entry where 1000's probe looks first
    U64 pos = Depot::sharedfile::homeEntry(hash, g.indexEntries);
    while (m->indexEntry(pos) != 0) pos = (pos + 1) % g.indexEntries;
    m->indexEntry(pos) = U32(hash) << g.slotBits | 101;
    auto says = [&](U32 k, const std::string& what) {
      EXPECT_THAT([&] { version(*r, k); }, ThrowsMessage<Depot::CorruptionException>(testing::MatchesRegex(path + ": " + what)));
    };
    says(1000, "index entry [0-9]+ names slot 100 of a table of 100");
    EXPECT_THROW(put(*w, 1000, 1), Depot::CorruptionException);
    for (U64 i = 0; i < g.indexEntries; ++i) m->indexEntry(i) = m->indexEntry(i) ? m->indexEntry(i) : ~0u << g.slotBits | 1;
    says(2000, "a probe sequence of [0-9]+ entries does not end");
    w.reset();
    m->seqWord(3) |= Depot::sharedfile::seqBusy, m->header().journalCount = 1;
    std::memcpy(m->slot(7), m->slot(6), l->recordSize);  // key 6 twice, key 7 gone: the rebuild keeps one
    says(4, "slot 3 was left half-written by a writer that stopped");
    auto next = writer(100, *l);
    EXPECT_EQ(std::tuple(next->corruptionCount(), damageable(path, *l)->header().journalCount, version(*r, 4), contents(*r).size()),
              std::tuple(U64(3), 0u, 0u, size_t(48)));
  }
}

// Update u: 1 to 8 writes, commits in place and removals; the table fills and empties from the top keys down, over and
// over. Applies it to the model and to t if given, calling before(i) ahead of change i and of the end (i = n).
constexpr U32 keySpace = 700;
void update(U32 u, std::map<U32, U32>& model, Depot::Table* t = nullptr, const std::function<void(U32)>& before = {}) {
  std::mt19937 rng(u);
  const bool filling = u / 300 % 2 == 0;
  const U32 span = filling ? std::min<U32>(keySpace, 20 + u % 300 * 3) : keySpace - u % 300 * 2, n = 1 + rng() % 8;
  if (t && n > 1) t->updateBegin();
  for (U32 i = 0, k = 0; i < n; ++i) {
    if (before) before(i);
    const U32 pick = rng() % 10, v = u * 8 + i + 1;
    const bool remove = pick >= (filling ? 8 : 6), write = pick < 6;
    k = remove && !filling ? span - 1 - rng() % 20 : pick == 0 && i > 0 ? k : rng() % span;
    U8* stored = !remove && !write && t ? t->inPlace(keyOf(node4, k).data()) : nullptr;
    if (stored) std::memcpy(stored, recordOf(node4, k, v).data(), node4.recordSize), t->commit(stored);
    if (t && remove) drop(*t, k);
    if (t && write) put(*t, k, v);
    if (remove) model.erase(k);
    else if (write || model.count(k)) model[k] = v;
  }
  if (before) before(n);
  if (t && n > 1) t->updateEnd();
}

// Readers look up keys that stay and keys that a writer process changes all the time as the table grows.
TEST(SharedTableProcesses, ReadersNeverSeeATornRecordNorMissAKeyThatStays) {
  testkit::TempRoot root;
  const std::string path = root.file("T/trieNode");
  const std::vector<U32> stay = crowdedKeys(node4, 64, keySpace);  // beyond the updates' keys
  std::map<U32, U32> model;
  for (auto t = Depot::SharedTable::writerNew(node4, path, {.capacity = 1}); U32 k : stay) put(*t, k, 1), model[k] = 1;
  testkit::SharedCounters c;
  std::vector<testkit::Child> children;
  for (U32 seed = 0; seed < 2; ++seed)
    children.emplace_back([&, seed] {
      auto t = Depot::SharedTable::readerNew(node4, path);
      std::mt19937 rng(seed);
      ++c->ready;
      for (U64 i = 0; i < 50'000'000 && c->done < 40000; ++i, ++c->answered)  // keys 0 to 7 are hot
        if (version(*t, stay[rng() % 64]) != 1 || version(*t, rng() % (i % 2 ? 8 : keySpace)) == torn || (i % 20000 == 0 && contents(*t).count(torn)))
          return 1;
      return 0;
    });
  children.emplace_back([&] {
    if (!testkit::eventually([&] { return c->ready == 2; })) return 3;
    for (auto t = Depot::SharedTable::writerNew(node4, path, {.capacity = 1}); c->done < 40000; ++c->done) update(U32(c->done), model, t.get()), put(*t, c->done % 8, 1);
    return 0;
  });
  for (testkit::Child& child : children) EXPECT_EQ(child.wait(), 0);
  for (U32 u = 0; u < 40000; ++u) update(u, model), model[u % 8] = 1;
  EXPECT_EQ(std::pair(c->answered > 20000, contents(*Depot::SharedTable::readerNew(node4, path))), std::pair(true, model));
}

// Two writers creating one new table at the same moment: one creates it, the other is refused as its second writer.
TEST(SharedTableProcesses, WritersRacingToCreateATableMeetOneWriter) {
  testkit::TempRoot root;
  for (int round = 0; round < 30; ++round) {
    testkit::SharedCounters c;  // done: writers that got the table; answered: racers that are through
    auto race = [&, path = root.file(fmt::format("T{}/trieNode", round))] {
      for (++c->ready; c->ready < 2;) {}
      try {
        auto t = Depot::SharedTable::writerNew(node4, path, {});
        return ++c->done, ++c->answered, testkit::eventually([&] { return c->answered == 2; }, std::chrono::seconds(5)) ? 0 : 2;
      } catch (const Depot::WriterBusyException&) { return ++c->answered, 0; }
    };
    testkit::Child a(race), b(race);
    const int statusA = a.wait(), statusB = b.wait();
    ASSERT_EQ(std::tuple(statusA, statusB, c->done.load()), std::tuple(0, 0, 1ul)) << "round " << round;
  }
}

// Killed at a random moment (writing a slot, journaling, growing, or recovering from the kill before), or right after a
// change in mid-update moved the table to a new generation, a writer leaves the records of the last update it finished
// or of the next. Nobody waits for it: a reader attached all along answers at once from the state the next writer then
// restores (an update left open is read around through its journal), and the next writer opens the file at once.
TEST(SharedTableProcesses, AKilledWriterLeavesItsLastOrNextUpdateAndBlocksNobody) {
  testkit::TempRoot root;
  const std::string path = root.file("T/trieNode");
  const Depot::SharedTableOptions options{.capacity = 1, .maxEntries = keySpace};
  Depot::SharedTable::writerNew(node4, path, options);
  auto reader = Depot::SharedTable::readerNew(node4, path);
  testkit::SharedCounters c;  // done: the updates the writer finished
  std::mt19937 rng(7);
  U32 applied = 0, cutAfterGrowth = 0;
  std::map<U32, U32> model, next;
  for (int round = 0; round < 60; ++round) {
    // The first rounds (as the table grows from one slot) and every third kill after such a change, the others from outside.
    const bool afterGrowth = round < 10 || round % 3 == 0;
    const U32 target = applied + rng() % 100;
    testkit::Child writer([&] {
      auto t = Depot::SharedTable::writerNew(node4, path, options);
      for (U64 u = applied, generation = t->generation(); u < applied + (afterGrowth ? 1000 : 100); c->done = ++u)
        update(U32(u), next, t.get(), [&](U32 i) {
          if (afterGrowth && i >= 2 && t->generation() != generation) raise(SIGKILL);
          generation = t->generation();
        });
      return afterGrowth ? 0 : pause();  // until killed
    });
    for (U64 n = 0; !afterGrowth && n < 1'000'000 && c->done < target; ++n) sched_yield();
    for (U32 n = afterGrowth ? 0 : rng() % 20000; n > 0; --n) asm volatile("");
    const int status = afterGrowth ? writer.wait() : writer.kill9();
    ASSERT_TRUE(status == 0 || status == 100 + SIGKILL) << status;
    cutAfterGrowth += afterGrowth && status == 100 + SIGKILL;
    for (const U32 finished = U32(c->done.load()); applied < finished; ++applied) update(applied, model);
    update(applied, next = model);
    const std::map<U32, U32> seen = contents(*reader);
    if (const U64 open = reader->stats().updateCounter; open % 2) {
      ASSERT_EQ(reader->updateCounter(), open - 1) << round;  // read around: the counter from before the open update
    }
    for (U32 k = 0; k < keySpace; ++k) ASSERT_EQ(version(*reader, k), seen.count(k) ? seen.at(k) : 0) << round << ", " << k;
    auto t = Depot::SharedTable::writerNew(node4, path, options);
    const std::map<U32, U32> stored = contents(*t);
    EXPECT_EQ(std::tuple(t->corruptionCount(), t->updateCounter() % 2, t->occupancy()), std::tuple(0u, 0u, stored.size()));
    ASSERT_TRUE(stored == model || stored == next) << "round " << round << ": " << stored.size() << " records";
    ASSERT_EQ(seen, stored) << "round " << round;
    if (stored != model) model = next, ++applied;
    c->done = applied;
  }
  EXPECT_EQ(std::pair(applied > 1000, cutAfterGrowth > 3), std::pair(true, true)) << applied << ", " << cutAfterGrowth;
}
