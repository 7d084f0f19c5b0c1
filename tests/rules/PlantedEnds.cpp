// Tests that end the process in all the ways that must not pass for a good end; not run by themselves.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>

namespace {

TEST(Planted, Passes) {
  EXPECT_EQ(1 + 1, 2);
}

TEST(Planted, EndsAtOnce) {
  ::_exit(0);
}

TEST(Planted, EndsInOrder) {
  std::exit(0);
}

TEST(Planted, EndsAfterWordsOfItsOwn) {
  std::puts("[  PASSED  ] 1 test.");
  std::fflush(stdout);
  ::_exit(0);
}

TEST(Planted, Fails) {
  FAIL();
}

TEST(Planted, IsSkipped) {
  GTEST_SKIP() << "to see that it is counted";
}

TEST(Planted, PassesToo) {
  EXPECT_EQ(2 + 2, 4);
}

}  // namespace
