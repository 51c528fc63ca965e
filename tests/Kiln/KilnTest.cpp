#include <gmock/gmock.h>

#include "Kiln/Entity.h"
#include "Kiln/Text.h"
#include "Kiln/Trace.h"
#include "Kiln/Type.h"

using Basis::U32, Basis::U64;
using Fields = std::vector<Kiln::FieldId>;

// Records the changes it gets, unsubscribing `drop` on each.
struct Recorder : Kiln::Notifiee {
  void onChange(const Kiln::Change& c) override {
    seen.push_back(c.field);
    for (Kiln::Notifiee* n : drop) publisher->unsubscribe(n);
  }
  Kiln::Publisher* publisher = nullptr;
  std::vector<Kiln::Notifiee*> drop;
  Fields seen;
};

TEST(Publisher, DeliversToActiveSubscribersStillSubscribedAtTheirTurn) {
  for (size_t count : {4u, 10u}) {  // the publisher copies up to 8 subscribers on the stack
    Kiln::Publisher p;
    std::vector<Recorder> r(count);
    for (Recorder& x : r) x.publisher = &p, x.activeIs(true), p.subscribe(&x);
    p.subscribe(&r[1]);  // a second time: still delivered once
    r[2].activeIs(false);
    r[0].drop = {&r[0], &r.back()};  // itself, and one not yet notified
    p.publish({7, {}});
    p.publish({8, {}});
    EXPECT_TRUE(r[0].seen == Fields{7} && r[1].seen == (Fields{7, 8}) && r[2].seen.empty() && r.back().seen.empty());
  }
}

TEST(Trace, MessagesAreBuiltOnlyForEnabledLevels) {
  Kiln::TraceHandle& h = Kiln::traceHandle("Gate");
  h.levelsIs((1u << 2) | (1u << 9));
  std::vector<std::string> lines;
  Kiln::traceSinkIs([&lines](std::string_view line) { lines.emplace_back(line); });
  int built = 0;
  KILN_TRACE(h, 3, "{}", ++built);
  KILN_TRACE(h, 2, "built {}", ++built);
  KILN_TRACE(h, 9, "last");
  Kiln::traceSinkIs({});
  EXPECT_EQ(lines, (std::vector<std::string>{"[Gate:2] built 1", "[Gate:9] last"}));
}

TEST(Trace, SettingsComeFromEnvironmentAndCallsAndBadOnesChangeNothing) {
  Kiln::TraceHandle& set = Kiln::traceHandle("Set");
  ::setenv("KILN_TRACE", "EnvA/3,7,EnvB,EnvA/8-9,Later/1", 1);
  const U32 a = Kiln::traceHandle("EnvA").levels(), b = Kiln::traceHandle("EnvB").levels();
  Kiln::traceConfigIs("Later/2-4,Set/0");  // applies to existing handles and wins over the environment
  const U32 later = Kiln::traceHandle("Later").levels();
  ::unsetenv("KILN_TRACE");
  EXPECT_TRUE(a == 0x388 && b == 0x3ff && later == 0x1c) << a << ' ' << b << ' ' << later;
  for (const char* bad : {"Set/0-9,", "Set/10", "Set/5-3", "/3", "3,Set/1", "Set/", "Set/1,,x", "Set/1-", "Set/1,2x"})
    EXPECT_THROW(Kiln::traceConfigIs(bad), Basis::RangeException) << bad;
  EXPECT_EQ(set.levels(), 1u);
}

TEST(Text, ValuesRoundTripAndErrorsNameTheFirstMismatch) {
  const auto reprint = [](std::string_view text) {
    Kiln::CharRange r(text);
    const U32 count = (r.beginValue("Sample"), r.attribute("count", true), r.readU32());
    const bool up = (r.attribute("up"), r.readBool());
    const Addrkit::Prefix prefix = (r.attribute("prefix"), r.readPrefix());
    r.endValue();
    return Kiln::TextWriter("Sample").attribute("count", count).attribute("up", up).attribute("prefix", prefix).str();
  };
  const char* text = "Sample(count=4294967295, up=false, prefix=10.0.0.0/8)";
  EXPECT_EQ(reprint(text), text);
  const std::pair<const char*, const char*> bad[] = {
      {"Sample(count=1, uq=true", "expected 'up=' at position 16, found 'uq=true' (first difference at position 17)"},
      {"Sample(count=4294967296, ", "expected an unsigned 32-bit number at position 13, found '42949672...'"},
      {"Sample(count=1, up=true, prefix=10.0.0.1/8)",
       "expected an IPv4 prefix at position 32, found '10.0.0.1/8': invalid IPv4 prefix '10.0.0.1/8': host bits set"},
      {"Sample(count=1, up=true, prefix=1.0.0.0/8", "expected ')' at position 41, found end of text"}};
  for (const auto& [input, error] : bad)
    EXPECT_THAT([&] { reprint(input); }, testing::ThrowsMessage<Kiln::ParseException>(testing::StrEq(error)));
}

TEST(TypeRegistry, ReplacesEntriesInPlaceAndHashesOnlyWithAHook) {
  Kiln::TypeData u32;
  u32.name = "Test::U32", u32.size = 4, u32.hash = [](const void* p) { return *static_cast<const U32*>(p) * U64(3); };
  Kiln::typeRegister(u32);
  const Kiln::TypeData* t = Kiln::typeData(u32.name);
  const U32 v = 14;
  ASSERT_TRUE(t && Kiln::hashValue(*t, &v) == 42);
  u32.size = 8, u32.hash = nullptr;
  Kiln::typeRegister(u32);
  EXPECT_TRUE(Kiln::typeData(u32.name) == t && t->size == 8 && !Kiln::typeData("Test::None"));
  EXPECT_THROW(Kiln::hashValue(*t, &v), Basis::NotSupportedException);
  const Kiln::EnumType& color = Kiln::enumRegister("Test::Color", {{0, "red"}, {2, "blue"}});
  EXPECT_TRUE(Kiln::enumType("Test::Color") == &color && color.valueOf("blue") == 2u && color.nameOf(7) == "7");
}
