#include <gtest/gtest.h>

#include <thread>

#include "Beat/Counter.h"

TEST(CounterSet, CountersAreFoundByNameKeptInOrderAndCountedAcrossThreads) {
  Beat::CounterSet set("test", 1);
  Beat::Counter &hits = set.counterNew("hits"), &misses = set.counterNew("misses");  // past the size hint
  EXPECT_TRUE(&set.counterNew("hits") == &hits && set.counter("misses") == &misses && !set.counter("none"));
  EXPECT_EQ(set.counters(), (std::vector<const Beat::Counter*>{&hits, &misses}));
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) threads.emplace_back([&hits] { for (int i = 0; i < 1000; ++i) hits.inc(); });
  for (auto& t : threads) t.join();
  EXPECT_TRUE(hits.value() == 4000 && misses.value() == 0);
}
