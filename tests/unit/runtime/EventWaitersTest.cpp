// Two threads that wait for one event.
#include <gtest/gtest.h>
#include <sched.h>

#include <atomic>

#include "WatchedThread.h"
#include "platformDependant.h"

namespace {

using test_support::WatchedThread;

TEST(EventWaiters, oneSignalWakesOneOfTwo) {
  SEvent event("e");
  std::atomic<int> woken{0};
  const auto waitForIt = [&event, &woken] {
    EXPECT_EQ(event.wait(-1), 0);
    ++woken;
  };
  WatchedThread first(waitForIt);
  ASSERT_TRUE(first.comesToWait());
  WatchedThread second(waitForIt);
  ASSERT_TRUE(second.comesToWait());
  const std::string firstWaits = first.timesWaited();
  const std::string secondWaits = second.timesWaited();

  event.signal();
  while (!first.ended() && !second.ended()) {
    sched_yield();
  }
  // The other one was not even woken to look.
  const WatchedThread& other = first.ended() ? second : first;
  EXPECT_TRUE(other.waits());
  EXPECT_EQ(other.timesWaited(), first.ended() ? secondWaits : firstWaits);
  EXPECT_EQ(woken, 1);
  EXPECT_FALSE(event.isPending());

  event.signal();
  first.join();
  second.join();
  EXPECT_EQ(woken, 2);
}

TEST(EventWaiters, timedWaitIsWokenByASignalToo) {
  SEvent event("e");
  std::atomic<short> result{99};
  WatchedThread waiter([&event, &result] { result = event.wait(3'600'000); });
  ASSERT_TRUE(waiter.comesToWait());
  event.signal();
  waiter.join();
  EXPECT_EQ(result, 0);
  EXPECT_FALSE(event.isPending());
}

}  // namespace
