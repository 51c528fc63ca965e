// The depottrie binary run as a user runs it, for what the session files cannot show: damage made behind the
// tool's back, and a reader and a writer process running at once.
#include <fmt/format.h>
#include <gmock/gmock.h>

#include <fcntl.h>
#include <sys/stat.h>

#include <cstdio>
#include <map>
#include <sstream>

#include "Depot/SharedTableFile.h"
#include "TrieLib/TrieMount.h"
#include "support/Process.h"
#include "support/TempRoot.h"

using testing::HasSubstr;

namespace {

struct Result { int status; std::string out; };  // out: standard output and error together

Result run(const std::string& args, const std::string& input = "") {
  FILE* p = popen(fmt::format("printf '{}' | '{}' {} 2>&1", input, DEPOTTRIE_BIN, args).c_str(), "r");
  std::string out;
  for (int c; (c = fgetc(p)) != EOF;) out += char(c);
  const int rc = pclose(p);
  return {WIFEXITED(rc) ? WEXITSTATUS(rc) : -1, out};
}

}  // namespace

// check names damage that a live writer made to the records and, once that writer is gone, a journal its next
// writer refuses (the last update's, made current again: its checksum no longer matches); the tool's writer refuses it.
TEST(DepottrieCli, CheckNamesDamageToTheRecordsAndAJournalTheNextWriterRefuses) {
  testkit::TempRoot root;
  const std::string shared = "--root " + root.path + " ", file = root.file("t/trieNode");
  ASSERT_EQ(run(shared + "batch --name t --mode 0600", "add 10.0.0.0/8\\nadd 11.0.0.0/8\\n").status, 0);
  auto writer = Routing::Lattice::trieWriterNew("t", {.root = root.path});
  Routing::Lattice::TrieNode split = writer->trieNode(Addrkit::Prefix("8.0.0.0/6"));
  split.child01Is(Addrkit::Prefix("9.0.0.0/8")), writer->trieNodeIs(split);
  const Result damaged = run(shared + "check --name t");  // and the tool's --mode made it the owner's alone
  EXPECT_EQ(std::tuple(damaged.status, damaged.out.find("child 9.0.0.0/8 is not stored\n") != std::string::npos, std::filesystem::status(file).permissions()), std::tuple(1, true, std::filesystem::perms(0600)));
  const Depot::RecordLayout layout = writer->trieNodeMap().table().layout();
  writer = nullptr;
  auto m = Depot::sharedfile::Mapping::attach(open(file.c_str(), O_RDWR), file, layout, true);
  m->header().updateCounter |= 1, m->header().journalCount = 1, m.reset();
  const Result check = run(shared + "check --name t"), load = run(shared + "batch --name t", "add 12.0.0.0/8\\n");
  const std::string says = file + ": damaged journal entry 0 of 1 (checksum mismatch): the unfinished update cannot be undone";
  EXPECT_EQ(std::tuple(check.status, check.out.find(says + "; its writer refuses it\n") != std::string::npos, load.status, load.out), std::tuple(1, true, 1, "depottrie: " + says + "\n"));
}

// lookup - answers each query before the next comes while a writer process loads; stats names it, a second is refused.
TEST(DepottrieCli, LookupAnswersAStreamOfQueriesWhileAWriterLoads) {
  testkit::TempRoot root;
  const std::string shared = "--root " + root.path + " ", fifo = root.file("queries");
  FILE* writer = popen(fmt::format("'{}' {} load --name t - >/dev/null", DEPOTTRIE_BIN, shared).c_str(), "w");
  ASSERT_TRUE(testkit::eventually([&] { return std::filesystem::exists(root.file("t/trieNode6")); }));  // the last made
  ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
  FILE* answers = popen(fmt::format("'{}' {} lookup --name t - <{}", DEPOTTRIE_BIN, shared, fifo).c_str(), "r");
  FILE* queries = fopen(fifo.c_str(), "w");
  auto say = [](FILE* to, const std::string& line) { fmt::print(to, "{}\n", line), fflush(to); };
  auto answer = [&](const std::string& query) {  // a reader that waited for more queries would hang here
    char line[256] = "";
    return say(queries, query), std::string(fgets(line, sizeof line, answers) ? line : "the end\n");
  };
  for (size_t i = 0, asked = 0; i < 40; ++i) {
    const std::string query = fmt::format("20.{}.1.1", i), route = fmt::format("20.{}.0.0/16", i);
    std::string got;
    for (say(writer, route); (got = answer(query)) == query + " none\n" && ++asked < 100000;) {}
    ASSERT_EQ(got, query + " " + route + "\n");
  }
  EXPECT_THAT(run(shared + "stats --name t").out + run(shared + "batch --name t", "add 1.0.0.0/8\\n").out,
              testing::AllOf(testing::Not(HasSubstr(" none\n")), HasSubstr("already has a writer (pid ")));
  fclose(queries);
  EXPECT_EQ(std::pair(pclose(writer), pclose(answers)), std::pair(0, 0));
}

// watch follows a writer process through a load that grows the tables: its lines, replayed ("*" forgets, "+" stores,
// "-" removes), end at the routes the writer stored, values included.
TEST(DepottrieCli, WatchFollowsAWriterThroughGrowth) {
  testkit::TempRoot root;
  const std::string shared = "--root " + root.path + " ";
  FILE* writer = popen(fmt::format("'{}' {} load --name t - >/dev/null", DEPOTTRIE_BIN, shared).c_str(), "w");
  ASSERT_TRUE(testkit::eventually([&] { return std::filesystem::exists(root.file("t/changes")); }));
  FILE* watch = popen(fmt::format("'{}' {} watch --name t --after 0 --seconds 2", DEPOTTRIE_BIN, shared).c_str(), "r");
  std::map<std::string, std::string> want, seen;
  for (int i = 0; i < 4000; ++i) {
    const std::string prefix = fmt::format("10.{}.{}.0/24", i / 256, i % 256), value = std::to_string(i % 7 ? i : 0);
    fmt::print(writer, "{} {}\n", prefix, value), want[prefix] = value;
  }
  fmt::print(writer, "10.0.5.0/24 77\n"), want["10.0.5.0/24"] = "77";  // a new value for a stored prefix
  EXPECT_EQ(pclose(writer), 0);
  char line[256];
  while (fgets(line, sizeof line, watch)) {
    std::istringstream words(line);
    std::string sign, prefix, value = "0";
    words >> sign >> prefix >> value;
    if (sign == "*") seen.clear();
    else if (sign == "+") seen[prefix] = value;
    else seen.erase(prefix);
  }
  EXPECT_EQ(pclose(watch), 0);
  EXPECT_EQ(seen, want);
}
