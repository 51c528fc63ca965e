#include <gtest/gtest.h>

#include <sstream>

#include "Addrkit/Address.h"
#include "Basis/Exception.h"

namespace {

using Addrkit::Ip4Address;
using Addrkit::Ip6Address;

TEST(AddressTest, ip4TextAcceptedAndPrinted) {
  const struct {
    const char* text;
    U32 host;
    const char* printed;
  } cases[] = {
      {"0.0.0.0", 0, "0.0.0.0"},
      {"255.255.255.255", 0xffffffffu, "255.255.255.255"},
      {"10.1.2.3", 0x0a010203u, "10.1.2.3"},
      {"010.001.000.7", 0x0a010007u, "10.1.0.7"},
  };
  for (const auto& c : cases) {
    const Ip4Address a(c.text);
    EXPECT_EQ(a.host(), c.host) << c.text;
    EXPECT_EQ(a.stringValue(), c.printed);
    EXPECT_EQ(a, Ip4Address::fromHost(c.host));
  }
  EXPECT_EQ(Ip4Address("1.2.3.4").bytes()[0], 1);  // network order
  std::ostringstream os;
  os << Ip4Address("192.0.2.1");
  EXPECT_EQ(os.str(), "192.0.2.1");
}

TEST(AddressTest, ip4TextRejected) {
  for (const char* bad : {"", "1.2.3", "1.2.3.4.5", "1.2.3.256", "1..2.3", ".1.2.3", "1.2.3.",
                          "+1.2.3.4", "1.2.3.+4", "0001.2.3.4", "1.2.3.4 ", " 1.2.3.4",
                          "1.2.3.a", "-1.2.3.4", "1.2.3.4/8", "::1"}) {
    try {
      Ip4Address a{std::string_view(bad)};
      ADD_FAILURE() << "accepted '" << bad << "'";
    } catch (const Basis::RangeException& e) {
      EXPECT_EQ(std::string(e.what()), std::string("invalid IPv4 address '") + bad + "'");
    }
  }
}

TEST(AddressTest, ip6TextBitsAndOrdering) {
  const Ip6Address a("2001:db8::1");
  EXPECT_EQ(a.word(0), 0x20010db8u);
  EXPECT_EQ(a.word(3), 1u);
  EXPECT_EQ(a.stringValue(), "2001:db8::1");
  EXPECT_EQ(Ip6Address("0:0:0:0:0:ffff:102:304").stringValue(), "::ffff:1.2.3.4");
  EXPECT_EQ(Ip6Address("::").stringValue(), "::");

  EXPECT_EQ(a.bit(0), 0u);
  EXPECT_EQ(a.bit(2), 1u);  // 0x2 in the top nibble
  EXPECT_EQ(a.bit(127), 1u);
  EXPECT_EQ(a.bit(126), 0u);
  EXPECT_THROW(a.bit(128), Basis::RangeException);

  Ip6Address b = a;
  b.wordIs(1, 0xffffffffu);
  EXPECT_EQ(b.stringValue(), "2001:db8:ffff:ffff::1");

  for (const char* bad : {"", "2001:db8::g", "1:2:3:4:5:6:7:8:9", "2001:db8::/32", "1.2.3.4",
                          ":::", "2001:db8:0:0:0:0:0:0:1:2:3:4:5:6:7:8:9:10:11"}) {
    EXPECT_THROW(Ip6Address{std::string_view(bad)}, Basis::RangeException) << bad;
  }
  EXPECT_THROW(Ip6Address(std::string_view("::1\0junk", 8)), Basis::RangeException);
}

TEST(AddressTest, orderingIsUnsigned) {
  EXPECT_LT(Ip4Address("9.255.255.255"), Ip4Address("10.0.0.0"));
  EXPECT_LT(Ip4Address("127.0.0.1"), Ip4Address("128.0.0.0"));  // no sign trouble
  EXPECT_FALSE(Ip4Address("10.0.0.0") < Ip4Address("10.0.0.0"));
  EXPECT_LT(Ip6Address("::ffff"), Ip6Address("8000::"));
  EXPECT_LT(Ip6Address("2001:db8::"), Ip6Address("2001:db8::1"));
  EXPECT_FALSE(Ip6Address("8000::") < Ip6Address("7fff::"));
}

}  // namespace
