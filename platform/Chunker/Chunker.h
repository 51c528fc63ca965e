#pragma once
#include <cstddef>
#include <memory>
#include <vector>

namespace Chunker {

// Slab allocator of fixed-size chunks: slabs are carved into chunks, freed
// chunks go on a free list and are handed out again first. Chunks are at
// least pointer-sized and aligned for any scalar type. Not thread-safe:
// callers that share a pool serialize access themselves.
class Pool {
 public:
  Pool(size_t chunkSize, size_t chunksPerSlab = 64);
  Pool(const Pool&) = delete;
  Pool& operator=(const Pool&) = delete;

  void* allocate();
  void deallocate(void* p);
  size_t chunkSize() const { return chunkSize_; }
  size_t inUse() const { return inUse_; }
  size_t slabCount() const { return slabs_.size(); }

 private:
  struct FreeChunk { FreeChunk* next; };
  size_t chunkSize_;
  size_t chunksPerSlab_;
  std::vector<std::unique_ptr<std::byte[]>> slabs_;
  FreeChunk* free_ = nullptr;
  size_t carved_ = 0;  // chunks handed out from the newest slab
  size_t inUse_ = 0;
};

}  // namespace Chunker
