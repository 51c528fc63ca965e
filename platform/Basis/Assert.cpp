#include "Basis/Assert.h"

#include <fmt/format.h>

#include <cstdio>
#include <cstdlib>

namespace Basis {

void assertionFailed(std::string_view condition, std::string_view path,
                     std::string_view function) {
  fmt::print(stderr, "assertion failed: {} ({}: {})\n", condition, path, function);
  std::fflush(stderr);
  std::abort();
}

}  // namespace Basis
