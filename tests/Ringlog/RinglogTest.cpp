#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <cstdio>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include "Basis/Exception.h"
#include "Ringlog/Ringlog.h"

namespace {

using testing::HasSubstr;

std::string tempPath(const std::string& name) { return testing::TempDir() + name; }

void timeBlocks(const Ringlog::Message& m, int n) {
  for (int i = 0; i < n; ++i) Ringlog::BlockTimer timer(m);
}

const Ringlog::Summary* find(const std::vector<Ringlog::Summary>& all, const Ringlog::Message& m) {
  for (const auto& s : all) {
    if (s.path == m.path && s.signature == m.signature) return &s;
  }
  return nullptr;
}

// Each test starts with timing off and ends with it off again.
class RinglogTest : public testing::Test {
 protected:
  void SetUp() override { Ringlog::ringFileIs(""); }
  void TearDown() override {
    Ringlog::ringFileIs("");
    for (const auto& f : files_) std::remove(f.c_str());
  }
  std::string ringFile(const std::string& name) {
    files_.push_back(tempPath(name));
    std::remove(files_.back().c_str());
    return files_.back();
  }

 private:
  std::vector<std::string> files_;
};

TEST_F(RinglogTest, messagesAreRegisteredOncePerCallSite) {
  Ringlog::Message& a = Ringlog::message("/src/A", "void a()");
  Ringlog::Message& b = Ringlog::message("/src/A", "void b()");
  Ringlog::Message& c = Ringlog::message("/src/C", "void a()");
  EXPECT_EQ(&Ringlog::message("/src/A", "void a()"), &a);
  EXPECT_NE(a.id, b.id);
  EXPECT_NE(a.id, c.id);
  EXPECT_NE(b.id, c.id);
  EXPECT_EQ(b.path, "/src/A");
  EXPECT_EQ(b.signature, "void b()");
  EXPECT_TRUE(a.enabled);
}

TEST_F(RinglogTest, timingsAreSummarizedPerMessage) {
  const Ringlog::Message& before = Ringlog::message("/src/Sum", "void before()");
  const std::string path = ringFile("ringlog_sum.ring");
  EXPECT_FALSE(Ringlog::active());
  Ringlog::ringFileIs(path, 64);
  EXPECT_TRUE(Ringlog::active());
  const Ringlog::Message& after = Ringlog::message("/src/Sum", "void after()");
  Ringlog::Message& off = Ringlog::message("/src/Sum", "void off()");
  off.enabled = false;
  timeBlocks(before, 3);
  timeBlocks(after, 2);
  timeBlocks(off, 4);
  for (auto ms : {3, 1, 2}) {
    RINGLOG_BLOCK("/src/Sum", "void sleeps()");
    std::this_thread::sleep_for(std::chrono::milliseconds(ms));
  }
  const auto all = Ringlog::summarize(path);
  EXPECT_EQ(all.size(), 3u);
  const Ringlog::Summary* s = find(all, before);
  ASSERT_NE(s, nullptr);
  EXPECT_EQ(s->count, 3u);
  EXPECT_LE(s->minNs, s->medianNs);
  EXPECT_LE(s->medianNs, s->maxNs);
  ASSERT_NE(find(all, after), nullptr);
  EXPECT_EQ(find(all, after)->count, 2u);
  EXPECT_EQ(find(all, off), nullptr);
  // Sleeps give lower bounds: each of the three durations is at least its
  // sleep, so the sorted values are at least 1, 2 and 3 ms.
  const Ringlog::Summary* sleeps = find(all, Ringlog::message("/src/Sum", "void sleeps()"));
  ASSERT_NE(sleeps, nullptr);
  EXPECT_EQ(sleeps->count, 3u);
  EXPECT_GE(sleeps->minNs, 1'000'000u);
  EXPECT_GE(sleeps->medianNs, 2'000'000u);
  EXPECT_GE(sleeps->maxNs, 3'000'000u);
}

TEST_F(RinglogTest, ringKeepsOnlyTheLastEntries) {
  const Ringlog::Message& old = Ringlog::message("/src/Wrap", "void old()");
  const Ringlog::Message& recent = Ringlog::message("/src/Wrap", "void recent()");
  const std::string path = ringFile("ringlog_wrap.ring");
  Ringlog::ringFileIs(path, 4);
  timeBlocks(old, 3);
  timeBlocks(recent, 2);
  auto all = Ringlog::summarize(path);
  EXPECT_EQ(find(all, old)->count, 2u);
  EXPECT_EQ(find(all, recent)->count, 2u);
  timeBlocks(recent, 9);
  all = Ringlog::summarize(path);
  EXPECT_EQ(find(all, old), nullptr);
  ASSERT_NE(find(all, recent), nullptr);
  EXPECT_EQ(find(all, recent)->count, 4u);
}

TEST_F(RinglogTest, nothingIsRecordedWithoutAFile) {
  const Ringlog::Message& m = Ringlog::message("/src/Off", "void off()");
  const std::string path = ringFile("ringlog_off.ring");
  Ringlog::ringFileIs(path, 16);
  timeBlocks(m, 1);
  {
    Ringlog::BlockTimer open(m);
    Ringlog::ringFileIs("");
  }
  EXPECT_FALSE(Ringlog::active());
  timeBlocks(m, 5);
  const auto all = Ringlog::summarize(path);
  ASSERT_NE(find(all, m), nullptr);
  EXPECT_EQ(find(all, m)->count, 1u);
  // Switching to a new file starts it afresh.
  Ringlog::ringFileIs(path, 16);
  EXPECT_TRUE(Ringlog::summarize(path).empty());
}

TEST_F(RinglogTest, concurrentTimersAreAllRecorded) {
  const Ringlog::Message& m = Ringlog::message("/src/Threads", "void run()");
  const std::string path = ringFile("ringlog_threads.ring");
  Ringlog::ringFileIs(path, 4096);
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) threads.emplace_back([&m] { timeBlocks(m, 500); });
  for (auto& t : threads) t.join();
  const auto all = Ringlog::summarize(path);
  ASSERT_NE(find(all, m), nullptr);
  EXPECT_EQ(find(all, m)->count, 2000u);
}

