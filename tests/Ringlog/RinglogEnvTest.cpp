#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <string>

#include "Ringlog/Ringlog.h"

namespace {

TEST(RinglogEnvTest, environmentNamesTheFileAtFirstUse) {
  const std::string path = testing::TempDir() + "ringlog_env.ring";
  std::remove(path.c_str());
  ::setenv("RINGLOG_FILE", path.c_str(), 1);
  EXPECT_TRUE(Ringlog::active());
  ::unsetenv("RINGLOG_FILE");
  for (int i = 0; i < 3; ++i) {
    RINGLOG_BLOCK("/src/Env", "void env()");
  }
  const auto summary = Ringlog::summarize(path);
  ASSERT_EQ(summary.size(), 1u);
  EXPECT_EQ(summary[0].path, "/src/Env");
  EXPECT_EQ(summary[0].count, 3u);
  Ringlog::ringFileIs("");
  EXPECT_FALSE(Ringlog::active());
  std::remove(path.c_str());
}

}  // namespace
