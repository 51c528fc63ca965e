#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "Kiln/Text.h"

namespace {

using testing::HasSubstr;

struct Sample {
  U32 count = 0;
  bool up = false;
  Addrkit::Prefix prefix;
  Addrkit::Ip6Prefix prefix6;

  std::string text() const {
    return Kiln::TextWriter("Test::Sample")
        .attribute("count", count)
        .attribute("up", up)
        .attribute("prefix", prefix)
        .attribute("prefix6", prefix6)
        .str();
  }
  static Sample parse(Kiln::CharRange& r) {
    Sample s;
    r.beginValue("Test::Sample");
    r.attribute("count", true);
    s.count = r.readU32();
    r.attribute("up");
    s.up = r.readBool();
    r.attribute("prefix");
    s.prefix = r.readPrefix();
    r.attribute("prefix6");
    s.prefix6 = r.readIp6Prefix();
    r.endValue();
    return s;
  }
};

std::string parseError(std::string_view text) {
  Kiln::CharRange r(text);
  try {
    Sample::parse(r);
  } catch (const Kiln::ParseException& e) {
    return e.what();
  }
  return "parsed";
}

TEST(TextTest, writesAndReadsTheTextForm) {
  Sample s{4294967295u, true, Addrkit::Prefix("10.0.0.0/8"), Addrkit::Ip6Prefix("2001:db8::/32")};
  const std::string text = s.text();
  EXPECT_EQ(text, "Test::Sample(count=4294967295, up=true, prefix=10.0.0.0/8, prefix6=2001:db8::/32)");
  const std::string withTail = text + " tail";
  Kiln::CharRange r(withTail);
  const Sample back = Sample::parse(r);
  EXPECT_EQ(back.count, s.count);
  EXPECT_EQ(back.up, s.up);
  EXPECT_EQ(back.prefix, s.prefix);
  EXPECT_EQ(back.prefix6, s.prefix6);
  EXPECT_EQ(r.rest(), " tail");
  EXPECT_EQ(Kiln::TextWriter("Empty").str(), "Empty()");
}

TEST(TextTest, errorsNameTheFirstMismatch) {
  EXPECT_EQ(parseError("Test::Sample(count=1, uq=true, prefix=1.0.0.0/8, prefix6=::/0)"),
            "expected 'up=' at position 22, found 'uq=true,...' (first difference at position 23)");
  EXPECT_EQ(parseError("Test::Sample(count=1,up=true"), "expected ', ' at position 20, found ',up=true' (first difference at position 21)");
  EXPECT_EQ(parseError("Test::Sample(count=-1, up=true"),
            "expected an unsigned 32-bit number at position 19, found '-1, up=t...'");
  EXPECT_EQ(parseError("Test::Sample(count=4294967296, up=true"),
            "expected an unsigned 32-bit number at position 19, found '42949672...'");
  EXPECT_EQ(parseError("Test::Sample(count=1, up=yes"), "expected 'true' or 'false' at position 25, found 'yes'");
  EXPECT_EQ(parseError("Test::Sample(count=1, up=true, prefix=, "),
            "expected a value at position 38, found ', '");
  EXPECT_EQ(parseError("Test::Sample(count=1, up=false, prefix=1.0.0.0/8, prefix6=::/0"),
            "expected ')' at position 62, found end of text");
  EXPECT_THAT(parseError("Test::Sample(count=1, up=false, prefix=10.0.0.1/8, prefix6=::/0)"),
              HasSubstr("expected an IPv4 prefix at position 39, found '10.0.0.1/8'"));
  EXPECT_THAT(parseError("Test::Sample(count=1, up=false, prefix=1.0.0.0/8, prefix6=1.0.0.0/8)"),
              HasSubstr("expected an IPv6 prefix at position 58, found '1.0.0.0/8'"));
  EXPECT_EQ(parseError("Test::Other(count=1)"), "expected 'Test::Sample(' at position 0, found 'Test::Ot...' (first difference at position 6)");
}

TEST(TextTest, failuresLeaveTheCursorAtTheMismatch) {
  Kiln::CharRange r("abc, 12");
  EXPECT_FALSE(r.consumeIf("abd"));
  EXPECT_THROW(r.readU32(), Kiln::ParseException);
  EXPECT_EQ(r.position(), 0u);
  Kiln::CharRange literal("abc, 12");
  EXPECT_THROW(literal.expect("abd"), Kiln::ParseException);
  EXPECT_EQ(literal.position(), 2u);
  EXPECT_EQ(r.readToken(), "abc");
  EXPECT_THROW(r.readToken(), Kiln::ParseException);
  r.expect(", ");
  EXPECT_EQ(r.readU32(), 12u);
  EXPECT_TRUE(r.atEnd());
}

}  // namespace
