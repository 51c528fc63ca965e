#include "Depot/FaultInjection.h"

#include <atomic>

namespace Depot {
namespace {

std::atomic<U64> countdown{0};
std::atomic<bool> persistent{false};
std::atomic<U64> reached{0};

}  // namespace

void injectFailureAt(U64 n, bool persist) {
  persistent.store(persist, std::memory_order_relaxed);
  countdown.store(n, std::memory_order_relaxed);
}

U64 failurePointsReached() { return reached.load(std::memory_order_relaxed); }

namespace sharedfile {

int injectedFailure(int err) {
  reached.fetch_add(1, std::memory_order_relaxed);
  U64 left = countdown.load(std::memory_order_relaxed);
  if (left == 0) return 0;
  if (left > 1) {
    countdown.store(left - 1, std::memory_order_relaxed);
    return 0;
  }
  if (!persistent.load(std::memory_order_relaxed)) countdown.store(0, std::memory_order_relaxed);
  return err;
}

}  // namespace sharedfile
}  // namespace Depot
