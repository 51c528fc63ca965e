// Shared tables in a hostile environment: FIFOs, symbolic links, leftovers under near names, directories of another user
// or open to all, read locks of another user, forged header fields and journals, and writers that are killed or stopped.
#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>

#include <filesystem>
#include <fstream>

#include "Tables.h"
#include "support/Process.h"

namespace fs = std::filesystem;
using testing::HasSubstr;
using testing::ThrowsMessage;
class Hostile : public TableFixture {};
namespace {

auto writerOf(const Depot::TablePath& t) { return Depot::SharedTable::writerNew(node4, t); }
auto readerOf(const Depot::TablePath& t) { return Depot::SharedTable::readerNew(node4, t); }
bool asNobody() { return setgid(65534) == 0 && setuid(65534) == 0; }

// Runs fn in a child: 0 when it raised E saying `says` within 5 s, -1 when it hung.
template <class E = Depot::SharedFileException>
int refused(const std::function<void()>& fn, const std::string& says) {
  return testkit::Child([&] {
    try { fn(); } catch (const E& e) { return std::string(e.what()).find(says) != std::string::npos ? 0 : (fmt::print(stderr, "{}\n", e.what()), 1); }
    return 2;
  }).wait(std::chrono::seconds(5));
}
std::set<std::string> listing(const std::string& dir, std::set<std::string> names = {}) {
  for (const auto& e : fs::directory_iterator(dir)) names.insert(e.path().filename());
  return names;
}

}  // namespace

// Nothing but a regular file under exactly its name is opened or removed: a FIFO is refused at once by readers, writers
// and drop alike; a symbolic link (dangling or not) in place of a table or of its directory is never followed.
TEST_F(Hostile, NothingButARegularFileUnderItsOwnNameIsOpenedOrRemoved) {
  const Depot::TablePath table{root.path, "T/trieNode"}, victim{root.path, "V/trieNode"};
  const std::string path = table.path;
  put(*writerOf(victim), 1, 1);
  const std::set<std::string> victimFiles = listing(root.file("V"));
  fs::create_directory(root.file("T"));
  ASSERT_EQ(mkfifo(path.c_str(), 0644), 0);
  for (const auto& open : std::initializer_list<std::function<void()>>{[&] { readerOf(table); }, [&] { writerOf(table); }, [&] { Depot::sharedTableDrop(table); }})
    EXPECT_EQ(refused(open, path + " is a FIFO, not a table file"), 0);
  for (const std::string& target : {victim.path, root.file("nothing")}) {
    fs::remove(path), fs::create_symlink(target, path);
    const std::string says = path + (target == victim.path ? " is a symbolic link" : " is a dangling symbolic link");
    EXPECT_EQ(refused([&] { readerOf(table); }, says) + refused([&] { writerOf(table); }, says), 0) << target;
    EXPECT_EQ(refused([&] { Depot::sharedTableDrop(table); }, says), 0) << target;
  }
  fs::remove_all(root.file("T")), fs::create_directory_symlink(root.file("V"), root.file("T"));
  for (const auto& open : std::initializer_list<std::function<void()>>{[&] { readerOf(table); }, [&] { writerOf(table); },
           [&] { Depot::sharedTableDrop(table); }, [&] { Depot::sharedTableExists(table); }})
    EXPECT_EQ(refused(open, root.file("T") + " is a symbolic link"), 0);
  EXPECT_TRUE(listing(root.file("V")) == victimFiles && version(*readerOf(victim), 1) == 1);

  // Leftovers are the exact names of an earlier writer's growth, and of its creation while its process is gone.
  fs::remove(root.file("T")), writerOf(table);
  const std::string mine = fmt::format("trieNode.new-{}", getpid());
  for (const std::string name : {"trieNode.gamma", "trieNode.g7", "trieNode.new-4194303", mine.c_str(), "trieNode6"}) std::ofstream(root.file("T/" + name)) << "x";
  fs::create_symlink(victim.path, root.file("T/trieNode.g9"));  // under a leftover's name, but no regular file
  writerOf(table);
  EXPECT_EQ(listing(root.file("T")), (std::set<std::string>{"trieNode", "trieNode.lock", "trieNode.gamma", mine, "trieNode6", "trieNode.g9"}));
  Depot::sharedTableDrop(table);
  EXPECT_EQ(listing(root.file("T")), (std::set<std::string>{"trieNode.gamma", mine, "trieNode6", "trieNode.g9"}));
}

