#include <gmock/gmock.h>

#include "Addrkit/Prefix.h"
#include "Basis/Buffer.h"
#include "Basis/Exception.h"

using namespace Addrkit;
using Basis::RangeException, Basis::U8, Basis::U32;

// T{text} must raise RangeException quoting the text.
template <class T>
void expectRefused(std::string_view text) {
  const std::string quoted = fmt::format("'{}'", text);
  EXPECT_THAT([text] { T{text}; }, testing::ThrowsMessage<RangeException>(testing::HasSubstr(quoted)));
}

TEST(Ip4Address, TextRoundTripsOrderIsUnsignedAndBadTextIsRefused) {
  const struct { const char* text; U32 host; const char* printed; } good[] = {
      {"0.0.0.0", 0, "0.0.0.0"}, {"255.255.255.255", 0xffffffffu, "255.255.255.255"},
      {"192.168.0.9", 0xc0a80009u, "192.168.0.9"}, {"10.1.0.99", 0x0a010063u, "10.1.0.99"}};
  for (const auto& c : good) {
    EXPECT_EQ(Ip4Address(c.text).host(), c.host) << c.text;
    EXPECT_EQ(Ip4Address(c.text).stringValue(), c.printed);
  }
  EXPECT_LT(Ip4Address("127.255.255.255"), Ip4Address("128.0.0.0"));
  for (const char* bad : {"", " ", "1.2.3", "1.2.3.4.", "1.2.3.4.5", "256.0.0.0", "1.2.3.256", "1..2.3", ".1.2.3",
                          "1.2.3.0004", " 1.2.3.4", "1.2.3.4 ", "+1.2.3.4", "1.2.3.a", "1.2.3.:", "1.2.3.4/8", "::1", "01.2.3.4"})
    expectRefused<Ip4Address>(bad);
  for (const char* octal : {"010.1.2.3", "10.1.2.010", "010.0.0.0/8", "::ffff:1.2.3.010"})  // octal 8 to some tools
    EXPECT_THAT([octal] { IpGenPrefix{octal}; }, testing::ThrowsMessage<RangeException>(testing::EndsWith("'010' has a leading zero, which some tools read as octal")));
}

TEST(Ip6Address, TextRoundTripsBitsCountFromTheTopAndBadTextIsRefused) {
  const Ip6Address a("8001:DB8:0:1:8000::ff01");  // bits 0 and 127 set
  EXPECT_EQ(a.stringValue(), "8001:db8:0:1:8000::ff01");
  for (U32 n = 0; n < 128; ++n) EXPECT_EQ(a.bit(n), (a.bytes()[n / 8] >> (7 - n % 8)) & 1u) << n;
  EXPECT_THROW(a.bit(128), RangeException);
  EXPECT_LT(Ip6Address("7fff:ffff::"), Ip6Address("8000::"));
  for (const char* bad : {"", " ::1", "::g", ":::", "1:2:3:4:5:6:7:8:9", "2001:db8::/32", "1.2.3.4"})
    expectRefused<Ip6Address>(bad);
}

TEST(Prefix, TextRoundTripsInBothFamiliesAndBadTextIsRefused) {
  const struct { const char* text; const char* printed; } good[] = {
      {"0.0.0.0/0", "0.0.0.0/0"}, {"192.168.128.0/17", "192.168.128.0/17"}, {"10.0.0.0/09", "10.0.0.0/9"},
      {"255.255.255.255/32", "255.255.255.255/32"}, {"1.2.3.4", "1.2.3.4/32"}, {"::/0", "::/0"}, {"::1", "::1/128"},
      {"2001:DB8:0:0::/64", "2001:db8::/64"}, {"2001:db8:0:1:8000::/65", "2001:db8:0:1:8000::/65"},
      {"ffff:ffff:ffff:ffff:ffff:ffff:ffff:ffff/128", "ffff:ffff:ffff:ffff:ffff:ffff:ffff:ffff/128"}};
  for (const auto& c : good) {
    const IpGenPrefix p(c.text);
    EXPECT_EQ(p.stringValue(), c.printed);
    EXPECT_EQ(IpGenPrefix(p.stringValue()), p);
  }
  for (const char* bad : {"", " ", "none", "/8", "1.2.3.4/", "1.2.3.4/33", "1.2.3/24", "1.2.3.4./32", "256.0.0.0/8",
                          "1.2.3.4/-1", "1.2.3.4/+8", "1.2.3.4/ 8", "1.2.3.4/8 ", "1.2.3.4/0032", "1.2.3.4/32/32",
                          "10.0.0.1/8", "1.2.3.4/0", "10.128.0.0/8", "255.255.255.255/31", "2001:db8::/",
                          "2001:db8::/129", "2001:db8::/0064", "2001:db8::g/32", "2001:db8::1/32", "::1/127",
                          "8000::/0", "::4000:0:0:0/65"})
    expectRefused<IpGenPrefix>(bad);
  EXPECT_EQ(Prefix(Ip4Address("1.2.3.4"), 32), Prefix("1.2.3.4/32"));
  EXPECT_EQ(Ip6Prefix(Ip6Address("::1"), 128), Ip6Prefix("::1/128"));
  for (U32 len : {8u, 33u, 256u + 32u}) EXPECT_THROW(Prefix(Ip4Address("10.0.0.1"), len), RangeException) << len;
  for (U32 len : {64u, 129u, 256u + 128u}) EXPECT_THROW(Ip6Prefix(Ip6Address("::1"), len), RangeException) << len;
}

