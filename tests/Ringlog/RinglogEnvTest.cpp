#include <gtest/gtest.h>

#include "Ringlog/Ringlog.h"
#include "support/TempRoot.h"

TEST(RinglogEnv, TheEnvironmentNamesTheFileAtFirstUse) {
  testkit::TempRoot root;
  ::setenv("RINGLOG_FILE", root.file("env").c_str(), 1);
  for (int i = 0; i < 3; ++i) { RINGLOG_BLOCK("/src/Env", "void env()"); }
  ::unsetenv("RINGLOG_FILE");
  const std::vector<Ringlog::Summary> all = Ringlog::summarize(root.file("env"));
  EXPECT_TRUE(all.size() == 1 && all[0].count == 3);
}
