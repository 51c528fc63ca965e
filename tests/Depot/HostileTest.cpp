// Shared tables among users who plant things: FIFOs, symbolic links, leftovers under near names, directories of
// another user or open to all, read locks of another user, and writers that are killed.
#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>

#include <filesystem>
#include <fstream>

#include "Depot/SharedTableFile.h"
#include "support/Process.h"
#include "support/TempRoot.h"

namespace fs = std::filesystem;
namespace {

const Depot::RecordLayout node{"test::Node", 29, 4, 5};
std::array<U8, 29> record(U8 k) { return {0, 0, 0, 0, k, 1, 2, 3, 4, 5, k}; }
auto writer(const Depot::TablePath& t) { return Depot::SharedTable::writerNew(node, t); }
auto reader(const Depot::TablePath& t) { return Depot::SharedTable::readerNew(node, t); }
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
TEST(Hostile, NothingButARegularFileUnderItsOwnNameIsOpenedOrRemoved) {
  testkit::TempRoot root;
  const Depot::TablePath table{root.path, "T/trieNode"}, victim{root.path, "V/trieNode"};
  const std::string path = table.path;
  writer(victim)->write(record(1).data());
  const std::set<std::string> victimFiles = listing(root.file("V"));
  fs::create_directory(root.file("T"));
  ASSERT_EQ(mkfifo(path.c_str(), 0644), 0);
  for (const auto& open : std::initializer_list<std::function<void()>>{[&] { reader(table); }, [&] { writer(table); }, [&] { Depot::sharedTableDrop(table); }})
    EXPECT_EQ(refused(open, path + " is a FIFO, not a table file"), 0);
  for (const std::string& target : {victim.path, root.file("nothing")}) {
    fs::remove(path), fs::create_symlink(target, path);
    const std::string says = path + (target == victim.path ? " is a symbolic link" : " is a dangling symbolic link");
    EXPECT_EQ(refused([&] { reader(table); }, says) + refused([&] { writer(table); }, says), 0) << target;
    EXPECT_EQ(refused([&] { Depot::sharedTableDrop(table); }, says), 0) << target;
  }
  fs::remove_all(root.file("T")), fs::create_directory_symlink(root.file("V"), root.file("T"));
  for (const auto& open : std::initializer_list<std::function<void()>>{[&] { reader(table); }, [&] { writer(table); },
           [&] { Depot::sharedTableDrop(table); }, [&] { Depot::sharedTableExists(table); }})
    EXPECT_EQ(refused(open, root.file("T") + " is a symbolic link"), 0);
  std::array<U8, 29> got{};
  EXPECT_TRUE(listing(root.file("V")) == victimFiles && reader(victim)->find(record(1).data() + 4, got.data()) && got == record(1));

  // Leftovers are the exact names of an earlier writer's growth, and of its creation while its process is gone.
  fs::remove(root.file("T")), writer(table);
  const std::string mine = fmt::format("trieNode.new-{}", getpid());
  for (const std::string name : {"trieNode.gamma", "trieNode.g7", "trieNode.new-4194303", mine.c_str(), "trieNode6"}) std::ofstream(root.file("T/" + name)) << "x";
  writer(table);
  EXPECT_EQ(listing(root.file("T")), (std::set<std::string>{"trieNode", "trieNode.lock", "trieNode.gamma", mine, "trieNode6"}));
  Depot::sharedTableDrop(table);
  EXPECT_EQ(listing(root.file("T")), (std::set<std::string>{"trieNode.gamma", mine, "trieNode6"}));
}

// A root or trie directory that another user could change is refused, naming it, its mode and owner and this user.
TEST(Hostile, ADirectoryOfAnotherUserOrOpenToAllIsRefused) {
  testkit::TempRoot root;
  const Depot::TablePath table{root.path, "T/trieNode"};
  const std::string path = table.path, trie = root.file("T");
  writer(table);
  chmod(trie.c_str(), 0777);
  const std::string openToAll = fmt::format("refusing the directory {}: every user may write to it and it is not sticky (mode 0777, owner {}:", trie, geteuid());
  EXPECT_EQ(refused([&] { reader(table); }, openToAll) + refused([&] { writer({root.path, "T/trieNode6"}); }, openToAll), 0);
  EXPECT_NE((chmod(trie.c_str(), 01777), reader(table)), nullptr);  // sticky is fine
  if (geteuid() != 0) GTEST_SKIP() << "acting as another user needs root";
  chmod(root.path.c_str(), 0755), chmod(trie.c_str(), 0700);
  // Another user is told why it may not look, not that there is no table.
  const std::string denied = fmt::format("cannot look up {}: permission denied by the directory {} (mode 0700, owner 0:0, this process runs as 65534:65534)", path, trie);
  EXPECT_EQ(testkit::Child([&] { return asNobody() ? refused([&] { Depot::sharedTableExists(table); }, denied) : 3; }).wait(), 0);
  for (const std::string& dir : {trie, root.path}) {
    ASSERT_EQ(chown(dir.c_str(), 65534, 65534), 0);
    const std::string foreign = fmt::format("refusing the directory {}: it belongs to another user (mode {:04o}, owner 65534:65534, this process runs as 0:0; DEPOT_TRUSTED_USERS may name that user)", dir, dir == trie ? 0700 : 0755);
    EXPECT_EQ(refused([&] { reader(table); }, foreign) + refused([&] { writer(table); }, foreign), 0) << dir;
    setenv("DEPOT_TRUSTED_USERS", "daemon, nobody", 1);  // a monitoring tool reading a daemon's tables
    EXPECT_NE(reader(table), nullptr) << dir;
    unsetenv("DEPOT_TRUSTED_USERS");
    chown(dir.c_str(), 0, 0);
  }
}

// Another user's read lock on the table file does not hold the writer off, and it cannot open the lock file. A writer
// that is killed is gone for readers (which stop waiting for a slot it left busy) and for the next writer alike; a pid
// alive again under another start time is not the writer.
TEST(Hostile, NoReaderLocksOutTheWriterAndAKilledWriterIsGoneForEveryone) {
  testkit::TempRoot root;
  const std::string path = root.file("T/trieNode");
  writer(path)->write(record(1).data());
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
    auto w = writer(path);
    EXPECT_EQ(refused([&] { writer(path); }, fmt::format("{} already has a writer (pid {})", path, getpid())), 0);
  }
  testkit::Child w([&] { return writer(path)->write(record(2).data()), ++c->done, pause(); });
  ASSERT_TRUE(testkit::eventually([&] { return c->done == 1; }));
  auto m = Depot::sharedfile::Mapping::attach(open(path.c_str(), O_RDWR), path, node, true);
  m->seqWord(0) |= Depot::sharedfile::seqBusy;  // as if the writer were changing the slot
  auto findBusy = [&] { reader(path)->find(record(1).data() + 4, std::array<U8, 29>().data()); };
  testkit::Child waiting([&] { const int r = refused<Depot::CorruptionException>(findBusy, "half-written"); return ++c->answered, r; });
  std::this_thread::sleep_for(std::chrono::milliseconds(300));
  EXPECT_EQ(c->answered, 0u);  // waits while the writer lives
  w.kill9();
  EXPECT_EQ(waiting.wait(std::chrono::seconds(10)), 0);
  m->header().writerPid = U32(getpid()), m->header().writerStart = Depot::sharedfile::thisProcess().start + 1;
  EXPECT_EQ(refused<Depot::CorruptionException>(findBusy, "half-written"), 0);
  EXPECT_EQ(writer(path)->corruptionCount(), 1u);  // at once, dropping the busy slot
}
