#include "Chunker/Chunker.h"

#include <algorithm>
#include <cstddef>
#include <new>

#include "Basis/Assert.h"

namespace Chunker {

namespace {

// Room for the free-list link, rounded up so that every chunk of a slab
// keeps the slab's alignment.
size_t roundedChunkSize(size_t requested) {
  constexpr size_t align = alignof(std::max_align_t);
  const size_t size = std::max(requested, sizeof(void*));
  return (size + align - 1) / align * align;
}

}  // namespace

Pool::Pool(size_t chunkSize, size_t chunksPerSlab)
    : chunkSize_(roundedChunkSize(chunkSize)), chunksPerSlab_(chunksPerSlab) {
  BASIS_ASSERT(chunksPerSlab_ > 0, "/src/Chunker/Chunker");
}

void* Pool::allocate() {
  void* p;
  if (free_) {
    p = free_;
    free_ = free_->next;
  } else {
    if (slabs_.empty() || carved_ == chunksPerSlab_) {
      // new[] of bytes is aligned for max_align_t.
      slabs_.emplace_back(new std::byte[chunkSize_ * chunksPerSlab_]);
      carved_ = 0;
    }
    p = slabs_.back().get() + carved_ * chunkSize_;
    ++carved_;
  }
  ++inUse_;
  return p;
}

void Pool::deallocate(void* p) {
  if (!p) return;
  BASIS_ASSERT(inUse_ > 0, "/src/Chunker/Chunker");
  free_ = new (p) FreeChunk{free_};
  --inUse_;
}

}  // namespace Chunker
