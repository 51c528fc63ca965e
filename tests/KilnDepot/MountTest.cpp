// Mounting a collection binding on its shared table, as writer and reader.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <bit>
#include <filesystem>
#include <vector>

#include "Depot/SharedTable.h"
#include "KilnDepot/Mount.h"

using testing::HasSubstr;

namespace {

#pragma pack(push, 1)
struct Key {
  U8 bytes[5];
  friend bool operator==(const Key&, const Key&) = default;
};
struct Rec {
  U32 value;
  Key key;
};
#pragma pack(pop)

Key keyOf(U8 k) { return Key{{10, 0, 0, k, 32}}; }
Rec rec(U8 k, U32 value) { return Rec{value, keyOf(k)}; }
const Rec defaultRec{0, Key{}};

using Map = KilnDepot::KilnDepotMap<Key, Rec>;

class TempRoot {
 public:
  TempRoot() {
    char tmpl[] = "/dev/shm/depot-mount-XXXXXX";
    EXPECT_NE(mkdtemp(tmpl), nullptr);
    path_ = tmpl;
  }
  ~TempRoot() {
    std::error_code ec;
    std::filesystem::remove_all(path_, ec);
  }
  const std::string& path() const { return path_; }

 private:
  std::string path_;
};

// A binding named "T/coll" with its mount-status changes recorded.
struct Bound {
  Kiln::Entity owner{"T"};
  std::vector<KilnDepot::MountStatus> statuses;
  Map map{"coll", Depot::RecordLayout{"test::Rec", sizeof(Rec), 4, sizeof(Key)}, defaultRec,
          {.keyChanged = {}, .quiescedChanged = {}, .mountStatusChanged = [this] { statuses.push_back(map.mountStatus()); }}};
  Bound() { map.setUp(owner, nullptr); }
  U32 value(U8 k) const { return map.get(keyOf(k)).value; }
};

TEST(Mount, WriterCarriesLocalRecordsOverAndARestartKeepsTheTables) {
  TempRoot root;
  {
    Bound b;
    b.map.safeWrite(rec(1, 1));
    b.map.safeWrite(rec(2, 1));
    KilnDepot::mountWriter(b.map, root.path());
    EXPECT_THAT(b.statuses, testing::ElementsAre(KilnDepot::MountStatus::writer));
    EXPECT_EQ(b.map.table().rootPath(), root.path() + "/T/coll");
    EXPECT_EQ(b.value(1), 1u);
    b.map.safeWrite(rec(3, 1));
  }
  EXPECT_TRUE(Depot::sharedTableExists(root.path() + "/T/coll"));

  // Locally written records join only where the table lacks their key.
  Bound again;
  again.map.safeWrite(rec(1, 2));
  again.map.safeWrite(rec(4, 2));
  KilnDepot::mountWriter(again.map, root.path());
  EXPECT_EQ(again.value(1), 1u);
  EXPECT_EQ(again.value(2), 1u);
  EXPECT_EQ(again.value(3), 1u);
  EXPECT_EQ(again.value(4), 2u);
  EXPECT_EQ(again.map.table().occupancy(), 4u);
}

TEST(Mount, ReaderReadsTheWritersRecordsAndRefusesWrites) {
  TempRoot root;
  Bound writer;
  writer.map.safeWrite(rec(1, 7));
  KilnDepot::mountWriter(writer.map, root.path());

  Bound reader;
  reader.map.safeWrite(rec(9, 9));  // local, dropped by the mount
  KilnDepot::mountReader(reader.map, root.path());
  EXPECT_THAT(reader.statuses, testing::ElementsAre(KilnDepot::MountStatus::reader));
  EXPECT_EQ(reader.value(1), 7u);
  EXPECT_EQ(reader.map.get(keyOf(9)).key, Key{});
  writer.map.safeWrite(rec(1, 8));
  EXPECT_EQ(reader.value(1), 8u);
  try {
    reader.map.safeWrite(rec(2, 1));
    ADD_FAILURE() << "a reader wrote";
  } catch (const Depot::AccessException& e) {
    EXPECT_STREQ(e.what(), "invalid attempt to write scratchpad as reader");
  }
}

TEST(Mount, AFailedMountKeepsTheLocalTableAndSaysSo) {
  TempRoot root;
  Bound reader;
  reader.map.safeWrite(rec(1, 1));
  EXPECT_THROW(KilnDepot::mountReader(reader.map, root.path()), Depot::SharedFileException);
  EXPECT_EQ(reader.map.mountStatus(), KilnDepot::MountStatus::failed);
  EXPECT_TRUE(reader.map.table().isWriter());
  EXPECT_EQ(reader.value(1), 1u);

  Bound first, second;
  KilnDepot::mountWriter(first.map, root.path());
  try {
    KilnDepot::mountWriter(second.map, root.path());
    ADD_FAILURE() << "two writers mounted";
  } catch (const Depot::WriterBusyException& e) {
    EXPECT_THAT(e.what(), HasSubstr("already has a writer"));
  }
  EXPECT_THAT(second.statuses, testing::ElementsAre(KilnDepot::MountStatus::failed));
}

TEST(Mount, DamageReadsAsTheDefaultRecordAndIsReported) {
  TempRoot root;
  Bound writer;
  for (U8 k = 0; k < 20; ++k) writer.map.safeWrite(rec(k, 1));
  KilnDepot::mountWriter(writer.map, root.path());
  Bound reader;
  KilnDepot::mountReader(reader.map, root.path());

  // Fill every empty index entry: no probe for an absent key ends.
  std::string path = root.path() + "/T/coll";
  int fd = open(path.c_str(), O_RDWR);
  Depot::SharedTableStats s = dynamic_cast<const Depot::SharedTable&>(reader.map.table()).stats();
  std::vector<U32> index(s.indexEntries);
  ASSERT_EQ(pread(fd, index.data(), index.size() * 4, 4096), ssize_t(index.size() * 4));
  for (U32& e : index)
    if (e == 0) e = U32(0xFFFFFFFFu << std::bit_width(s.capacity)) | 1u;
  ASSERT_EQ(pwrite(fd, index.data(), index.size() * 4, 4096), ssize_t(index.size() * 4));
  close(fd);

  Rec got = reader.map.get(keyOf(200));
  EXPECT_EQ(got.key, Key{});
  EXPECT_EQ(reader.map.table().corruptionCount(), 1u);
}

TEST(Mount, CollectionPathsStayUnderTheRoot) {
  EXPECT_EQ(KilnDepot::collectionPath("T/trieNode", "/r"), "/r/T/trieNode");
  EXPECT_EQ(KilnDepot::collectionPath("a/b/trieNode6", "/r"), "/r/a/b/trieNode6");
  for (const char* bad : {"", "/T/trieNode", "../trieNode", "T/../../x", "T//trieNode", "T/./trieNode", "T/"})
    EXPECT_THROW(KilnDepot::collectionPath(bad, "/r"), Basis::RangeException) << bad;
}

}  // namespace
