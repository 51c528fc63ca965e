#include <gtest/gtest.h>

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

}  // namespace
