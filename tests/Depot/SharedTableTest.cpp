// The keyed-table contract (temporary and shared tables alike), and the
// shared table's own behaviour within one process: readers, growth,
// shrinking, reopening, full tables, damage.
#include <fmt/format.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <map>
#include <set>

#include "SharedTableSupport.h"

using namespace depottest;
using testing::HasSubstr;

namespace {

template <class R>
bool findRec(const Depot::Table& t, U32 k, R& out) {
  R probe{};
  keyOf(k, probe);
  return t.find(probe.key, reinterpret_cast<U8*>(&out));
}

template <class R>
void writeRec(Depot::Table& t, U32 k, U32 version) {
  R r = makeRec<R>(k, version);
  t.write(reinterpret_cast<const U8*>(&r));
}

template <class R>
bool removeRec(Depot::Table& t, U32 k, R& removed) {
  R probe{};
  keyOf(k, probe);
  return t.remove(probe.key, reinterpret_cast<U8*>(&removed));
}

// key -> version of every record, read by iteration.
template <class R>
std::map<U32, U32> contents(const Depot::Table& t) {
  std::map<U32, U32> seen;
  R r;
  U64 hint;
  for (bool ok = t.iterFirst(hint, reinterpret_cast<U8*>(&r)); ok; ok = t.iterNext(hint, reinterpret_cast<U8*>(&r))) {
    EXPECT_TRUE(selfConsistent(r));
    EXPECT_TRUE(seen.emplace(keyNumber(r), versionOf(r)).second) << "key " << keyNumber(r) << " met twice";
  }
  return seen;
}

Depot::SharedTableOptions small(U64 capacity, U64 maxEntries = (U64(1) << 31) - 1) {
  return {.capacity = capacity, .maxEntries = maxEntries, .mode = 0644};
}

// ---- The contract every table keeps ----

struct TableKind {
  const char* name;
  std::function<std::unique_ptr<Depot::Table>(const Depot::RecordLayout&, const std::string& dir)> make;
  // Test names show the kind, not the bytes of the value.
  friend void PrintTo(const TableKind& k, std::ostream* os) { *os << k.name; }
};

class TableContract : public testing::TestWithParam<TableKind> {
 protected:
  TempRoot root;
  std::unique_ptr<Depot::Table> table = GetParam().make(recLayout(), root.path());
  std::unique_ptr<Depot::Table> table6 = GetParam().make(rec6Layout(), root.path());
};

TEST_P(TableContract, WriteFindOverwriteRemove) {
  for (auto* t : {table.get(), table6.get()}) {
    SCOPED_TRACE(t->layout().typeName);
    for (U32 k = 1; k <= 300; ++k) t->layout().recordSize == 29 ? writeRec<Rec>(*t, k, 1) : writeRec<Rec6>(*t, k, 1);
  }
  Rec r;
  ASSERT_TRUE(findRec(*table, 7, r));
  EXPECT_EQ(versionOf(r), 1u);
  EXPECT_TRUE(selfConsistent(r));
  EXPECT_FALSE(findRec(*table, 301, r));
  EXPECT_EQ(table->occupancy(), 300u);

  writeRec<Rec>(*table, 7, 2);
  ASSERT_TRUE(findRec(*table, 7, r));
  EXPECT_EQ(versionOf(r), 2u);
  EXPECT_EQ(table->occupancy(), 300u);

  Rec removed;
  ASSERT_TRUE(removeRec(*table, 7, removed));
  EXPECT_EQ(versionOf(removed), 2u);
  EXPECT_EQ(keyNumber(removed), 7u);
  EXPECT_FALSE(findRec(*table, 7, r));
  EXPECT_FALSE(removeRec(*table, 7, removed));
  EXPECT_EQ(table->occupancy(), 299u);
  for (U32 k = 1; k <= 300; ++k) EXPECT_EQ(findRec(*table, k, r), k != 7) << k;

  Rec6 r6;
  ASSERT_TRUE(findRec(*table6, 300, r6));
  EXPECT_TRUE(selfConsistent(r6));
  EXPECT_EQ(contents<Rec6>(*table6).size(), 300u);
}

TEST_P(TableContract, IterationSurvivesRemovalOfTheCurrentRecord) {
  for (U32 k = 0; k < 500; ++k) writeRec<Rec>(*table, k, k);
  std::map<U32, U32> all = contents<Rec>(*table);
  EXPECT_EQ(all.size(), 500u);

  // Remove every record met, as removing all records does.
  std::set<U32> met;
  Rec r, removed;
  U64 hint;
  for (bool ok = table->iterFirst(hint, reinterpret_cast<U8*>(&r)); ok;
       ok = table->iterNext(hint, reinterpret_cast<U8*>(&r))) {
    met.insert(keyNumber(r));
    ASSERT_TRUE(removeRec(*table, keyNumber(r), removed));
  }
  EXPECT_EQ(met.size(), 500u);
  EXPECT_EQ(table->occupancy(), 0u);
  EXPECT_FALSE(table->iterFirst(hint, reinterpret_cast<U8*>(&r)));

  // From a key: that record first, then the rest in table order.
  for (U32 k = 0; k < 50; ++k) writeRec<Rec>(*table, k, 3);
  Rec start{};
  keyOf(20, start);
  ASSERT_TRUE(table->iterFrom(start.key, hint, reinterpret_cast<U8*>(&r)));
  EXPECT_EQ(keyNumber(r), 20u);
  keyOf(77, start);
  EXPECT_FALSE(table->iterFrom(start.key, hint, reinterpret_cast<U8*>(&r)));
}

TEST_P(TableContract, InPlaceChangeAndCommit) {
  writeRec<Rec>(*table, 5, 1);
  Rec probe{};
  keyOf(5, probe);
  U8* stored = table->inPlace(probe.key);
  ASSERT_NE(stored, nullptr);
  Rec changed = makeRec<Rec>(5, 9);
  std::memcpy(stored, &changed, sizeof changed);
  table->commit(stored);
  Rec r;
  ASSERT_TRUE(findRec(*table, 5, r));
  EXPECT_EQ(versionOf(r), 9u);

  keyOf(6, probe);
  EXPECT_EQ(table->inPlace(probe.key), nullptr);
  Rec elsewhere = makeRec<Rec>(5, 1);
  EXPECT_THROW(table->commit(reinterpret_cast<const U8*>(&elsewhere)), Depot::CorruptionException);
}

INSTANTIATE_TEST_SUITE_P(
    Kinds, TableContract,
    testing::Values(TableKind{"temporary",
                              [](const Depot::RecordLayout& l, const std::string&) {
                                return Depot::temporaryTableNew(l, "local", 100);
                              }},
                    TableKind{"shared",
                              [](const Depot::RecordLayout& l, const std::string& dir) -> std::unique_ptr<Depot::Table> {
                                return Depot::SharedTable::writerNew(l, dir + "/t/" + l.typeName, small(1));
                              }}),
    [](const testing::TestParamInfo<TableKind>& info) { return info.param.name; });

// ---- Shared tables ----

TEST(SharedTable, ReaderReadsInPlaceAndCannotWrite) {
  TempRoot root;
  std::string path = root / "T/trieNode";
  auto writer = Depot::SharedTable::writerNew(recLayout(), path);
  for (U32 k = 0; k < 100; ++k) writeRec<Rec>(*writer, k, 1);
  auto reader = Depot::SharedTable::readerNew(recLayout(), path);
  EXPECT_FALSE(reader->isWriter());
  EXPECT_EQ(contents<Rec>(*reader).size(), 100u);

  // Changes show at once, without any call on the reader's side.
  Rec r, removed;
  writeRec<Rec>(*writer, 3, 2);
  removeRec(*writer, 4, removed);
  writeRec<Rec>(*writer, 1000, 1);
  ASSERT_TRUE(findRec(*reader, 3, r));
  EXPECT_EQ(versionOf(r), 2u);
  EXPECT_FALSE(findRec(*reader, 4, r));
  EXPECT_TRUE(findRec(*reader, 1000, r));
  EXPECT_EQ(reader->occupancy(), 100u);
  EXPECT_EQ(reader->updateCounter() % 2, 0u);

  Rec rec = makeRec<Rec>(1, 1);
  auto rejects = [&](const std::function<void()>& f) {
    try {
      f();
      ADD_FAILURE() << "a write through a reader went through";
    } catch (const Depot::AccessException& e) {
      EXPECT_STREQ(e.what(), "invalid attempt to write scratchpad as reader");
    }
  };
  rejects([&] { reader->write(reinterpret_cast<const U8*>(&rec)); });
  rejects([&] { reader->remove(rec.key, reinterpret_cast<U8*>(&r)); });
  rejects([&] { reader->inPlace(rec.key); });
  rejects([&] { reader->commit(reinterpret_cast<const U8*>(&rec)); });

  struct stat st {};
  ASSERT_EQ(stat(path.c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 0777, 0644u);
  ASSERT_EQ(stat((root / "T").c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 0777, 0755u);
}

// Records of other shapes: the key alone (one byte, kept wholly in the
// slot's sequence word) and an 8-byte key behind a 4-byte value.
TEST(SharedTable, OtherRecordShapes) {
  TempRoot root;
  auto tiny = Depot::SharedTable::writerNew({"test::Byte", 1, 0, 1}, root / "tiny", small(1));
  for (U32 b = 0; b < 256; ++b) {
    U8 rec = U8(b);
    tiny->write(&rec);
  }
  auto tinyReader = Depot::SharedTable::readerNew({"test::Byte", 1, 0, 1}, root / "tiny");
  U8 key = 77, out = 0;
  ASSERT_TRUE(tinyReader->find(&key, &out));
  EXPECT_EQ(out, 77);
  EXPECT_EQ(tinyReader->occupancy(), 256u);

  const Depot::RecordLayout wide{"test::Wide", 12, 4, 8};
  auto t = Depot::SharedTable::writerNew(wide, root / "wide", small(1));
  for (U64 k = 0; k < 1000; ++k) {
    U8 rec[12];
    U32 value = U32(k * 3);
    std::memcpy(rec, &value, 4);
    std::memcpy(rec + 4, &k, 8);
    t->write(rec);
  }
  auto reader = Depot::SharedTable::readerNew(wide, root / "wide");
  for (U64 k = 0; k < 1000; k += 37) {
    U8 rec[12];
    ASSERT_TRUE(reader->find(reinterpret_cast<const U8*>(&k), rec));
    U32 value;
    std::memcpy(&value, rec, 4);
    EXPECT_EQ(value, k * 3);
  }
  U64 absent = 5000;
  U8 rec[12];
  EXPECT_FALSE(reader->find(reinterpret_cast<const U8*>(&absent), rec));
}

TEST(SharedTable, GrowsAndShrinksUnderAnAttachedReader) {
  TempRoot root;
  std::string path = root / "T/trieNode6";
  auto writer = Depot::SharedTable::writerNew(rec6Layout(), path, small(1));
  writeRec<Rec6>(*writer, 0, 1);
  auto reader = Depot::SharedTable::readerNew(rec6Layout(), path);
  U64 firstCapacity = writer->capacity();
  U64 firstGeneration = reader->generation();

  // The reader iterates while the table grows under it; slot numbers (its
  // hint) stay put, so it meets every record present throughout exactly once.
  std::set<U32> met;
  Rec6 r;
  U64 hint;
  bool ok = reader->iterFirst(hint, reinterpret_cast<U8*>(&r));
  for (U32 k = 1; k < 5000; ++k) {
    writeRec<Rec6>(*writer, k, k);
    if (ok && k % 3 == 0) {
      EXPECT_TRUE(selfConsistent(r));
      EXPECT_TRUE(met.insert(keyNumber(r)).second);
      ok = reader->iterNext(hint, reinterpret_cast<U8*>(&r));
    }
  }
  while (ok) {
    EXPECT_TRUE(met.insert(keyNumber(r)).second);
    ok = reader->iterNext(hint, reinterpret_cast<U8*>(&r));
  }
  EXPECT_EQ(met.size(), 5000u);
  EXPECT_GE(writer->capacity(), 5000u);
  EXPECT_GT(reader->generation(), firstGeneration + 5);
  for (U32 k = 0; k < 5000; k += 97) {
    ASSERT_TRUE(findRec(*reader, k, r)) << k;
    EXPECT_EQ(versionOf(r), k == 0 ? 1u : k);
  }
  // One file per table: the generations replaced each other under its name.
  EXPECT_EQ(std::distance(std::filesystem::directory_iterator(root / "T"), {}), 1);
  Depot::SharedTableStats big = reader->stats();
  EXPECT_EQ(big.occupancy, 5000u);
  EXPECT_LE(big.residentBytes, big.fileBytes);

  Rec6 removed;
  for (U32 k = 4999; k >= 10; --k) ASSERT_TRUE(removeRec(*writer, k, removed));
  EXPECT_LT(writer->capacity(), big.capacity / 8);
  EXPECT_GE(writer->capacity(), firstCapacity);
  EXPECT_EQ(contents<Rec6>(*reader).size(), 10u);
  EXPECT_LT(reader->stats().fileBytes, big.fileBytes / 8);
  EXPECT_EQ(reader->capacity(), writer->capacity());
}

TEST(SharedTable, FixedSizeTableFillsUp) {
  TempRoot root;
  std::string path = root / "full";
  auto t = Depot::SharedTable::writerNew(recLayout(), path, small(8, 8));
  for (U32 k = 0; k < 8; ++k) writeRec<Rec>(*t, k, 1);
  try {
    writeRec<Rec>(*t, 8, 1);
    ADD_FAILURE() << "a ninth record fitted into eight slots";
  } catch (const Depot::TableFullException& e) {
    EXPECT_EQ(std::string(e.what()), "Depot table full (occupancy:8 tableSize:8) " + path);
  }
  writeRec<Rec>(*t, 3, 2);  // overwriting needs no slot
  Rec removed, r;
  removeRec(*t, 5, removed);
  writeRec<Rec>(*t, 8, 1);
  EXPECT_TRUE(findRec(*t, 8, r));
  EXPECT_EQ(t->capacity(), 8u);
}

TEST(SharedTable, AnUpdateBracketsSeveralChanges) {
  TempRoot root;
  std::string path = root / "T/trieNode";
  auto writer = Depot::SharedTable::writerNew(recLayout(), path, small(1));
  auto reader = Depot::SharedTable::readerNew(recLayout(), path);
  const U64 rest = reader->updateCounter();
  EXPECT_EQ(rest % 2, 0u);

  // Inside a bracket the counter stays odd, also across the generations the
  // table grows through; a key changed many times is journaled once.
  writer->updateBegin();
  EXPECT_EQ(reader->updateCounter(), rest + 1);
  for (U32 k = 0; k < 30; ++k) writeRec<Rec>(*writer, k, 1);
  for (U32 v = 2; v < 200; ++v) writeRec<Rec>(*writer, 5, v);
  Rec removed, r;
  EXPECT_TRUE(removeRec(*writer, 3, removed));
  EXPECT_EQ(reader->updateCounter(), rest + 1);
  EXPECT_GT(reader->generation(), 1u);
  ASSERT_TRUE(findRec(*reader, 5, r));  // readers see the changes as they are made
  EXPECT_EQ(versionOf(r), 199u);
  writer->updateEnd();
  EXPECT_EQ(reader->updateCounter(), rest + 2);

  // Outside a bracket each change is an update of its own.
  writeRec<Rec>(*writer, 40, 1);
  removeRec(*writer, 40, removed);
  EXPECT_EQ(reader->updateCounter(), rest + 6);
  EXPECT_EQ(contents<Rec>(*reader).size(), 29u);
}

TEST(SharedTableDeathTest, AnUpdateLargerThanTheJournalStopsTheProcess) {
  TempRoot root;
  std::string path = root / "T/trieNode";
  EXPECT_DEATH(
      {
        auto writer = Depot::SharedTable::writerNew(recLayout(), path);
        writer->updateBegin();
        for (U32 k = 0; k < 33; ++k) writeRec<Rec>(*writer, k, 1);
      },
      "update too large");
}

// Removal leaves tombstones in the index, so that no entry moves under a
// reader; the next generation drops them.
TEST(SharedTable, RemovedKeysLeaveTombstonesUntilTheNextGeneration) {
  TempRoot root;
  std::string path = root / "T/trieNode";
  auto writer = Depot::SharedTable::writerNew(recLayout(), path, small(2000));
  for (U32 k = 0; k < 1500; ++k) writeRec<Rec>(*writer, k, 1);
  Rec removed, r;
  for (U32 k = 1; k < 1500; k += 2) ASSERT_TRUE(removeRec(*writer, k, removed));
  auto reader = Depot::SharedTable::readerNew(recLayout(), path);
  Depot::SharedTableStats s = reader->stats();
  EXPECT_GT(s.tombstones, 100u);
  EXPECT_EQ(s.occupancy, 750u);
  for (U32 k = 0; k < 1500; ++k) ASSERT_EQ(findRec(*reader, k, r), k % 2 == 0) << k;
  for (U32 k = 5000; k < 6000; ++k) ASSERT_FALSE(findRec(*reader, k, r)) << k;

  const U64 generation = writer->generation();
  for (U32 k = 10000; k < 13000 && writer->generation() == generation; ++k) writeRec<Rec>(*writer, k, 1);
  ASSERT_GT(reader->generation(), generation);
  EXPECT_EQ(reader->stats().tombstones, 0u);
  for (U32 k = 0; k < 1500; ++k) ASSERT_EQ(findRec(*reader, k, r), k % 2 == 0) << k;
}

TEST(SharedTable, ReopenedByANewWriterKeepsEveryRecord) {
  TempRoot root;
  std::string path = root / "T/trieNode";
  auto first = Depot::SharedTable::writerNew(recLayout(), path, small(1));
  for (U32 k = 0; k < 700; ++k) writeRec<Rec>(*first, k, 1);
  Rec removed, r;
  removeRec(*first, 10, removed);
  auto reader = Depot::SharedTable::readerNew(recLayout(), path);
  U64 generation = first->generation();

  try {
    Depot::SharedTable::writerNew(recLayout(), path);
    ADD_FAILURE() << "a second writer was let in";
  } catch (const Depot::WriterBusyException& e) {
    EXPECT_THAT(e.what(), HasSubstr(path));
    EXPECT_THAT(e.what(), HasSubstr(fmt::format("pid {}", getpid())));
  }
  first.reset();

  // A writer that stopped at rest left a complete table: the next one
  // takes the file over as it is.
  auto second = Depot::SharedTable::writerNew(recLayout(), path);
  EXPECT_EQ(second->generation(), generation);
  EXPECT_EQ(second->occupancy(), 699u);
  EXPECT_EQ(second->corruptionCount(), 0u);
  std::map<U32, U32> now = contents<Rec>(*second);
  EXPECT_EQ(now.size(), 699u);
  EXPECT_EQ(now.count(10), 0u);
  writeRec<Rec>(*second, 10, 5);
  writeRec<Rec>(*second, 701, 5);
  // The reader attached to the first writer's file reads the new writer's
  // records, also once the table grows.
  ASSERT_TRUE(findRec(*reader, 10, r));
  EXPECT_EQ(versionOf(r), 5u);
  EXPECT_TRUE(findRec(*reader, 701, r));
  for (U32 k = 1000; k < 3000; ++k) writeRec<Rec>(*second, k, 6);
  EXPECT_GT(second->generation(), generation);
  EXPECT_TRUE(findRec(*reader, 2999, r));
  EXPECT_EQ(reader->generation(), second->generation());
}

TEST(SharedTable, AttachingToBadFilesFailsNamingTheFile) {
  TempRoot root;
  auto refused = [](const std::function<void()>& attach, const std::string& path, const std::string& what) {
    try {
      attach();
      ADD_FAILURE() << "attached to " << path;
    } catch (const Depot::SharedFileException& e) {
      EXPECT_THAT(e.what(), HasSubstr(path));
      EXPECT_THAT(e.what(), HasSubstr(what));
    }
  };
  auto asReader = [](const std::string& p) { return [p] { Depot::SharedTable::readerNew(recLayout(), p); }; };
  auto asWriter = [](const std::string& p) { return [p] { Depot::SharedTable::writerNew(recLayout(), p); }; };

  std::string missing = root / "nothing";
  refused(asReader(missing), missing, "does not exist");

  std::string foreign = root / "foreign";
  FILE* f = fopen(foreign.c_str(), "w");
  for (int i = 0; i < 2000; ++i) fputs("not a table ", f);
  fclose(f);
  refused(asReader(foreign), foreign, "not a Depot table");
  refused(asWriter(foreign), foreign, "not a Depot table");

  std::string good = root / "good";
  Depot::SharedTable::writerNew(recLayout(), good, small(100));
  refused([&] { Depot::SharedTable::readerNew(rec6Layout(), good); }, good, "holds test::Rec records (29 bytes");

  std::string shortened = root / "shortened";
  std::filesystem::copy_file(good, shortened);
  std::filesystem::resize_file(shortened, std::filesystem::file_size(good) - 4096);
  refused(asReader(shortened), shortened, "truncated");
  std::filesystem::resize_file(shortened, 100);
  refused(asReader(shortened), shortened, "truncated");

  std::string damaged = root / "damaged";
  std::filesystem::copy_file(good, damaged);
  {
    RawFile raw(damaged, recLayout());
    raw.header().capacity ^= 0x40;
  }
  refused(asReader(damaged), damaged, "damaged header");
  refused(asWriter(damaged), damaged, "damaged header");

  // The journal lies outside the checksum; a count it cannot hold is damage.
  std::string journal = root / "journal";
  std::filesystem::copy_file(good, journal);
  {
    RawFile raw(journal, recLayout());
    raw.header().journalCount = 1000;
  }
  refused(asWriter(journal), journal, "damaged journal");
  EXPECT_NO_THROW(Depot::SharedTable::readerNew(recLayout(), journal));  // readers never look at it
}

TEST(SharedTable, FileModesAndPermissionDenied) {
  TempRoot root;
  std::string path = root / "T/trieNode";
  Depot::SharedTable::writerNew(recLayout(), path, {.capacity = 10, .mode = 0600});
  struct stat st {};
  ASSERT_EQ(stat(path.c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 0777, 0600u);
  ASSERT_EQ(stat((root / "T").c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 0777, 0700u);

  std::string group = root / "G/trieNode";
  Depot::SharedTable::writerNew(recLayout(), group, {.capacity = 10, .mode = 0640});
  ASSERT_EQ(stat(group.c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 0777, 0640u);

  // Another user (root can always read, so the test turns into nobody).
  chmod(root.path().c_str(), 0755);
  chmod((root / "T").c_str(), 0755);
  if (geteuid() != 0) GTEST_SKIP() << "needs root to act as another user";
  int status = inChild([&] {
    if (setgid(65534) != 0 || setuid(65534) != 0) return 2;
    try {
      Depot::SharedTable::readerNew(recLayout(), path);
    } catch (const Depot::SharedFileException& e) {
      std::string m = e.what();
      return m.find(path) != std::string::npos && m.find("permission denied (mode 0600") != std::string::npos ? 0 : 3;
    }
    return 4;
  });
  EXPECT_EQ(status, 0);
}

// Entries crafted with Depot::keyHash (the file's documented hash) must
// meet the table's own probes, for both key sizes.
template <class R>
void damageIndex(const Depot::RecordLayout& layout) {
  SCOPED_TRACE(layout.typeName);
  TempRoot root;
  std::string path = root / "T/table";
  auto writer = Depot::SharedTable::writerNew(layout, path, small(100));
  for (U32 k = 0; k < 50; ++k) writeRec<R>(*writer, k, 1);
  R removed, r;
  removeRec(*writer, 49, removed);  // slot 49 is free
  auto reader = Depot::SharedTable::readerNew(layout, path);
  Depot::SharedTableStats s = reader->stats();
  RawFile raw(path, layout);

  // Entries whose tag matches a key but whose slot lies past the table or
  // holds no record, put where the key's probe looks first.
  auto plant = [&](U32 k, U64 slot) {
    R probe{};
    keyOf(k, probe);
    U64 hash = Depot::keyHash(probe.key, sizeof probe.key);
    U64 pos = raw.home(hash);
    while (raw.indexEntry(pos) != 0) pos = (pos + 1) % s.indexEntries;
    raw.indexEntry(pos) = raw.entryFor(hash, slot);
  };
  plant(1000, s.capacity);
  plant(1001, 49);
  auto damage = [&](U32 k) {
    try {
      findRec(*reader, k, r);
      ADD_FAILURE() << "read key " << k << " through a damaged entry";
      return std::string();
    } catch (const Depot::CorruptionException& e) {
      EXPECT_THAT(e.what(), HasSubstr(path));
      return std::string(e.what());
    }
  };
  EXPECT_THAT(damage(1000), HasSubstr(fmt::format("names slot {} of a table of {}", s.capacity, s.capacity)));
  EXPECT_THAT(damage(1001), HasSubstr("names the free slot 49"));
  EXPECT_TRUE(findRec(*reader, 7, r));  // other keys are unaffected
  EXPECT_THROW(writeRec<R>(*writer, 1000, 1), Depot::CorruptionException);

  // An index without an empty entry: no probe sequence ends.
  for (U64 i = 0; i < s.indexEntries; ++i)
    if (raw.indexEntry(i) == 0) raw.indexEntry(i) = U32(0xFFFFFFFFu << raw.geometry().slotBits) | 1u;
  EXPECT_THAT(damage(2000), HasSubstr("does not end"));
}

TEST(SharedTable, DamagedIndexIsReportedAsCorruption) {
  damageIndex<Rec>(recLayout());
  damageIndex<Rec6>(rec6Layout());
}

TEST(SharedTable, SlotLeftHalfWrittenByAStoppedWriter) {
  TempRoot root;
  std::string path = root / "T/trieNode";
  auto writer = Depot::SharedTable::writerNew(recLayout(), path);
  for (U32 k = 0; k < 10; ++k) writeRec<Rec>(*writer, k, 1);  // slots 0 to 9, lowest first
  writer.reset();
  auto reader = Depot::SharedTable::readerNew(recLayout(), path);
  {
    RawFile raw(path, recLayout());
    raw.seqWord(3) |= Depot::sharedfile::seqBusy;  // as a writer stopped mid-write leaves it
    // A journal that a writer stopped at rest left behind belongs to an
    // update that finished: it says key 5 was absent before.
    raw.header().journalCount = 1;
    raw.journalFlags(0) = 0;
    Rec five{};
    keyOf(5, five);
    std::memcpy(raw.journalRecord(0), &five, sizeof five);
  }
  Rec r;
  try {
    findRec(*reader, 3, r);
    ADD_FAILURE() << "read a half-written record";
  } catch (const Depot::CorruptionException& e) {
    EXPECT_THAT(e.what(), HasSubstr("half-written"));
  }
  EXPECT_TRUE(findRec(*reader, 4, r));
  EXPECT_THROW(contents<Rec>(*reader), Depot::CorruptionException);

  // Outside an update nothing tells what the slot held: the next writer
  // drops it and goes on; the reader moves along.
  auto next = Depot::SharedTable::writerNew(recLayout(), path);
  EXPECT_EQ(next->corruptionCount(), 1u);
  EXPECT_EQ(next->occupancy(), 9u);
  EXPECT_TRUE(findRec(*next, 5, r));
  EXPECT_EQ(RawFile(path, recLayout()).header().journalCount, 0u);
  EXPECT_FALSE(findRec(*reader, 3, r));
  EXPECT_EQ(contents<Rec>(*reader).size(), 9u);
  writeRec<Rec>(*next, 3, 2);
  EXPECT_TRUE(findRec(*reader, 3, r));
}

TEST(SharedTable, DropRemovesTheFileButNotWhileAWriterHoldsIt) {
  TempRoot root;
  std::string path = root / "T/trieNode";
  auto writer = Depot::SharedTable::writerNew(recLayout(), path);
  writeRec<Rec>(*writer, 1, 1);
  auto reader = Depot::SharedTable::readerNew(recLayout(), path);
  EXPECT_TRUE(Depot::sharedTableExists(path));
  try {
    Depot::sharedTableDrop(path);
    ADD_FAILURE() << "dropped a table under its writer";
  } catch (const Depot::SharedFileException& e) {
    EXPECT_THAT(e.what(), HasSubstr("in use by its writer"));
  }
  writer.reset();
  Depot::sharedTableDrop(path);
  EXPECT_FALSE(Depot::sharedTableExists(path));
  Rec r;
  EXPECT_TRUE(findRec(*reader, 1, r));  // its mapping stays valid
}

}  // namespace
