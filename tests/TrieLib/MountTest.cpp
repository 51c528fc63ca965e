// Tries on shared tables: a writer process and reader processes on the same
// trie, restarts, processes killed on the spot, and bad files.
#include <fmt/format.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <functional>
#include <random>
#include <set>
#include <string>
#include <vector>

#include "Depot/SharedTable.h"
#include "TrieLib/TrieMount.h"
#include "TrieLib/TrieCheck.h"
#include "TrieProcessSupport.h"

using namespace Routing::Lattice;
using Addrkit::IpGenPrefix;
using Addrkit::Ip6Address;
using Addrkit::Ip6Prefix;
using Addrkit::Prefix;
using testing::HasSubstr;

namespace {

using trietest::TempRoot;

// Clustered prefixes of both families, so that they nest and share edges.
struct PrefixSet {
  std::vector<IpGenPrefix> list;
  std::set<std::string> text;

  PrefixSet(U32 seed, size_t v4, size_t v6) {
    std::mt19937 rng(seed);
    std::vector<U32> bases;
    for (int i = 0; i < 24; ++i) bases.push_back(U32(rng()));
    while (list.size() < v4) {
      U32 host = bases[rng() % bases.size()] ^ (rng() & (0xFFFFFFFFu >> (8 + rng() % 24)));
      Prefix p = Prefix::masked(host, 8 + rng() % 25);
      if (p == nullPrefix || (p.addrHost() == 0 && p.len() >= 31) || p == marker.v4()) continue;
      add(p);
    }
    while (list.size() < v4 + v6) {
      Ip6Address a;
      a.wordIs(0, 0x20010000u | (rng() % 16));
      for (unsigned w = 1; w < 4; ++w) a.wordIs(w, w == 1 ? U32(rng() % 64) << 16 : U32(rng()));
      add(Ip6Prefix::masked(a, 16 + rng() % 65));
    }
  }
  void add(const IpGenPrefix& p) {
    if (text.insert(p.stringValue()).second) list.push_back(p);
  }
  bool has(const IpGenPrefix& p) const { return text.count(p.stringValue()) != 0; }

