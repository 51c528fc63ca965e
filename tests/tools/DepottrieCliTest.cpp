// The depottrie binary run as a user runs it, for what the session files
// cannot show: help on every command, damage made by a live writer, tracing.
#include <fmt/format.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdio>

#include "TrieLib/TrieMount.h"
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

TEST(DepottrieCli, EveryCommandHasHelp) {
  const Result top = run("--help");
  EXPECT_EQ(top.status, 0);
  for (const char* sub : {"load", "lookup", "list", "next", "stats", "check", "drop", "batch", "bench"}) {
    EXPECT_THAT(top.out, HasSubstr(sub));
    const Result r = run(fmt::format("{} --help", sub));
    EXPECT_EQ(r.status, 0) << sub;
    EXPECT_THAT(r.out, HasSubstr("--name")) << sub;
  }
}

TEST(DepottrieCli, CheckFindsDamageALiveWriterMadeAndASecondWriterIsRefused) {
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
  const Result second = run(shared + "batch --name t", "add 12.0.0.0/8\\n");
  EXPECT_EQ(second.status, 1);
  EXPECT_THAT(second.out, testing::StartsWith("depottrie: "));
  const Result stats = run(shared + "stats --name t");
  EXPECT_THAT(stats.out, HasSubstr("prefixes: 2 IPv4, 0 IPv6"));
}

TEST(DepottrieCli, TraceOptionSwitchesOnLibraryTracing) {
  EXPECT_EQ(run("batch --local", "add 10.0.0.0/8\\n").out, "");
  const Result traced = run("--trace DepotTrie/8 batch --local", "add 10.0.0.0/8\\n");
  EXPECT_EQ(traced.status, 0);
  EXPECT_THAT(traced.out, HasSubstr("[DepotTrie:8] prefixIs4 Inserting prefix: 10.0.0.0/8"));
  EXPECT_EQ(run("--trace DepotTrie/x batch --local").status, 1);
}
