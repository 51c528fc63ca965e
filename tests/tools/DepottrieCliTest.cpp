// The depottrie binary run as a user runs it, for what the session files
// cannot show: damage made by a writer that is still alive.
#include <fmt/format.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <fcntl.h>

#include <cstdio>
#include <fstream>
#include <sstream>

#include "Depot/SharedTableFile.h"
#include "TrieLib/TrieMount.h"
#include "support/Process.h"
#include "support/TempRoot.h"

using testing::HasSubstr;

namespace {

struct Result {
  int status;
  std::string out;  // standard output and error together
};

Result run(const std::string& args, const std::string& input = "") {
  FILE* p = popen(fmt::format("printf '{}' | '{}' {} 2>&1", input, DEPOTTRIE_BIN, args).c_str(), "r");
  Result r{-1, ""};
  char buf[4096];
  for (size_t n; (n = fread(buf, 1, sizeof buf, p)) > 0;) r.out.append(buf, n);
  const int rc = pclose(p);
  r.status = WIFEXITED(rc) ? WEXITSTATUS(rc) : -1;
  return r;
}

}  // namespace

TEST(DepottrieCli, CheckFindsDamageALiveWriterMade) {
  testkit::TempRoot root;
  const std::string shared = "--root " + root.path + " ";
  ASSERT_EQ(run(shared + "batch --name t", "add 10.0.0.0/8\\nadd 11.0.0.0/8\\n").status, 0);
  Routing::Lattice::MountOptions options;
  options.root = root.path;
  auto writer = Routing::Lattice::trieWriterNew("t", options);
  Routing::Lattice::TrieNode split = writer->trieNode(Addrkit::Prefix("8.0.0.0/6"));
  split.child01Is(Addrkit::Prefix("9.0.0.0/8"));
  writer->trieNodeIs(split);
  const Result damaged = run(shared + "check --name t");
  EXPECT_EQ(damaged.status, 1);
  EXPECT_THAT(damaged.out, HasSubstr("child 9.0.0.0/8 is not stored"));
}

// A 0600 trie stays 0600 as the tool, with its default mode, grows it. When the last update's journal is made current
// again its checksum does not match: the writer refuses the trie, and check says why.
TEST(DepottrieCli, ATrieKeepsItsModeAndCheckExplainsAJournalItsWriterRefuses) {
  testkit::TempRoot root;
  const std::string shared = "--root " + root.path + " ", file = root.file("t/trieNode");
  std::string adds;  // enough to grow the IPv4 table
  for (int i = 0; i < 2000; ++i) adds += fmt::format("add {}.{}.0.0/16\\n", 20 + i / 256, i % 256);
  ASSERT_EQ(run(shared + "batch --name t --mode 0600", "add 10.0.0.0/8\\n").status + run(shared + "batch --name t", adds).status, 0);
  auto trie = Routing::Lattice::trieReaderNew("t", {.root = root.path}); const Depot::Table& t = trie->trieNodeMap().table();
  EXPECT_EQ(std::pair(std::filesystem::status(file).permissions(), t.capacity() > 1024), std::pair(std::filesystem::perms(0600), true));
  auto m = Depot::sharedfile::Mapping::attach(open(file.c_str(), O_RDWR), file, t.layout(), true);
  m->header().updateCounter |= 1, m->header().journalCount = 1, m.reset();
  const Result check = run(shared + "check --name t"), load = run(shared + "batch --name t", "add 12.0.0.0/8\\n");
  const std::string says = file + ": damaged journal entry 0 of 1 (checksum mismatch): the unfinished update cannot be undone";
  EXPECT_EQ(std::tuple(check.status, check.out.find(says + "; its writer refuses it\n") != std::string::npos, load.status, load.out), std::tuple(1, true, 1, "depottrie: " + says + "\n"));
}

// A line past 4 KiB is an error of its own in load and batch, quoted by its start; the lines around it count.
TEST(DepottrieCli, AnOverlongLineIsAnErrorOfItsOwnQuotedByItsStart) {
  testkit::TempRoot root;
  const std::string shared = "--root " + root.path + " ", file = root.file("routes"), says = "line longer than 4096 bytes: '";
  std::ofstream(file) << "10.0.0.0/8\n" << std::string(1 << 24, '7') << "\n11.0.0.0/8\n";
  const Result load = run(shared + "load --name t " + file), batch = run(shared + "batch --name t", "lpm 11.1.1.1\\n" + std::string(5000, 'x') + "\\nlpm 10.1.1.1\\n");
  EXPECT_THAT(load.out, HasSubstr(file + ":2: " + says + std::string(40, '7') + "...'\n"));
  EXPECT_EQ(std::tuple(load.out.size() < 1000, batch.status, batch.out),
            std::tuple(true, 1, "11.0.0.0/8\nerror: line 2: " + says + std::string(40, 'x') + "...'\n10.0.0.0/8\n"));
}

// lookup - answers each query as it comes while another process, the trie's writer, loads: every answer is of a
// state between two of its updates. Meanwhile stats names the live writer and a second writer is refused.
TEST(DepottrieCli, LookupAnswersAStreamOfQueriesWhileAWriterLoads) {
  testkit::TempRoot root;
  const std::string shared = "--root " + root.path + " ", answers = root.file("answers");
  FILE* writer = popen(fmt::format("'{}' {} load --name t - >/dev/null", DEPOTTRIE_BIN, shared).c_str(), "w");
  ASSERT_TRUE(testkit::eventually([&] { return Routing::Lattice::trieExists("t", {.root = root.path}); }));
  FILE* reader = popen(fmt::format("'{}' {} lookup --name t - >{}", DEPOTTRIE_BIN, shared, answers).c_str(), "w");
  auto say = [](FILE* to, const std::string& text) { fputs(text.c_str(), to), fflush(to); };
  std::vector<std::string> got;
  auto answered = [&](size_t n) { return testkit::eventually([&] {  // whole lines only
    std::stringstream text;
    text << std::ifstream(answers).rdbuf();
    got.clear();
    for (std::string line; std::getline(text, line) && !text.eof();) got.push_back(line);
    return got.size() == n; }); };
  say(writer, "20.0.0.0/8\n");  // then one query at a time, each answered before the next, until the /8 shows
  for (size_t asked = 1; asked < 10000 && (got.empty() || got.back() == "20.1.2.3 none"); ++asked) {
    say(reader, "20.1.2.3\n");
    ASSERT_TRUE(answered(asked));
  }
  EXPECT_EQ(got.back(), "20.1.2.3 20.0.0.0/8");
  const size_t before = got.size();
  for (int i = 0; i < 4000; ++i) {
    say(writer, fmt::format("20.{}.{}.0/24\n", i / 256, i % 256)), say(reader, fmt::format("20.{}.{}.9\n", i / 256, i % 256));
  }
  ASSERT_TRUE(answered(before + 4000));
  for (int i = 0; i < 4000; ++i) {
    const std::string query = fmt::format("20.{}.{}.9 ", i / 256, i % 256), answer = got[before + i];
    EXPECT_TRUE(answer == query + "20.0.0.0/8" || answer == query + fmt::format("20.{}.{}.0/24", i / 256, i % 256)) << answer;
  }
  EXPECT_THAT(run(shared + "stats --name t").out, testing::Not(HasSubstr(" none\n")));
  EXPECT_THAT(run(shared + "batch --name t", "add 1.0.0.0/8\\n").out, HasSubstr("already has a writer (pid "));
  EXPECT_EQ(std::pair(pclose(writer), pclose(reader)), std::pair(0, 0));
}