  // Written last by the writer: once a reader finds it, the writer is done.
  static inline const IpGenPrefix marker{"203.0.113.0/24"};
};

bool covers(const IpGenPrefix& outer, const IpGenPrefix& inner) {
  if (outer.af() != inner.af() || outer.len() > inner.len()) return false;
  if (outer.af() == Addrkit::AddressFamily::ipv4)
    return Prefix::masked(inner.v4().addrHost(), outer.len()) == outer.v4();
  return Ip6Prefix::masked(inner.v6().address(), outer.len()) == outer.v6();
}

class Collector : public TrieWalkCallback {
 public:
  WalkAction handleWalkCallback(const IpGenPrefix& p) override {
    seen.insert(p.stringValue());
    return continueWalk;
  }
  std::set<std::string> seen;
};

std::set<std::string> enumerated(const Trie& t) {
  std::set<std::string> seen;
  for (IpGenPrefix start : {IpGenPrefix(nullPrefix), IpGenPrefix(nullPrefix6)})
    for (IpGenPrefix p = t.getNext(start); !p.isEmpty() && seen.size() < 100000; p = t.getNext(p))
      seen.insert(p.stringValue());
  return seen;
}

std::set<std::string> walked(const Trie& t) {
  Basis::Ptr<Collector> c(new Collector);
  t.preOrderWalk(c, IpGenPrefix(rootPrefix));
  t.preOrderWalk(c, IpGenPrefix(rootPrefix6));
  return c->seen;
}

std::set<std::string> textOf(const std::vector<IpGenPrefix>& ps) {
  std::set<std::string> s;
  for (const IpGenPrefix& p : ps) s.insert(p.stringValue());
  return s;
}

const Depot::SharedTable& sharedTable(const Trie& t) {
  return dynamic_cast<const Depot::SharedTable&>(t.trieNodeMap().table());
}

using trietest::spawn;
using trietest::statusOf;

// ---- One process ----

TEST(TrieMount, WriterAndReaderShareATrie) {
  TempRoot root;
  EXPECT_FALSE(trieExists("T", root.options));
  Basis::Ptr<Trie> writer = trieWriterNew("T", root.options);
  EXPECT_TRUE(trieExists("T", root.options));
  EXPECT_EQ(writer->trieNodeControl()->mountStatus(), KilnDepot::MountStatus::writer);
  EXPECT_EQ(writer->trieNode6Control()->mountStatus(), KilnDepot::MountStatus::writer);
  for (const char* p : {"10.0.0.0/8", "10.1.0.0/16", "10.1.2.0/24", "192.168.0.0/16", "2001:db8::/32", "2001:db8:1::/48"})
    writer->prefixIs(IpGenPrefix(p));

  Basis::Ptr<Trie> reader = trieReaderNew("T", root.options);
  EXPECT_EQ(reader->trieNodeControl()->mountStatus(), KilnDepot::MountStatus::reader);
  EXPECT_EQ(reader->lpm(IpGenPrefix("10.1.2.3/32")), IpGenPrefix("10.1.2.0/24"));
  EXPECT_EQ(reader->lpm(IpGenPrefix("10.9.9.9/32")), IpGenPrefix("10.0.0.0/8"));
  EXPECT_EQ(reader->lpm(IpGenPrefix("2001:db8:1:2::1/128")), IpGenPrefix("2001:db8:1::/48"));
  EXPECT_EQ(reader->getNext(IpGenPrefix("10.1.0.0/16")), IpGenPrefix("10.1.2.0/24"));
  EXPECT_EQ(enumerated(*reader), walked(*writer));

  // The reader follows the writer as it goes on.
  writer->prefixDel(IpGenPrefix("10.1.2.0/24"));
  writer->prefixIs(IpGenPrefix("172.16.0.0/12"));
  EXPECT_EQ(reader->lpm(IpGenPrefix("10.1.2.3/32")), IpGenPrefix("10.1.0.0/16"));
  EXPECT_EQ(reader->lpm(IpGenPrefix("172.16.5.5/32")), IpGenPrefix("172.16.0.0/12"));
  EXPECT_EQ(walked(*reader), walked(*writer));
  EXPECT_THAT(checkTrie(*reader), testing::IsEmpty());

  EXPECT_THROW(reader->prefixIs(IpGenPrefix("1.0.0.0/8")), Depot::AccessException);
  try {
    trieWriterNew("T", root.options);
    ADD_FAILURE() << "a second writer mounted";
  } catch (const Basis::Exception& e) {
    EXPECT_THAT(e.what(), HasSubstr(root.file("T/trieNode")));
    EXPECT_THAT(e.what(), HasSubstr("already has a writer"));
  }
  EXPECT_THROW(trieDrop("T", root.options), Basis::Exception);
}

TEST(TrieMount, DropRemovesTheTrieAndModesApply) {
  TempRoot root;
  MountOptions owner = root.options;
  owner.mode = 0600;
  trieWriterNew("T", owner)->prefixIs(IpGenPrefix("10.0.0.0/8"));
  struct stat st {};
  ASSERT_EQ(stat(root.file("T/trieNode6").c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 0777, 0600u);

  // A restarted writer keeps the prefix and its own root record.
  Basis::Ptr<Trie> again = trieWriterNew("T", root.options);
  EXPECT_EQ(again->lpm(IpGenPrefix("10.2.3.4/32")), IpGenPrefix("10.0.0.0/8"));
  again = nullptr;

  trieDrop("T", root.options);
  EXPECT_FALSE(trieExists("T", root.options));
  EXPECT_FALSE(std::filesystem::exists(root.file("T")));
  try {
    trieReaderNew("T", root.options);
    ADD_FAILURE() << "mounted a dropped trie";
  } catch (const Basis::Exception& e) {
    EXPECT_EQ(std::string(e.what()), "no trie named T under " + root.options.root);
  }
  EXPECT_THROW(trieWriterNew("../escape", root.options), Basis::RangeException);
}

TEST(TrieMount, BadFilesGiveClearErrors) {
  TempRoot root;
  trieWriterNew("T", root.options)->prefixIs(IpGenPrefix("10.0.0.0/8"));
  std::filesystem::create_directories(root.file("U"));
  auto fails = [&](const std::function<void()>& f, const std::string& file, const std::string& what) {
    try {
      f();
      ADD_FAILURE() << "no error for " << file;
    } catch (const Basis::Exception& e) {
      EXPECT_THAT(e.what(), HasSubstr(file));
      EXPECT_THAT(e.what(), HasSubstr(what));
    }
  };
  auto reader = [&](const char* name) { return [&, name] { trieReaderNew(name, root.options); }; };
  auto writer = [&](const char* name) { return [&, name] { trieWriterNew(name, root.options); }; };

  // One collection file of two.
  std::filesystem::copy_file(root.file("T/trieNode"), root.file("U/trieNode"));
  fails(reader("U"), root.file("U/trieNode6"), "does not exist");
  // The other family's records under this family's name.
  std::filesystem::copy_file(root.file("T/trieNode"), root.file("U/trieNode6"));
  fails(reader("U"), root.file("U/trieNode6"), "holds Routing::Lattice::TrieNode records");
  fails(writer("U"), root.file("U/trieNode6"), "expected Routing::Lattice::TrieNode6");
  // Cut short, and not a table at all.
  std::filesystem::resize_file(root.file("U/trieNode"), 3000);
  fails(reader("U"), root.file("U/trieNode"), "truncated");
  FILE* f = fopen(root.file("U/trieNode").c_str(), "w");
  for (int i = 0; i < 1000; ++i) fputs("10.0.0.0/8\n", f);
  fclose(f);
  fails(reader("U"), root.file("U/trieNode"), "not a Depot table");
  fails(writer("U"), root.file("U/trieNode"), "not a Depot table");
}

// ---- Several processes ----

// A reader from before the writer starts until it is done: every answer it
// gets names a prefix the writer stores and covers the question; at the end
// it sees exactly the writer's prefixes and a sound trie, in tables that
// grew after it attached.
int followWriter(const std::string& name, const MountOptions& options, const PrefixSet& all, U32 seed, int readyFd) {
  Basis::Ptr<Trie> t = trieReaderNew(name, options);
  const U64 firstCapacity = sharedTable(*t).capacity();
  char one = 1;
  if (write(readyFd, &one, 1) != 1) return 2;
  std::mt19937 rng(seed);
  bool done = false;
  for (U32 i = 0; i < 5'000'000 && !done; ++i) {
    const IpGenPrefix& q = all.list[rng() % all.list.size()];
    IpGenPrefix got = t->lpm(q);
    if (!got.isEmpty() && (!all.has(got) || !covers(got, q))) return 3;
    if (i % 500 == 0) {
      IpGenPrefix next = t->getNext(q);
      if (!next.isEmpty() && !all.has(next) && next != PrefixSet::marker) return 4;
    }
    if (i % 64 == 0) done = t->lpm(IpGenPrefix("203.0.113.7/32")) == PrefixSet::marker;
  }
  if (!done) return 5;
  for (const IpGenPrefix& p : all.list)
    if (t->lpm(p) != p) return 6;
  std::set<std::string> want = all.text;
  want.insert(PrefixSet::marker.stringValue());
  if (enumerated(*t) != want || walked(*t) != want) return 7;
  if (!checkTrie(*t).empty()) return 8;
  return sharedTable(*t).capacity() > firstCapacity ? 0 : 9;
}

TEST(TrieMountProcesses, ReadersFollowAWriterLoadingThousandsOfPrefixes) {
  TempRoot root;
  const PrefixSet all(11, 6000, 2500);
  ASSERT_EQ(statusOf(spawn([&] {
              trieWriterNew("T", root.options)->prefixIs(all.list[0]);
              return 0;
            })),
            0);
  int ready[2];
  ASSERT_EQ(pipe(ready), 0);
  std::vector<pid_t> readers;
  for (U32 n = 0; n < 3; ++n) readers.push_back(spawn([&, n] { return followWriter("T", root.options, all, n, ready[1]); }));
  pid_t writer = spawn([&] {
    char c;
    for (int n = 0; n < 3; ++n)
      if (read(ready[0], &c, 1) != 1) return 2;
    Basis::Ptr<Trie> t = trieWriterNew("T", root.options);
    for (const IpGenPrefix& p : all.list) t->prefixIs(p);
    t->prefixIs(PrefixSet::marker);
    return 0;
  });
  EXPECT_EQ(statusOf(writer), 0);
  for (pid_t pid : readers) EXPECT_EQ(statusOf(pid), 0) << "reader " << pid;
  close(ready[0]);
  close(ready[1]);
}

TEST(TrieMountProcesses, RestartedWritersKeepEveryPrefix) {
  TempRoot root;
  const PrefixSet first(21, 1500, 500), second(22, 1500, 500);
  ASSERT_EQ(statusOf(spawn([&] {
              Basis::Ptr<Trie> t = trieWriterNew("T", root.options);
              for (const IpGenPrefix& p : first.list) t->prefixIs(p);
              return 0;
            })),
            0);
  ASSERT_EQ(statusOf(spawn([&] {
              Basis::Ptr<Trie> t = trieWriterNew("T", root.options);
              for (const IpGenPrefix& p : first.list)
                if (t->lpm(p) != p) return 3;
              for (const IpGenPrefix& p : second.list) t->prefixIs(p);
              for (size_t i = 0; i < 100; ++i) t->prefixDel(first.list[i]);
              return 0;
            })),
            0);
  std::set<std::string> want = textOf(first.list);
  for (const std::string& p : second.text) want.insert(p);
  for (size_t i = 0; i < 100; ++i) want.erase(first.list[i].stringValue());
  Basis::Ptr<Trie> reader = trieReaderNew("T", root.options);
  EXPECT_EQ(enumerated(*reader), want);
  EXPECT_EQ(walked(*reader), want);
  EXPECT_THAT(checkTrie(*reader), testing::IsEmpty());
}

TEST(TrieMountProcesses, KilledWritersAndReadersBlockNobody) {
  TempRoot root;
  const PrefixSet all(31, 2000, 600);
  const size_t half = all.list.size() / 2;
  int loaded[2], never[2];
  ASSERT_EQ(pipe(loaded), 0);
  ASSERT_EQ(pipe(never), 0);
  // The writer is killed between two insertions; the reader in the middle of
  // its lookups.
  pid_t writer = spawn([&] {
    Basis::Ptr<Trie> t = trieWriterNew("T", root.options);
    for (size_t i = 0; i < half; ++i) t->prefixIs(all.list[i]);
    char c = 1;
    if (write(loaded[1], &c, 1) != 1) return 2;
    return read(never[0], &c, 1) == 1 ? 3 : 4;
  });
  char c;
  ASSERT_EQ(read(loaded[0], &c, 1), 1);
  pid_t reader = spawn([&] {
    Basis::Ptr<Trie> t = trieReaderNew("T", root.options);
    for (U32 i = 0;; ++i) {
      if (t->lpm(all.list[i % half]) != all.list[i % half]) return 3;
      if (i == 1000 && write(loaded[1], &c, 1) != 1) return 2;
      if (i > 50'000'000) return 4;
    }
  });
  ASSERT_EQ(read(loaded[0], &c, 1), 1);
  kill(writer, SIGKILL);
  kill(reader, SIGKILL);
  EXPECT_EQ(statusOf(writer), 100 + SIGKILL);
  EXPECT_EQ(statusOf(reader), 100 + SIGKILL);

  ASSERT_EQ(statusOf(spawn([&] {
              Basis::Ptr<Trie> t = trieWriterNew("T", root.options);
              for (size_t i = half; i < all.list.size(); ++i) t->prefixIs(all.list[i]);
              return 0;
            })),
            0);
  Basis::Ptr<Trie> t = trieReaderNew("T", root.options);
  EXPECT_EQ(enumerated(*t), all.text);
  EXPECT_THAT(checkTrie(*t), testing::IsEmpty());
  for (int fd : {loaded[0], loaded[1], never[0], never[1]}) close(fd);
}

}  // namespace
