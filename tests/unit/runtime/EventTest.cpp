#include <gtest/gtest.h>
#include <sched.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <fstream>
#include <string>

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
  explicit Waiter(SEvent& event, long ms = -1) : event_(event), ms_(ms) {}
  short await() const {
    while (isRunning()) {
      sched_yield();
    }
    return result_;
  }

  /// Whether the thread sleeps in the system, as a waiter does who has given the event's lock back.
  [[nodiscard]] bool sleeps() const {
    const int thread = thread_;
    if (thread == 0) {
      return false;
    }
    std::ifstream stat("/proc/self/task/" + std::to_string(thread) + "/stat");
    std::string line;
    std::getline(stat, line);
    const std::size_t state = line.rfind(')');
    return state != std::string::npos && line.compare(state + 1, 3, " S ") == 0;
  }

 private:
  void threadMain() override {
    thread_ = gettid();
    result_ = event_.wait(ms_);
  }
  SEvent& event_;
  const long ms_;
  std::atomic<int> thread_{0};
  std::atomic<short> result_{99};
};

void awaitSleep(const Waiter& waiter) {
  while (waiter.isRunning() && !waiter.sleeps()) {
    sched_yield();
  }
}

TEST(Event, signalBeforeOrWhileAWaiterBeginsIsNeverLost) {
  for (int i = 0; i < 100; ++i) {
    SEvent event("e");
    Waiter waiter(event);
    waiter.start();
    event.signal();
    EXPECT_EQ(waiter.await(), 0);
  }
}

TEST(Event, signalWakesAWaiterWhoSleeps) {
  SEvent event("e");
  Waiter waiter(event);
  waiter.start();
  awaitSleep(waiter);
  event.signal();
  EXPECT_EQ(waiter.await(), 0);
  EXPECT_FALSE(event.isPending());
}

TEST(Event, signalWakesAWaiterWithATimeLimitBeforeItsTime) {
  SEvent event("e");
  Waiter waiter(event, 3'600'000);
  waiter.start();
  awaitSleep(waiter);
  event.signal();
  EXPECT_EQ(waiter.await(), 0);
}

TEST(Event, signalWakesOneOfTwoWaitersAndTheNextSignalTheOther) {
  SEvent event("e");
  Waiter first(event);
  Waiter second(event);
  first.start();
  second.start();
  awaitSleep(first);
  awaitSleep(second);

  event.signal();
  while (first.isRunning() && second.isRunning()) {
    sched_yield();
  }
  Waiter& other = first.isRunning() ? first : second;
  awaitSleep(other);
  ASSERT_TRUE(other.isRunning()) << "one signal, two waiters woken";
  EXPECT_FALSE(event.isPending()) << "the first one took the signal with it";

  event.signal();
  EXPECT_EQ(first.await(), 0);
  EXPECT_EQ(second.await(), 0);
}

}  // namespace
