#include <gtest/gtest.h>

#include <stdexcept>
#include <string>

#include "Basis/Assert.h"

namespace {

TEST(AssertTest, failurePrintsOneLineAndAborts) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  const int x = 1;
  BASIS_ASSERT(x == 1, "/src/Test");
  EXPECT_DEATH(BASIS_ASSERT(x == 2, "/src/Test"),
               "^assertion failed: x == 2 \\(/src/Test: [^\n]*AssertTest[^\n]*\\)\n$");
  EXPECT_DEATH(BASIS_ASSERT_TEXT(x > 5, "x big", "/src/Other", "void f(int)"),
               "^assertion failed: x big \\(/src/Other: void f\\(int\\)\\)\n$");
}

struct Stopped : std::runtime_error {
  using std::runtime_error::runtime_error;
};

void throwingHandler(std::string_view condition, std::string_view path, std::string_view function) {
  throw Stopped(std::string(condition) + "|" + std::string(path) + "|" + std::string(function));
}

void returningHandler(std::string_view, std::string_view, std::string_view) {}

// Removes the handler however the test ends.
struct HandlerScope {
  explicit HandlerScope(Basis::AssertionHandler h) { Basis::assertionHandlerIs(h); }
  ~HandlerScope() { Basis::assertionHandlerIs(nullptr); }
};

TEST(AssertTest, handlerSeesTheFailureAndMayUnwind) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  {
    HandlerScope scope(throwingHandler);
    try {
      BASIS_ASSERT_TEXT(1 + 1 == 3, "sum", "/src/Test", "void g()");
      ADD_FAILURE() << "the handler did not unwind";
    } catch (const Stopped& e) {
      EXPECT_EQ(std::string(e.what()), "sum|/src/Test|void g()");
    }
  }
  {
    // A handler that returns does not stop the abort.
    HandlerScope scope(returningHandler);
    EXPECT_DEATH(BASIS_ASSERT_TEXT(false, "kept", "/src/Test", "void h()"),
                 "^assertion failed: kept \\(/src/Test: void h\\(\\)\\)\n$");
  }
  // Removed again: the next failure aborts rather than throwing.
  EXPECT_DEATH(BASIS_ASSERT_TEXT(false, "plain", "/src/Test", "void k()"), "^assertion failed: plain ");
}

}  // namespace
