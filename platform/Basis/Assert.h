#pragma once
#include <string_view>

namespace Basis {

// Prints "assertion failed: COND (PATH: FUNCTION)" to stderr and aborts.
// Internal-consistency failures end the process; nothing caused by input may.
[[noreturn]] void assertionFailed(std::string_view condition, std::string_view path,
                                  std::string_view function);

}  // namespace Basis

// Asserts with an explicit condition text, source path and signature text.
#define BASIS_ASSERT_TEXT(cond, text, path, function)                 \
  do {                                                                \
    if (!(cond)) [[unlikely]]                                         \
      ::Basis::assertionFailed((text), (path), (function));           \
  } while (0)

#define BASIS_ASSERT(cond, path) BASIS_ASSERT_TEXT(cond, #cond, path, __PRETTY_FUNCTION__)
