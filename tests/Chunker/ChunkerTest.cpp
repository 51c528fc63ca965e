#include <gtest/gtest.h>

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <random>
#include <set>
#include <vector>

#include "Chunker/Chunker.h"

namespace {

bool aligned(const void* p) { return reinterpret_cast<std::uintptr_t>(p) % alignof(std::max_align_t) == 0; }

TEST(ChunkerTest, chunkSizeIsRoundedForLinksAndAlignment) {
  EXPECT_EQ(Chunker::Pool(1).chunkSize(), alignof(std::max_align_t));
  EXPECT_EQ(Chunker::Pool(0).chunkSize(), alignof(std::max_align_t));
  EXPECT_EQ(Chunker::Pool(alignof(std::max_align_t) + 1).chunkSize(), 2 * alignof(std::max_align_t));
  EXPECT_EQ(Chunker::Pool(4 * alignof(std::max_align_t)).chunkSize(), 4 * alignof(std::max_align_t));
  Chunker::Pool pool(3, 4);
  for (int i = 0; i < 9; ++i) EXPECT_TRUE(aligned(pool.allocate()));
}

TEST(ChunkerTest, slabsGrowOnlyWhenCarvedOut) {
  Chunker::Pool pool(40, 3);
  EXPECT_EQ(pool.slabCount(), 0u);
  std::vector<std::byte*> chunks;
  for (int i = 0; i < 3; ++i) chunks.push_back(static_cast<std::byte*>(pool.allocate()));
  EXPECT_EQ(pool.slabCount(), 1u);
  EXPECT_EQ(chunks[1] - chunks[0], std::ptrdiff_t(pool.chunkSize()));
  EXPECT_EQ(chunks[2] - chunks[1], std::ptrdiff_t(pool.chunkSize()));
  chunks.push_back(static_cast<std::byte*>(pool.allocate()));
  EXPECT_EQ(pool.slabCount(), 2u);
  EXPECT_EQ(pool.inUse(), 4u);
  // Freed chunks come back last-in first-out before any new carving.
  pool.deallocate(chunks[0]);
  pool.deallocate(chunks[2]);
  EXPECT_EQ(pool.inUse(), 2u);
  EXPECT_EQ(pool.allocate(), chunks[2]);
  EXPECT_EQ(pool.allocate(), chunks[0]);
  const auto* next = static_cast<std::byte*>(pool.allocate());
  EXPECT_EQ(next - chunks[3], std::ptrdiff_t(pool.chunkSize()));
  EXPECT_EQ(pool.slabCount(), 2u);
  pool.deallocate(nullptr);
  EXPECT_EQ(pool.inUse(), 5u);
}

TEST(ChunkerTest, manyCyclesKeepChunksDistinctAndIntact) {
  Chunker::Pool pool(24, 16);
  std::mt19937 rng(7);
  std::vector<unsigned char*> live;
  size_t peak = 0;
  for (int step = 0; step < 20000; ++step) {
    if (live.empty() || rng() % 3 != 0) {
      auto* p = static_cast<unsigned char*>(pool.allocate());
      std::memset(p, int(reinterpret_cast<std::uintptr_t>(p) & 0xff), 24);
      live.push_back(p);
    } else {
      const size_t i = rng() % live.size();
      unsigned char* p = live[i];
      for (int b = 0; b < 24; ++b) ASSERT_EQ(p[b], reinterpret_cast<std::uintptr_t>(p) & 0xff);
      pool.deallocate(p);
      live[i] = live.back();
      live.pop_back();
    }
    peak = std::max(peak, live.size());
    if (live.size() > 500) {
      for (unsigned char* p : live) pool.deallocate(p);
      live.clear();
    }
  }
  EXPECT_EQ(pool.inUse(), live.size());
  EXPECT_EQ(std::set<unsigned char*>(live.begin(), live.end()).size(), live.size());
  // Freed chunks are reused: slabs never exceed what the peak needed.
  EXPECT_LE(pool.slabCount(), (peak + 15) / 16);
}

}  // namespace