TEST(Prefix, MaskedKeepsTheFirstLenBits) {
  const std::pair<U32, const char*> v4[] = {
      {0, "0.0.0.0/0"}, {8, "10.0.0.0/8"}, {23, "10.1.2.0/23"}, {31, "10.1.2.254/31"}, {32, "10.1.2.255/32"}};
  for (const auto& [len, printed] : v4) EXPECT_EQ(Prefix::masked(0x0a0102ffu, len).stringValue(), printed);
  const Ip6Address ones("ffff:ffff:ffff:ffff:ffff:ffff:ffff:ffff");
  const std::pair<U32, const char*> v6[] = {
      {0, "::/0"}, {1, "8000::/1"}, {33, "ffff:ffff:8000::/33"}, {64, "ffff:ffff:ffff:ffff::/64"},
      {127, "ffff:ffff:ffff:ffff:ffff:ffff:ffff:fffe/127"}, {128, "ffff:ffff:ffff:ffff:ffff:ffff:ffff:ffff/128"}};
  for (const auto& [len, printed] : v6) EXPECT_EQ(Ip6Prefix::masked(ones, len).stringValue(), printed);
  EXPECT_THROW(Prefix::masked(0, 33), RangeException);
  EXPECT_THROW(Ip6Prefix::masked(ones, 129), RangeException);
}

using Bytes = std::basic_string<U8>;

// Reads a whole message body into p and returns it.
Prefix read(const Bytes& body, Prefix& p) {
  Basis::ReadBufferItr r(body.data(), body.size());
  readMessage(r, p);
  EXPECT_TRUE(r.atEnd());
  return p;
}

TEST(PrefixMessage, RoundTripsAndSkipsUnknownFields) {
  const std::pair<const char*, Bytes> cases[] = {{"0.0.0.0/0", {0x0d, 0, 0, 0, 0, 0x10, 0}},
      {"10.1.0.0/16", {0x0d, 0, 0, 1, 10, 0x10, 16}}, {"255.255.255.255/32", {0x0d, 255, 255, 255, 255, 0x10, 32}}};
  for (const auto& [text, wire] : cases) {
    Basis::WriteBufferItr w;
    writeMessage(w, Prefix(text));
    EXPECT_EQ(w.bytes(), wire) << text;
    Prefix p("1.0.0.0/8");
    EXPECT_EQ(read(wire, p), Prefix(text));
  }
  // The length (field 2) among unknown fields 9 to 12 of every wire type; the address keeps its value.
  Prefix p("10.1.0.0/24");
  EXPECT_EQ(read({0x48, 0xac, 0x02, 0x51, 1, 0, 0, 0, 2, 0, 0, 0, 0x10, 16, 0x5a, 1, 7, 0x65, 7, 0, 0, 0}, p),
            Prefix("10.1.0.0/16"));
}

TEST(PrefixMessage, BadMessagesRaiseAndLeaveThePrefixAlone) {
  Prefix p("10.0.0.0/8");
  EXPECT_THROW(read({0x08, 5}, p), Basis::ProtobufException);                   // the address as a varint
  EXPECT_THROW(read({0x15, 8, 0, 0, 0}, p), Basis::ProtobufException);           // the length as a fixed32
  EXPECT_THROW(read({0x0d, 1, 0, 0, 10, 0x10, 8}, p), RangeException);           // 10.0.0.1/8: host bits set
  EXPECT_THROW(read({0x10, 0x88, 0x80, 0x80, 0x80, 0x10}, p), RangeException);  // 2^32 + 8 must not wrap to 8
  EXPECT_EQ(p, Prefix("10.0.0.0/8"));
}
