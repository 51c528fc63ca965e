#include <gtest/gtest.h>

#include <cstring>
#include <sstream>
#include <type_traits>

#include "Addrkit/Prefix.h"
#include "Basis/Exception.h"

namespace {

using Addrkit::AddressFamily;
using Addrkit::Ip4Address;
using Addrkit::Ip6Address;
using Addrkit::Ip6Prefix;
using Addrkit::IpGenPrefix;
using Addrkit::Prefix;

constexpr const char* invalid4 = "Addrkit::Prefix::validAsPrefix != true not allowed";
constexpr const char* invalid6 = "Addrkit::Ip6Prefix::validAsPrefix != true not allowed";

// Runs f, which must throw RangeException with exactly this message.
template <class F>
void expectRange(F f, const std::string& message) {
  try {
    f();
    ADD_FAILURE() << "no RangeException; expected: " << message;
  } catch (const Basis::RangeException& e) {
    EXPECT_EQ(e.what(), message);
  }
}

TEST(PrefixTest, ip4TextRoundTrips) {
  const struct {
    const char* text;
    const char* printed;
    U32 len;
  } cases[] = {
      {"10.0.0.0/8", "10.0.0.0/8", 8},
      {"0.0.0.0/0", "0.0.0.0/0", 0},
      {"255.255.255.255/32", "255.255.255.255/32", 32},
      {"192.168.128.0/17", "192.168.128.0/17", 17},
      {"1.2.3.4", "1.2.3.4/32", 32},
      {"010.000.0.0/08", "10.0.0.0/8", 8},
  };
  for (const auto& c : cases) {
    const Prefix p(c.text);
    EXPECT_EQ(p.stringValue(), c.printed);
    EXPECT_EQ(p.len(), c.len);
    EXPECT_TRUE(p.validAsPrefix());
    EXPECT_EQ(Prefix(p.stringValue()), p);
    EXPECT_EQ(fmt::format("[{}]", p), fmt::format("[{}]", c.printed));
  }
  const Prefix p("10.1.0.0/16");
  EXPECT_EQ(p.addrHost(), 0x0a010000u);
  EXPECT_EQ(p.address(), Ip4Address("10.1.0.0"));
  EXPECT_FALSE(p == Prefix("10.1.0.0/17"));
  EXPECT_FALSE(p == Prefix("10.2.0.0/16"));
}

TEST(PrefixTest, ip4TextRejected) {
  for (const char* bad : {"10.0.0.0/33", "10.0.0.0/", "10.0.0.0/-1", "10.0.0.0/+8", "10.0.0.0/8/8",
                          "10.0.0.0/ 8", "10.0.0.0/8 ", "/8", "10.0.0.0/0008", "10.0.0/8",
                          "10.0.0.256/32", "10.0.0.0/x", "", "2001:db8::/32"}) {
    expectRange([&] { Prefix{std::string_view(bad)}; },
                std::string("invalid IPv4 prefix '") + bad + "'");
  }
  for (const char* hostBits : {"10.0.0.1/8", "1.2.3.4/0", "10.128.0.0/8", "192.168.1.1/31"}) {
    expectRange([&] { Prefix{std::string_view(hostBits)}; },
                std::string("invalid IPv4 prefix '") + hostBits + "': host bits set");
  }
}

TEST(PrefixTest, ip4FromAddressAndLength) {
  EXPECT_EQ(Prefix(Ip4Address("10.0.0.0"), 8), Prefix("10.0.0.0/8"));
  EXPECT_EQ(Prefix(Ip4Address("10.0.0.1"), 32).stringValue(), "10.0.0.1/32");
  expectRange([] { Prefix(Ip4Address("10.0.0.1"), 8); }, invalid4);
  expectRange([] { Prefix(Ip4Address("10.0.0.0"), 33); }, invalid4);
  expectRange([] { Prefix(Ip4Address("10.0.0.0"), 256 + 8); }, invalid4);  // no byte wrap
}

TEST(PrefixTest, ip4Masked) {
  EXPECT_EQ(Prefix::masked(0x0a0102ffu, 8), Prefix("10.0.0.0/8"));
  EXPECT_EQ(Prefix::masked(0x0a0102ffu, 23), Prefix("10.1.2.0/23"));
  EXPECT_EQ(Prefix::masked(0x0a0102ffu, 31), Prefix("10.1.2.254/31"));
  EXPECT_EQ(Prefix::masked(0x0a0102ffu, 32), Prefix("10.1.2.255/32"));
  EXPECT_EQ(Prefix::masked(0xffffffffu, 0), Prefix("0.0.0.0/0"));
  EXPECT_EQ(Prefix::masked(0xffffffffu, 1), Prefix("128.0.0.0/1"));
  expectRange([] { Prefix::masked(0, 33); }, invalid4);
}

TEST(PrefixTest, ip6TextRoundTrips) {
  const struct {
    const char* text;
    const char* printed;
  } cases[] = {
      {"2001:db8::/32", "2001:db8::/32"},
      {"2001:DB8:0:0::/64", "2001:db8::/64"},
      {"::/0", "::/0"},
      {"::ffff:1.2.3.4/128", "::ffff:1.2.3.4/128"},
      {"::1", "::1/128"},
      {"fe80::/10", "fe80::/10"},
      {"ffff:ffff:ffff:ffff:ffff:ffff:ffff:ffff/128", "ffff:ffff:ffff:ffff:ffff:ffff:ffff:ffff/128"},
      {"2001:db8:0:1:8000::/65", "2001:db8:0:1:8000::/65"},
  };
  for (const auto& c : cases) {
    const Ip6Prefix p(c.text);
    EXPECT_EQ(p.stringValue(), c.printed);
    EXPECT_TRUE(p.validAsPrefix());
    EXPECT_EQ(Ip6Prefix(p.stringValue()), p);
    std::ostringstream os;
    os << p;
    EXPECT_EQ(os.str(), c.printed);
  }
  const Ip6Prefix p("2001:db8::/32");
  EXPECT_EQ(p.word(0), 0x20010db8u);
  EXPECT_EQ(p.len(), 32u);
  EXPECT_EQ(p.address(), Ip6Address("2001:db8::"));
  EXPECT_FALSE(p == Ip6Prefix("2001:db8::/33"));
}

TEST(PrefixTest, ip6TextRejected) {
  for (const char* bad : {"2001:db8::/129", "2001:db8::/", "/32", "2001:db8::/3 2", "2001:db8::/+32",
                          "2001:db8::/0032", "2001:db8::g/32", "1.2.3.0/24"}) {
    expectRange([&] { Ip6Prefix{std::string_view(bad)}; },
                std::string("invalid IPv6 prefix '") + bad + "'");
  }
  for (const char* hostBits : {"2001:db8::1/32", "::1/127", "8000::/0", "2001:db8:0:1:4000::/65"}) {
    expectRange([&] { Ip6Prefix{std::string_view(hostBits)}; },
                std::string("invalid IPv6 prefix '") + hostBits + "': host bits set");
  }
  expectRange([] { Ip6Prefix(Ip6Address("2001:db8::1"), 64); }, invalid6);
  expectRange([] { Ip6Prefix(Ip6Address("::"), 129); }, invalid6);
  expectRange([] { Ip6Prefix(Ip6Address("::"), 256); }, invalid6);
  EXPECT_EQ(Ip6Prefix(Ip6Address("2001:db8::"), 32), Ip6Prefix("2001:db8::/32"));
}

TEST(PrefixTest, ip6Masked) {
  const Ip6Address a("2001:db8:ffff:ffff:ffff:ffff:ffff:ffff");
  EXPECT_EQ(Ip6Prefix::masked(a, 32), Ip6Prefix("2001:db8::/32"));
  EXPECT_EQ(Ip6Prefix::masked(a, 48), Ip6Prefix("2001:db8:ffff::/48"));
  EXPECT_EQ(Ip6Prefix::masked(a, 65), Ip6Prefix("2001:db8:ffff:ffff:8000::/65"));
  EXPECT_EQ(Ip6Prefix::masked(a, 127), Ip6Prefix("2001:db8:ffff:ffff:ffff:ffff:ffff:fffe/127"));
  EXPECT_EQ(Ip6Prefix::masked(a, 128).address(), a);
  EXPECT_EQ(Ip6Prefix::masked(a, 0), Ip6Prefix("::/0"));
  expectRange([&] { Ip6Prefix::masked(a, 129); }, invalid6);
}

TEST(PrefixTest, storedLayoutIsAddressThenLength) {
  static_assert(std::is_trivially_copyable_v<Prefix> && std::is_trivially_copyable_v<Ip6Prefix>);
  const Prefix p("10.1.0.0/16");
  U8 raw[sizeof p];
  std::memcpy(raw, &p, sizeof p);
  const U8 expected[] = {10, 1, 0, 0, 16};
  EXPECT_EQ(std::memcmp(raw, expected, sizeof raw), 0);

  const Ip6Prefix p6("2001:db8::/32");
  U8 raw6[sizeof p6];
  std::memcpy(raw6, &p6, sizeof p6);
  EXPECT_EQ(raw6[0], 0x20);
  EXPECT_EQ(raw6[3], 0xb8);
  EXPECT_EQ(raw6[16], 32);
}

TEST(PrefixTest, genericPrefix) {
  const IpGenPrefix empty;
  EXPECT_TRUE(empty.isEmpty());
  EXPECT_EQ(empty.af(), AddressFamily::none);
  EXPECT_EQ(empty.stringValue(), "none");
  EXPECT_EQ(fmt::format("{}", empty), "none");

  const IpGenPrefix any4("0.0.0.0/0");
  EXPECT_FALSE(any4.isEmpty());
  EXPECT_FALSE(any4 == empty);
  EXPECT_EQ(any4.af(), AddressFamily::ipv4);
  EXPECT_FALSE(IpGenPrefix("::/0") == any4);

  const IpGenPrefix g4("10.0.0.0/8");
  EXPECT_EQ(g4, IpGenPrefix(Prefix("10.0.0.0/8")));
  EXPECT_EQ(g4.v4(), Prefix("10.0.0.0/8"));
  EXPECT_EQ(g4.len(), 8u);
  EXPECT_EQ(g4.stringValue(), "10.0.0.0/8");
  EXPECT_EQ(g4.v6().word(0), 0x0a000000u);  // the same stored bytes
  EXPECT_EQ(g4.v6().word(1), 0u);

  const IpGenPrefix g6("2001:db8::/32");
  EXPECT_EQ(g6.af(), AddressFamily::ipv6);
  EXPECT_EQ(g6, IpGenPrefix(Ip6Prefix("2001:db8::/32")));
  EXPECT_EQ(g6.v6(), Ip6Prefix("2001:db8::/32"));
  EXPECT_EQ(g6.v4().stringValue(), "32.1.13.184/32");
  std::ostringstream os;
  os << g6 << ' ' << g4 << ' ' << AddressFamily::none << ' ' << AddressFamily::ipv4 << ' '
     << AddressFamily::ipv6;
  EXPECT_EQ(os.str(), "2001:db8::/32 10.0.0.0/8 none ipv4 ipv6");

  expectRange([] { IpGenPrefix{std::string_view("::1/200")}; }, "invalid IPv6 prefix '::1/200'");
  expectRange([] { IpGenPrefix{std::string_view("10.0.0.0/33")}; },
              "invalid IPv4 prefix '10.0.0.0/33'");
  expectRange([] { IpGenPrefix{std::string_view("none")}; }, "invalid IPv4 prefix 'none'");
}

}  // namespace
