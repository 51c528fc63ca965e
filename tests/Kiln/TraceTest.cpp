#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "Basis/Exception.h"
#include "Kiln/Trace.h"

namespace {

using testing::HasSubstr;

std::vector<U32> levelsOf(const Kiln::TraceHandle& h) {
  std::vector<U32> on;
  for (U32 level = 0; level < 10; ++level) {
    if (h.enabled(level)) on.push_back(level);
  }
  return on;
}

// Collects sink lines for the length of a test, then restores stderr.
class SinkCapture {
 public:
  SinkCapture() {
    Kiln::traceSinkIs([this](std::string_view line) { lines.emplace_back(line); });
  }
  ~SinkCapture() { Kiln::traceSinkIs({}); }
  std::vector<std::string> lines;
};

int formatted = 0;
int countFormat() { return ++formatted; }

TEST(TraceTest, messagesAreBuiltOnlyForEnabledLevels) {
  Kiln::TraceHandle& h = Kiln::traceHandle("TraceGate");
  h.levelsIs((1u << 2) | (1u << 9));
  SinkCapture capture;
  formatted = 0;
  KILN_TRACE(h, 3, "off {}", countFormat());
  KILN_TRACE(h, 0, "off {}", countFormat());
  EXPECT_EQ(formatted, 0);
  KILN_TRACE(h, 2, "on {}", countFormat());
  KILN_TRACE(h, 9, "{} + {}", 1, 2);
  EXPECT_EQ(formatted, 1);
  EXPECT_THAT(capture.lines, testing::ElementsAre("[TraceGate:2] on 1", "[TraceGate:9] 1 + 2"));
  EXPECT_EQ(&Kiln::traceHandle("TraceGate"), &h);
  EXPECT_EQ(h.name(), "TraceGate");
}

TEST(TraceTest, environmentConfiguresNewHandles) {
  ::setenv("KILN_TRACE", "EnvTrA/3,7,EnvTrB/0-9,EnvTrC,EnvTrD/4-6,1,EnvTrA/8", 1);
  Kiln::TraceHandle& a = Kiln::traceHandle("EnvTrA");
  Kiln::TraceHandle& b = Kiln::traceHandle("EnvTrB");
  Kiln::TraceHandle& c = Kiln::traceHandle("EnvTrC");
  Kiln::TraceHandle& d = Kiln::traceHandle("EnvTrD");
  Kiln::TraceHandle& none = Kiln::traceHandle("EnvTrNone");
  ::unsetenv("KILN_TRACE");
  EXPECT_EQ(levelsOf(a), (std::vector<U32>{3, 7, 8}));
  EXPECT_EQ(b.levels(), 0x3ffu);
  EXPECT_EQ(c.levels(), 0x3ffu);
  EXPECT_EQ(levelsOf(d), (std::vector<U32>{1, 4, 5, 6}));
  EXPECT_EQ(none.levels(), 0u);
}

TEST(TraceTest, configurationAppliesToExistingAndFutureHandles) {
  Kiln::TraceHandle& existing = Kiln::traceHandle("CfgExisting");
  Kiln::TraceHandle& untouched = Kiln::traceHandle("CfgUntouched");
  untouched.levelsIs(1u << 5);
  existing.levelsIs(1u << 0);
  Kiln::traceConfigIs("CfgExisting/2-3,CfgFuture/9,8");
  EXPECT_EQ(levelsOf(existing), (std::vector<U32>{2, 3}));
  EXPECT_EQ(levelsOf(untouched), std::vector<U32>{5});
  // The configured setting wins over the environment for later handles.
  ::setenv("KILN_TRACE", "CfgFuture/1", 1);
  Kiln::TraceHandle& future = Kiln::traceHandle("CfgFuture");
  ::unsetenv("KILN_TRACE");
  EXPECT_EQ(levelsOf(future), (std::vector<U32>{8, 9}));
  Kiln::traceConfigIs("CfgExisting");
  EXPECT_EQ(existing.levels(), 0x3ffu);
}

TEST(TraceTest, badSettingsAreRejectedWithoutChangingAnything) {
  Kiln::TraceHandle& h = Kiln::traceHandle("CfgBad");
  h.levelsIs(1u << 4);
  for (const char* setting : {"CfgBad/0-9,", "CfgBad/10", "CfgBad/5-3", "/3", "3,CfgBad/1", "CfgBad/", "CfgBad/1,,x",
                              "CfgBad/x", "CfgBad/1-", "CfgBad/1,2x"}) {
    try {
      Kiln::traceConfigIs(setting);
      ADD_FAILURE() << "accepted " << setting;
    } catch (const Basis::RangeException& e) {
      EXPECT_THAT(e.what(), HasSubstr(fmt::format("'{}'", setting)));
    }
  }
  EXPECT_EQ(levelsOf(h), std::vector<U32>{4});
  EXPECT_NO_THROW(Kiln::traceConfigIs(""));
  ::setenv("KILN_TRACE", "EnvBad/3-1", 1);
  EXPECT_THROW(Kiln::traceHandle("EnvBadFresh"), Basis::RangeException);
  ::unsetenv("KILN_TRACE");
  EXPECT_EQ(Kiln::traceHandle("EnvBadFresh").levels(), 0u);
}

TEST(TraceTest, linesGoToStderrSinkOrFile) {
  Kiln::TraceHandle& h = Kiln::traceHandle("TraceOut");
  testing::internal::CaptureStderr();
  h.write(4, "to stderr");
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "[TraceOut:4] to stderr\n");

  const std::string path = testing::TempDir() + "kiln_trace_file.txt";
  std::remove(path.c_str());
  Kiln::traceFileIs(path);
  h.write(1, "first");
  h.write(2, "second");
  Kiln::traceSinkIs({});
  testing::internal::CaptureStderr();
  h.write(3, "back");
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "[TraceOut:3] back\n");
  std::ifstream in(path);
  std::stringstream content;
  content << in.rdbuf();
  EXPECT_EQ(content.str(), "[TraceOut:1] first\n[TraceOut:2] second\n");

  try {
    Kiln::traceFileIs("/nonexistent-dir/trace.txt");
    ADD_FAILURE() << "opened a file in a missing directory";
  } catch (const Basis::SystemException& e) {
    EXPECT_THAT(e.what(), HasSubstr("/nonexistent-dir/trace.txt"));
  }
  std::remove(path.c_str());
}

TEST(TraceTest, concurrentWritersDeliverWholeLines) {
  constexpr int threadCount = 4;
  constexpr int linesPerThread = 200;
  SinkCapture capture;
  std::vector<std::thread> threads;
  for (int t = 0; t < threadCount; ++t) {
    threads.emplace_back([t] {
      Kiln::TraceHandle& h = Kiln::traceHandle(fmt::format("TraceThread{}", t % 2));
      for (int i = 0; i < linesPerThread; ++i) h.write(1, fmt::format("t{} i{}", t, i));
    });
  }
  for (auto& t : threads) t.join();
  ASSERT_EQ(capture.lines.size(), size_t(threadCount * linesPerThread));
  std::vector<int> perThread(threadCount);
  for (const std::string& line : capture.lines) {
    int t = -1, i = -1, handle = -1;
    ASSERT_EQ(std::sscanf(line.c_str(), "[TraceThread%d:1] t%d i%d", &handle, &t, &i), 3) << line;
    ASSERT_TRUE(t >= 0 && t < threadCount);
    EXPECT_EQ(handle, t % 2);
    EXPECT_EQ(i, perThread[t]++);
  }
}

}  // namespace
