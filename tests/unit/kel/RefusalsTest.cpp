// One line for many refusals, and when to ask again.
#include "session/Refusals.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <string>

namespace kel {
namespace {

using namespace std::chrono_literals;

class RefusalsTest : public ::testing::Test {
 protected:
  /// What is said in so many steps of 100 ms.
  std::string saidIn(std::chrono::milliseconds span) {
    ::testing::internal::CaptureStderr();
    for (auto left = span; left > 0ms; left -= 100ms) {
      now_ += 100ms;
      asked_ += refusals_.due(now_, 10s).size();
    }
    return ::testing::internal::GetCapturedStderr();
  }
  static auto lines(const std::string& said) { return std::count(said.begin(), said.end(), '\n'); }

  Grants grants_ = 0;
  Refusals refusals_{"all is granted", grants_};
  Refusals::Time now_ = Refusals::Time(1h);
  std::size_t asked_ = 0;
};

TEST_F(RefusalsTest, SaysManyInOneLineAndRemindsOnceAMinute) {
  EXPECT_TRUE(refusals_.refused("a", "a is refused", "to read a", now_));
  for (const char* key : {"b", "c", "d"}) EXPECT_TRUE(refusals_.refused(key, key, "to read it", now_));
  EXPECT_FALSE(refusals_.refused("a", "a is refused", "to read a", now_)) << "known";
  const std::string said = saidIn(59s);
  EXPECT_EQ(lines(said), 1) << said;
  EXPECT_NE(
      said.find(
          "a is refused (and 3 more like it); has this user the right to read a? Asking again every 10 s"),
      std::string::npos)
      << said;
  EXPECT_EQ(lines(saidIn(60s)), 1);
}

TEST_F(RefusalsTest, AsksAgainForAllAfterThePause) {
  refusals_.refused("a", "a", "to read a", now_);
  refusals_.refused("b", "b", "to read b", now_);
  saidIn(9'900ms);
  EXPECT_EQ(asked_, 0U);
  saidIn(200ms);
  EXPECT_EQ(asked_, 2U);
  saidIn(10s);
  EXPECT_EQ(asked_, 4U);
}

TEST_F(RefusalsTest, AsksForTheRestWhenSomethingIsGranted) {
  for (const char* key : {"a", "b", "c"}) refusals_.refused(key, key, "to read it", now_);
  saidIn(3s);
  ASSERT_EQ(asked_, 0U);
  refusals_.granted("a");
  saidIn(100ms);
  EXPECT_EQ(asked_, 2U) << "b and c, long before the pause is over";
  refusals_.granted("b");
  saidIn(300ms);
  EXPECT_EQ(asked_, 2U) << "not in every tick";
  saidIn(300ms);
  EXPECT_EQ(asked_, 3U);
  saidIn(5s);
  EXPECT_EQ(asked_, 3U) << "nothing was granted since";
}

TEST_F(RefusalsTest, TakesTheGrantOfAnotherKindForAHint) {
  Refusals others("others are granted", grants_);
  others.refused("z", "z", "to write z", now_);
  refusals_.refused("a", "a", "to read a", now_);
  saidIn(3s);
  others.granted("y");
  saidIn(1s);
  EXPECT_EQ(asked_, 0U) << "y was never refused";
  others.granted("z");
  saidIn(100ms);
  EXPECT_EQ(asked_, 1U);
}

TEST_F(RefusalsTest, DoesNotTakeAGrantOfBeforeForAHint) {
  refusals_.refused("a", "a", "to read a", now_);
  refusals_.granted("a");
  refusals_.refused("b", "b", "to read b", now_);
  saidIn(9s);
  EXPECT_EQ(asked_, 0U);
}

TEST_F(RefusalsTest, SaysOnceWhenAllIsGranted) {
  refusals_.refused("a", "a", "to read a", now_);
  refusals_.refused("b", "b", "to read b", now_);
  saidIn(1s);
  ::testing::internal::CaptureStderr();
  refusals_.granted("a");
  refusals_.granted("unknown");
  EXPECT_EQ(::testing::internal::GetCapturedStderr(), "");
  ::testing::internal::CaptureStderr();
  refusals_.granted("b");
  refusals_.granted("b");
  const std::string said = ::testing::internal::GetCapturedStderr();
  EXPECT_EQ(lines(said), 1) << said;
  EXPECT_NE(said.find("all is granted"), std::string::npos);
  saidIn(60s);
  EXPECT_EQ(asked_, 0U);
}

TEST_F(RefusalsTest, DoesNotFloodWhenALinkFlaps) {
  std::string said;
  for (int times = 0; times < 50; ++times) {
    refusals_.refused("a", "a", "to read a", now_);
    said += saidIn(1s);
    refusals_.linkDown();
  }
  EXPECT_EQ(lines(said), 1) << said;
}

}  // namespace
}  // namespace kel
