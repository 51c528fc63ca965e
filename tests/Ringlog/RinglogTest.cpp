#include <gmock/gmock.h>

#include <fstream>
#include <thread>

#include "Basis/Exception.h"
#include "Ringlog/Ringlog.h"
#include "support/TempRoot.h"

TEST(Ringlog, TimingsAreSummarizedPerMessageAndTheRingKeepsTheLastEntries) {
  testkit::TempRoot root;
  Ringlog::Message &first = Ringlog::message("/src/A", "void first()"), &off = Ringlog::message("/src/A", "void off()");
  Ringlog::ringFileIs(root.file("ring"), 4);
  const Ringlog::Message& later = Ringlog::message("/src/A", "void later()");  // named in the open file
  off.enabled = false;
  for (int ms : {3, 1, 2}) {
    Ringlog::BlockTimer timed(first), skipped(off);
    std::this_thread::sleep_for(std::chrono::milliseconds(ms));
  }
  std::vector<Ringlog::Summary> s = Ringlog::summarize(root.file("ring"));
  ASSERT_TRUE(s.size() == 1 && s[0].path == "/src/A" && s[0].signature == "void first()" && s[0].count == 3);
  EXPECT_TRUE(s[0].minNs >= 1'000'000 && s[0].medianNs >= 2'000'000 && s[0].maxNs >= 3'000'000);
  for (int i = 0; i < 3; ++i) Ringlog::BlockTimer timed(later);  // six entries in four slots
  Ringlog::ringFileIs("");
  { Ringlog::BlockTimer timed(later); }
  s = Ringlog::summarize(root.file("ring"));
  EXPECT_TRUE(s.size() == 2 && s[0].count == 1 && s[1].signature == "void later()" && s[1].count == 3);
}

TEST(Ringlog, MissingAndDamagedFilesAreReportedByName) {
  testkit::TempRoot root;
  const std::string good = root.file("good"), bad = root.file("bad");
  EXPECT_THROW(Ringlog::summarize(root.file("missing")), Basis::SystemException);
  Ringlog::ringFileIs(good, 8);
  { Ringlog::BlockTimer timed(Ringlog::message("/src/B", "void b()")); }
  Ringlog::ringFileIs("");
  std::ifstream in(good, std::ios::binary);
  const std::string bytes(std::istreambuf_iterator<char>(in), {});
  std::string unknownId = bytes, names = bytes;
  unknownId[bytes.size() - 8 * 16] = '\x7f';  // the first slot's message id
  names[22] = '\x7f';                         // name table bytes beyond its capacity
  for (const std::string& damaged : {std::string(100, 'x'), bytes.substr(0, 40), bytes.substr(16), unknownId, names}) {
    std::ofstream(bad, std::ios::binary) << damaged;
    EXPECT_THAT([&] { Ringlog::summarize(bad); },
                testing::ThrowsMessage<Basis::RangeException>(testing::HasSubstr(bad)));
  }
}
