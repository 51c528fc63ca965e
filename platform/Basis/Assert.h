#pragma once
#include <string_view>

namespace Basis {

// Called by assertionFailed before it prints and aborts. A handler may throw
// to unwind instead (a fuzzing harness tells an expected stop from a real
// one that way); if it returns, the process still aborts.
using AssertionHandler = void (*)(std::string_view condition, std::string_view path, std::string_view function);
// Installs h for the whole process; nullptr removes it.
void assertionHandlerIs(AssertionHandler h);

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
