#include <gtest/gtest.h>

#include <algorithm>
#include <random>
#include <set>

#include "Chunker/Chunker.h"

TEST(ChunkerPool, ChunksStayDistinctIntactAndAlignedOverManyCycles) {
  Chunker::Pool pool(24, 16);
  std::mt19937 rng(7);
  std::vector<char*> live;  // each filled with a byte taken from its address
  const auto tag = [](char* p) { return char(reinterpret_cast<std::uintptr_t>(p) / 16); };
  for (int step = 0; step < 20000; ++step) {
    if (live.empty() || (live.size() < 200 && rng() % 3 != 0)) {
      char* p = live.emplace_back(static_cast<char*>(pool.allocate()));
      ASSERT_EQ(reinterpret_cast<std::uintptr_t>(p) % alignof(std::max_align_t), 0u);
      std::fill_n(p, 24, tag(p));
    } else {
      std::swap(live[rng() % live.size()], live.back());
      ASSERT_EQ(std::string(live.back(), 24), std::string(24, tag(live.back())));
      pool.deallocate(live.back()), live.pop_back();
    }
  }
  EXPECT_EQ(std::set<char*>(live.begin(), live.end()).size(), pool.inUse());
  EXPECT_LE(pool.slabCount(), 200u / 16 + 1);  // freed chunks are handed out again
}
