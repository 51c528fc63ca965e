#include <fmt/format.h>
#include <gtest/gtest.h>

#include <string>
#include <thread>
#include <vector>

#include "Beat/Counter.h"

namespace {

TEST(CounterTest, setRegistersLooksUpAndOrders) {
  Beat::CounterSet set(std::string(Beat::defaultSetName), 2);
  EXPECT_EQ(set.name(), "default");
  EXPECT_EQ(set.counter("a"), nullptr);
  Beat::Counter& a = set.counterNew("a");
  Beat::Counter& b = set.counterNew("b");
  // More counters than the hint; earlier references stay valid.
  for (int i = 0; i < 100; ++i) set.counterNew(fmt::format("extra{}", i));
  EXPECT_EQ(&set.counterNew("a"), &a);
  a.inc();
  a.inc(4);
  b.inc();
  EXPECT_EQ(set.counter("a"), &a);
  EXPECT_EQ(set.counter("a")->value(), 5u);
  EXPECT_EQ(set.counter("b")->value(), 1u);
  const auto all = set.counters();
  ASSERT_EQ(all.size(), 102u);
  EXPECT_EQ(all[0], &a);
  EXPECT_EQ(all[1], &b);
  EXPECT_EQ(all[101]->name(), "extra99");
}

TEST(CounterTest, concurrentIncrementsAreCounted) {
  Beat::CounterSet set("threads", 1);
  Beat::Counter& c = set.counterNew("hits");
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([&c] {
      for (int i = 0; i < 1000; ++i) c.inc();
    });
  }
  for (auto& t : threads) t.join();
  EXPECT_EQ(c.value(), 4000u);
}

}  // namespace