TEST_F(RinglogTest, missingOrBadFilesAreReported) {
  const std::string missing = tempPath("ringlog_missing.ring");
  std::remove(missing.c_str());
  try {
    Ringlog::summarize(missing);
    ADD_FAILURE() << "summarized a missing file";
  } catch (const Basis::SystemException& e) {
    EXPECT_THAT(e.what(), HasSubstr(missing));
  }
  EXPECT_THROW(Ringlog::ringFileIs("/nonexistent-dir/x.ring"), Basis::SystemException);
  EXPECT_FALSE(Ringlog::active());
  EXPECT_THROW(Ringlog::ringFileIs(ringFile("ringlog_zero.ring"), 0), Basis::RangeException);

  const std::string good = ringFile("ringlog_good.ring");
  Ringlog::ringFileIs(good, 8);
  timeBlocks(Ringlog::message("/src/Bad", "void bad()"), 2);
  Ringlog::ringFileIs("");
  std::string bytes;
  {
    std::ifstream in(good, std::ios::binary);
    bytes.assign(std::istreambuf_iterator<char>(in), {});
  }
  auto expectBad = [&](const std::string& name, const std::string& content, const char* why) {
    const std::string path = ringFile(name);
    std::ofstream(path, std::ios::binary) << content;
    try {
      Ringlog::summarize(path);
      ADD_FAILURE() << "accepted " << why;
    } catch (const Basis::RangeException& e) {
      EXPECT_THAT(e.what(), HasSubstr(path)) << why;
    }
  };
  expectBad("ringlog_text.ring", "not a ring file at all, just some text that is long enough to hold a header",
            "text");
  expectBad("ringlog_short.ring", bytes.substr(0, 40), "a file shorter than the header");
  expectBad("ringlog_cut.ring", bytes.substr(0, bytes.size() - 16), "a truncated ring");
  std::string unknownId = bytes;
  unknownId[bytes.size() - 8 * 16] = '\x7f';  // first slot's message id
  expectBad("ringlog_unknown.ring", unknownId, "an entry of an unregistered message");
  std::string names = bytes;
  names[20] = '\xff';  // name table bytes far beyond the capacity
  names[21] = '\xff';
  names[22] = '\xff';
  expectBad("ringlog_names.ring", names, "an overflowing name table");
}

}  // namespace
