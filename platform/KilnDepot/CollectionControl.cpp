#include "KilnDepot/CollectionControl.h"

#include <mutex>
#include <new>

#include "Chunker/Chunker.h"
#include "KilnDepot/KilnDepotMap.h"

namespace KilnDepot {
namespace {

// Controls are small and made two per entity; they come from one slab pool.
struct ControlPool {
  std::mutex mutex;
  Chunker::Pool pool{sizeof(CollectionControl)};
};

ControlPool& controlPool() {
  static ControlPool* p = new ControlPool;  // outlives every control, also at exit
  return *p;
}

}  // namespace

const char* stringValue(MountStatus s) {
  switch (s) {
    case MountStatus::local: return "local";
    case MountStatus::writer: return "writer";
    case MountStatus::reader: return "reader";
    case MountStatus::failed: return "failed";
  }
  return "unknown";
}

CollectionControl::~CollectionControl() {
  if (binding_) binding_->controlGone();
}

void* CollectionControl::operator new(size_t size) {
  ControlPool& p = controlPool();
  if (size > p.pool.chunkSize()) throw std::bad_alloc();
  std::lock_guard lock(p.mutex);
  return p.pool.allocate();
}

void CollectionControl::operator delete(void* ptr) {
  ControlPool& p = controlPool();
  std::lock_guard lock(p.mutex);
  p.pool.deallocate(ptr);
}

}  // namespace KilnDepot
