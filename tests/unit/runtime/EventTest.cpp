#include <gtest/gtest.h>
#include <sched.h>

#include <atomic>
#include <cerrno>

#include "platformDependant.h"

namespace {

TEST(Event, waitWithNothingPendingTimesOutAtOnce) {
  SEvent event("e");
  EXPECT_EQ(event.wait(0), -1);
  EXPECT_FALSE(event.isPending());
}

TEST(Event, signalWithoutWaiterIsRemembered) {
  SEvent event("e");
  event.signal();
  EXPECT_TRUE(event.isPending());
  EXPECT_EQ(event.wait(1'000'000), 0);
  EXPECT_FALSE(event.isPending());
}

TEST(Event, pendingSignalAlsoAnswersAWaitWithoutLimit) {
  SEvent event("e");
  event.signal();
  EXPECT_EQ(event.wait(-1), 0);
}

TEST(Event, severalSignalsBeforeAWaitCountAsOne) {
  SEvent event("e");
  event.signal();
  event.signal();
  EXPECT_EQ(event.wait(0), 0);
  EXPECT_EQ(event.wait(0), -1);
}

TEST(Event, clearedSignalIsForgotten) {
  SEvent event("e");
  event.signal();
  event.clearPending();
  EXPECT_EQ(event.wait(0), -1);
}

TEST(Event, keepsItsName) {
  EXPECT_STREQ(SEvent("PublicationUpdateThread_event").getName(), "PublicationUpdateThread_event");
}

TEST(Event, deadlineHasWholeMilliseconds) {
  // 10.9995 s and 1500 ms: 10.999 + 1.5 = 12.499, the half millisecond is dropped.
  const timespec deadline = SEvent::deadlineAfter(timeval{10, 999'500}, 1500);
  EXPECT_EQ(deadline.tv_sec, 12);
  EXPECT_EQ(deadline.tv_nsec, 499'000'000);
}

TEST(Event, deadlineCarriesIntoTheSeconds) {
  const timespec deadline = SEvent::deadlineAfter(timeval{100, 600'999}, 400);
  EXPECT_EQ(deadline.tv_sec, 101);
  EXPECT_EQ(deadline.tv_nsec, 0);
}

TEST(Event, deadlineReachesFortyNineDays) {
  const timespec deadline = SEvent::deadlineAfter(timeval{1000, 0}, 4'294'967'295);
  EXPECT_EQ(deadline.tv_sec, 1000 + 4'294'967);
  EXPECT_EQ(deadline.tv_nsec, 295'000'000);
}

TEST(Event, waitTellsSignalTimeOutAndFailureApart) {
  EXPECT_EQ(SEvent::resultOf(0), 0);
  EXPECT_EQ(SEvent::resultOf(ETIMEDOUT), -1);
  EXPECT_EQ(SEvent::resultOf(EINVAL), -2);
  EXPECT_EQ(SEvent::resultOf(EPERM), -2);
}

class Waiter final : public SThread {
 public:
  explicit Waiter(SEvent& event) : event_(event) {}
  short await() const {
    while (isRunning()) {
      sched_yield();
    }
    return result_;
  }

 private:
  void threadMain() override { result_ = event_.wait(-1); }
  SEvent& event_;
  std::atomic<short> result_{99};
};

TEST(Event, signalWakesAWaiter) {
  for (int i = 0; i < 100; ++i) {
    SEvent event("e");
    Waiter waiter(event);
    waiter.start();
    event.signal();  // before or after the wait began: it is never lost
    EXPECT_EQ(waiter.await(), 0);
  }
}

}  // namespace
