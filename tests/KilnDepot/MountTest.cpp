// Mounting a collection binding on its shared table, as writer and reader.
#include <fcntl.h>
#include <gmock/gmock.h>

#include "Depot/SharedTableFile.h"
#include "KilnDepot/Mount.h"
#include "support/TempRoot.h"

using KilnDepot::MountStatus, Basis::U8, Basis::U32, Basis::U64;
using Key = std::array<U8, 5>;
struct Rec { U32 value; Key key; };
Key key(U8 k) { return {10, 0, 0, k, 32}; }
constexpr U32 absent = 99;  // the default record's value

// A binding named "T/coll" holding the given local records (key -> value).
struct Bound {
  Bound(std::initializer_list<std::pair<U8, U32>> local = {}) {
    map.setUp(owner, nullptr);
    for (auto [k, v] : local) map.safeWrite({v, key(k)});
  }
  std::vector<U32> values(U8 upTo = 4) const {
    std::vector<U32> v;
    for (U8 k = 1; k <= upTo; ++k) v.push_back(map.get(key(k)).value);
    return v;
  }
  Kiln::Entity owner{"T"};
  KilnDepot::KilnDepotMap<Key, Rec> map{"coll", {"test::Rec", sizeof(Rec), 4, 5}, Rec{absent, {}}, {}};
};

// A writer carries its local records over where the table lacks their key; a reader drops its own, reads the
// writer's and refuses writes; a restarted writer finds the table as it was left. Damage reads as the default record
// and is reported.
TEST(Mount, WriterAndReaderShareTheTableARestartKeepsItAndDamageReadsAsTheDefault) {
  testkit::TempRoot root;
  Bound reader{{4, 9}};
  {
    Bound writer{{1, 1}, {2, 1}};
    KilnDepot::mountWriter(writer.map, root.path);
    KilnDepot::mountReader(reader.map, root.path);
    writer.map.safeWrite({1, key(3)});
    EXPECT_EQ(std::tuple(writer.map.mountStatus(), reader.map.mountStatus(), writer.map.table().rootPath(), reader.values()),
              std::tuple(MountStatus::writer, MountStatus::reader, root.file("T/coll"), std::vector{1u, 1u, 1u, absent}));
    EXPECT_THROW(reader.map.safeWrite({1, key(4)}), Depot::AccessException);
    EXPECT_THROW(reader.map.safeRemove(key(1)), Depot::AccessException);
  }
  Bound again{{1, 2}, {4, 2}};
  KilnDepot::mountWriter(again.map, root.path);
  EXPECT_EQ(std::pair(again.values(5), reader.values(5)), std::pair(std::vector{1u, 1u, 1u, 2u, absent}, std::vector{1u, 1u, 1u, 2u, absent}));
  auto file = Depot::sharedfile::Mapping::attach(open(root.file("T/coll").c_str(), O_RDWR), root.file("T/coll"), again.map.layout(), true);
  for (U64 i = 0; i < file->geometry().indexEntries; ++i)  // no empty entry left: no probe for an absent key ends
    file->indexEntry(i) = file->indexEntry(i) ? file->indexEntry(i) : ~0u << file->geometry().slotBits | 1;
  EXPECT_EQ(reader.values(5), (std::vector{1u, 1u, 1u, 2u, absent}));
  EXPECT_EQ(reader.map.table().corruptionCount(), 1u);
}

TEST(Mount, AFailedMountKeepsTheLocalTableAndSaysSo) {
  testkit::TempRoot root;
  Bound reader{{1, 1}}, first, second{{2, 2}};
  EXPECT_THROW(KilnDepot::mountReader(reader.map, root.path), Depot::SharedFileException);  // no table yet
  KilnDepot::mountWriter(first.map, root.path);
  EXPECT_THROW(KilnDepot::mountWriter(second.map, root.path), Depot::WriterBusyException);
  EXPECT_EQ(std::pair(reader.map.mountStatus(), second.map.mountStatus()), std::pair(MountStatus::failed, MountStatus::failed));
  EXPECT_EQ(std::tuple(reader.values(2), second.values(2), first.values(2)), std::tuple(std::vector{1u, absent}, std::vector{absent, 2u}, std::vector{absent, absent}));
}
