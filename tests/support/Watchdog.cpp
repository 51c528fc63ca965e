// Linked into every test binary: a test still running after a limit fails
// by name instead of hanging until ctest kills the whole binary.
#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

namespace {

#if defined(__SANITIZE_ADDRESS__)
constexpr unsigned limitSeconds = 400;  // sanitized code runs several times slower
#else
constexpr unsigned limitSeconds = 100;
#endif

struct Watchdog : testing::EmptyTestEventListener {
  void OnTestStart(const testing::TestInfo&) override { alarm(limitSeconds); }
  void OnTestEnd(const testing::TestInfo&) override { alarm(0); }
};

const bool installed = [] {
  signal(SIGALRM, [](int) {
    const char text[] = "watchdog: the test is still running after its time limit; it hangs\n";
    [[maybe_unused]] ssize_t n = write(2, text, sizeof text - 1);
    _exit(124);
  });
  testing::UnitTest::GetInstance()->listeners().Append(new Watchdog);
  return true;
}();

}  // namespace
