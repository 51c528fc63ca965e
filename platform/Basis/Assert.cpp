#include "Basis/Assert.h"

#include <fmt/format.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>

namespace Basis {

namespace {

std::atomic<AssertionHandler> installedHandler{nullptr};

}  // namespace

void assertionHandlerIs(AssertionHandler h) { installedHandler.store(h, std::memory_order_release); }

void assertionFailed(std::string_view condition, std::string_view path,
                     std::string_view function) {
  if (AssertionHandler h = installedHandler.load(std::memory_order_acquire)) h(condition, path, function);
  fmt::print(stderr, "assertion failed: {} ({}: {})\n", condition, path, function);
  std::fflush(stderr);
  std::abort();
}

}  // namespace Basis