// A root or trie directory that another user could change is refused, naming it, its mode and owner and this user.
TEST_F(Hostile, ADirectoryOfAnotherUserOrOpenToAllIsRefused) {
  const Depot::TablePath table{root.path, "T/trieNode"};
  const std::string path = table.path, trie = root.file("T");
  writerOf(table);
  chmod(trie.c_str(), 0777);
  const std::string openToAll = fmt::format("refusing the directory {}: every user may write to it and it is not sticky (mode 0777, owner {}:", trie, geteuid());
  EXPECT_EQ(refused([&] { readerOf(table); }, openToAll) + refused([&] { writerOf({root.path, "T/trieNode6"}); }, openToAll), 0);
  EXPECT_NE((chmod(trie.c_str(), 01777), readerOf(table)), nullptr);  // sticky is fine
  if (geteuid() != 0) GTEST_SKIP() << "acting as another user needs root";
  chmod(root.path.c_str(), 0755), chmod(trie.c_str(), 0700);
  // Another user is told why it may not look, not that there is no table.
  const std::string denied = fmt::format("cannot look up {}: permission denied by the directory {} (mode 0700, owner 0:0, this process runs as 65534:65534)", path, trie);
  EXPECT_EQ(testkit::Child([&] { return asNobody() ? refused([&] { Depot::sharedTableExists(table); }, denied) : 3; }).wait(), 0);
  for (const std::string& dir : {trie, root.path}) {
    ASSERT_EQ(chown(dir.c_str(), 65534, 65534), 0);
    const std::string foreign = fmt::format("refusing the directory {}: it belongs to another user (mode {:04o}, owner 65534:65534, this process runs as 0:0; DEPOT_TRUSTED_USERS may name that user)", dir, dir == trie ? 0700 : 0755);
    EXPECT_EQ(refused([&] { readerOf(table); }, foreign) + refused([&] { writerOf(table); }, foreign), 0) << dir;
    setenv("DEPOT_TRUSTED_USERS", "daemon, nobody", 1);  // a monitoring tool reading a daemon's tables
    EXPECT_NE(readerOf(table), nullptr) << dir;
    unsetenv("DEPOT_TRUSTED_USERS");
    chown(dir.c_str(), 0, 0);
  }
}

// Another user's read lock on the table file does not hold the writer off, and it cannot open the lock file. A writer
// that is killed is gone for readers (which stop waiting for a slot it left busy) and for the next writer alike; a pid
// alive again under another start time is not the writer.
TEST_F(Hostile, NoReaderLocksOutTheWriterAndAKilledWriterIsGoneForEveryone) {
  const std::string path = root.file("T/trieNode");
  put(*writerOf(path), 1, 1);
  testkit::SharedCounters c;
  if (geteuid() == 0) {
    chmod(root.path.c_str(), 0755);
    testkit::Child locker([&] {
      const int fd = asNobody() ? open(path.c_str(), O_RDONLY) : -1;
      struct flock fl {};
      fl.l_type = F_RDLCK;  // taken through a read-only descriptor
      if (fd < 0 || fcntl(fd, F_OFD_SETLK, &fl) != 0 || open((path + ".lock").c_str(), O_RDONLY) >= 0 || errno != EACCES) return 3;
      return ++c->ready, pause();
    });
    ASSERT_TRUE(testkit::eventually([&] { return c->ready == 1; }));
    auto w = writerOf(path);
    std::ofstream(path + ".lock", std::ios::app) << std::string(200, ' ');  // a lock file longer than its reader expects
    EXPECT_EQ(refused([&] { writerOf(path); }, fmt::format("{} already has a writer (pid {})", path, getpid())), 0);
  }
  testkit::Child w([&] { return put(*writerOf(path), 2, 1), ++c->done, pause(); });
  ASSERT_TRUE(testkit::eventually([&] { return c->done == 1; }));
  auto m = damageable(path);
  m->seqWord(0) |= Depot::sharedfile::seqBusy;  // as if the writer were changing the slot
  auto findBusy = [&] { version(*readerOf(path), 1); };
  testkit::Child waiting([&] { const int r = refused<Depot::CorruptionException>(findBusy, "half-written"); return ++c->answered, r; });
  std::this_thread::sleep_for(std::chrono::milliseconds(300));
  EXPECT_EQ(c->answered, 0u);  // waits while the writer lives
  w.kill9();
  EXPECT_EQ(waiting.wait(std::chrono::seconds(10)), 0);
  m->header().writerPid = U32(getpid()), m->header().writerStart = Depot::sharedfile::thisProcess().start + 1;
  EXPECT_EQ(refused<Depot::CorruptionException>(findBusy, "half-written"), 0);
  EXPECT_EQ(writerOf(path)->corruptionCount(), 1u);  // at once, dropping the busy slot
}

