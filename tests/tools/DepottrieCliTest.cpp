// The depottrie binary run as a user runs it, for what the session files
// cannot show: damage made by a writer that is still alive.
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
}
