#include <gtest/gtest.h>

#include <cstdlib>
#include <thread>
#include <vector>

#include "Basis/Debug.h"

namespace {

using testing::internal::CaptureStderr;
using testing::internal::GetCapturedStderr;

std::vector<U32> enabledLevels(const Basis::DebugHandler& h) {
  std::vector<U32> on;
  for (U32 level = 0; level < 12; ++level) {
    if (h.levelEnabled(level)) on.push_back(level);
  }
  return on;
}

TEST(DebugTest, environmentConfiguresHandlersOnCreation) {
  ::setenv("BASIS_DEBUG", "EnvA/0-2,5,EnvB/v7,Other/3,EnvC/9-9v,EnvA/8", 1);
  Basis::DebugHandler& a = Basis::debugHandler("EnvA");
  Basis::DebugHandler& b = Basis::debugHandler("EnvB");
  Basis::DebugHandler& c = Basis::debugHandler("EnvC");
  Basis::DebugHandler& none = Basis::debugHandler("EnvNone");
  ::unsetenv("BASIS_DEBUG");
  EXPECT_EQ(enabledLevels(a), (std::vector<U32>{0, 1, 2, 5, 8}));
  EXPECT_FALSE(a.verbose());
  EXPECT_EQ(enabledLevels(b), std::vector<U32>{7});
  EXPECT_TRUE(b.verbose());
  EXPECT_EQ(enabledLevels(c), std::vector<U32>{9});
  EXPECT_TRUE(c.verbose());
  EXPECT_TRUE(enabledLevels(none).empty());
  EXPECT_FALSE(none.verbose());
  EXPECT_EQ(&Basis::debugHandler("EnvA"), &a);
  EXPECT_EQ(a.name(), "EnvA");
}

TEST(DebugTest, logWritesEnabledLevelsOnly) {
  Basis::DebugHandler& h = Basis::debugHandler("LogTest");
  h.levelIs(2, true);
  h.levelIs(4, true);
  h.levelIs(4, false);
  CaptureStderr();
  h.log(2, "hello");
  h.log(4, "hidden");
  h.logf(2, "{} + {}", 1, 2);
  h.logf(3, "hidden {}", 3);
  EXPECT_EQ(GetCapturedStderr(), "[LogTest:2] hello\n[LogTest:2] 1 + 2\n");
}

TEST(DebugTest, concurrentCreationYieldsOneHandler) {
  constexpr int threadCount = 8;
  std::vector<Basis::DebugHandler*> seen(threadCount);
  std::vector<std::thread> threads;
  for (int t = 0; t < threadCount; ++t) {
    threads.emplace_back([&seen, t] { seen[t] = &Basis::debugHandler("Concurrent"); });
  }
  for (auto& t : threads) t.join();
  for (auto* h : seen) EXPECT_EQ(h, seen[0]);
}

}  // namespace