// A reopening writer recounts what the header says (a high-water mark below a slot in use is damage it repairs) and
// replays a journal only if each entry is the one written for the unfinished update; else it leaves the file as it is.
TEST_F(Hostile, AReopeningWriterRecountsTheHeaderAndRefusesAJournalItCannotTrust) {
  auto w = writer(100);
  std::map<U32, U32> model;
  for (U32 k = 1; k <= 60; ++k) put(*w, k, 1), model[k] = 1;
  for (U32 k = 2; k <= 60; k += 7) drop(*w, k), model.erase(k);
  const Depot::SharedTableStats sound = (w->stats()); w.reset(); auto m = damageable(path);
  std::tie(m->header().highWater, m->header().occupancy, m->header().tombstones, m->header().journalCount) = std::tuple(0, 7, 999, 5);
  EXPECT_THAT(Depot::sharedTableProblems(node4, path), testing::ElementsAre(fmt::format(
                  "{}: high-water mark 0 is below slot {}, which is in use; its next writer repairs it", path, sound.highWater - 1)));
  const Depot::SharedTableStats s = (w = writer())->stats();
  EXPECT_EQ(std::tuple(s.occupancy, s.highWater, s.tombstones, w->corruptionCount(), m->header().journalCount, contents(*reader())),
            std::tuple(sound.occupancy, sound.highWater, sound.tombstones, U64(1), 0u, model));
  const auto bytes = [&] { std::ifstream in(path, std::ios::binary); return std::string(std::istreambuf_iterator<char>(in), {}); };
  const std::string good = (put(*w, 70, 1), w.reset(), bytes());  // the last update's journal (70 was absent) stays in it
  auto journal = [&](std::vector<std::pair<U32, Rec>> entries) {  // of an update left unfinished, with matching checksums
    std::ofstream(path, std::ios::binary) << good;
    m = damageable(path), m->header().updateCounter |= 1, m->header().journalCount = U32(entries.size());
    for (U32 i = 0; i < entries.size(); ++i)
      std::memcpy(m->journalRecord(i), entries[i].second.data(), node4.recordSize), m->journalFlags(i) = entries[i].first,
      m->journalCheck(i) = Depot::sharedfile::journalChecksum(m->header().updateCounter, i, entries[i].first, entries[i].second.data(), node4.recordSize);
  };  // FNV-1a byte by byte, as every reader and later writer of a file checks it
  EXPECT_EQ(Depot::sharedfile::journalChecksum(0x10003, 5, 1, recordOf(node4, 70, 1).data(), node4.recordSize), 0xfb21815eu);
  for (const auto& [damage, says] : std::vector<std::pair<std::function<void()>, std::string>>{
           {[&] { journal({}), m->header().journalCount = 1; }, "0 of 1 (checksum mismatch)"},  // the last update's entry
           {[&] { journal({{2, recordOf(node4, 70, 1)}}); }, "0 of 1 (unknown flags 0x2)"},
           {[&] { journal({{0, recordOf(node4, 70, 1)}}); }, "0 of 1 (the entry of an absent record holds more than its key)"},
           {[&] { journal({{1, recordOf(node4, 3, 1)}, {1, recordOf(node4, 3, 2)}}); }, "1 of 2 (its key is entry 0's too)"}}) {
    const std::string damaged = (damage(), bytes()), message = path + ": damaged journal entry " + says;
    EXPECT_THAT([&] { writer(); }, ThrowsMessage<Depot::SharedFileException>(HasSubstr(message)));
    EXPECT_EQ(std::pair(bytes() == damaged, Depot::sharedTableProblems(node4, path).at(0)), std::pair(true, message + ": the unfinished update cannot be undone; its writer refuses it"));
  }
}

// A writer stopped in the middle of writing a slot holds a reader of that slot only until the reader's deadline.
TEST_F(Hostile, AWriterStoppedMidSlotHoldsItsReadersOnlyUntilTheirDeadline) {
  for (auto w = writer(); U32 k : {1u, 2u}) put(*w, k, 1);
  testkit::SharedCounters c;
  testkit::Child stopped([&] {
    auto w = writer();
    damageable(path)->seqWord(0) |= Depot::sharedfile::seqBusy;  // key 1's slot
    return ++c->ready, pause();
  });
  ASSERT_TRUE(testkit::eventually([&] { return c->ready == 1; }));
  auto r = Depot::SharedTable::readerNew(node4, path, {.stuckAfterMs = 100});
  EXPECT_THAT([&] { version(*r, 1); }, ThrowsMessage<Depot::WriterStuckException>(testing::ContainsRegex(
                                            "the writer \\(pid [1-9][0-9]*\\) has kept slot 0 busy for over 100 ms")));
  EXPECT_EQ(version(*r, 2), 1u);
}
