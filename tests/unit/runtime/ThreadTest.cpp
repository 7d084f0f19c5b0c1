#include <gtest/gtest.h>
#include <sched.h>

#include <atomic>
#include <limits>

#include "platformDependant.h"

namespace {

class Worker final : public SThread {
 public:
  explicit Worker(bool endAtOnce = false) : endAtOnce_(endAtOnce) {}
  ~Worker() {
    stop();
    awaitEnd();
  }
  void awaitEnd() const {
    while (isRunning()) {
      sched_yield();
    }
  }
  void awaitRounds(int count) const {
    while (rounds < count) {
      sched_yield();
    }
  }
  [[nodiscard]] bool stopRequested() const { return shouldStop; }

  std::atomic<int> runs{0};
  std::atomic<int> rounds{0};
  std::atomic<bool> deaf{false};  ///< does not look at the stop request

 private:
  void threadMain() override {
    ++runs;
    while (!endAtOnce_ && (deaf || !shouldStop)) {
      ++rounds;
      sched_yield();
    }
  }
  const bool endAtOnce_;
};

TEST(Thread, doesNotRunBeforeStart) {
  const Worker worker;
  EXPECT_FALSE(worker.isRunning());
  EXPECT_FALSE(worker.stopRequested());
}

TEST(Thread, runsItsBodyUntilStopped) {
  Worker worker;
  worker.start();
  EXPECT_TRUE(worker.isRunning());
  worker.awaitRounds(1);
  EXPECT_TRUE(worker.isRunning());
  worker.stop();
  worker.awaitEnd();
  EXPECT_TRUE(worker.stopRequested());
  EXPECT_EQ(worker.runs, 1);
}

TEST(Thread, startOnARunningThreadOnlyTakesTheStopRequestBack) {
  Worker worker;
  worker.start();
  worker.awaitRounds(1);
  worker.deaf = true;
  worker.stop();
  EXPECT_TRUE(worker.stopRequested());
  worker.start();
  EXPECT_FALSE(worker.stopRequested());
  worker.deaf = false;
  worker.awaitRounds(worker.rounds + 2);  // it goes on ...
  worker.stop();
  worker.awaitEnd();
  EXPECT_EQ(worker.runs, 1);  // ... and it is the one that ran before
}

TEST(Thread, canBeStartedAgainAfterItsEnd) {
  Worker worker;
  for (int i = 1; i <= 3; ++i) {
    worker.start();
    worker.stop();
    worker.awaitEnd();
    EXPECT_EQ(worker.runs, i);
  }
}

TEST(Thread, bodyThatEndsAtOnceLeavesNoHandleBehind) {
  for (int i = 0; i < 200; ++i) {
    Worker worker(true);
    worker.start();
    worker.awaitEnd();
    EXPECT_EQ(worker.runs, 1);
    EXPECT_TRUE(worker.stopRequested());
  }
}

TEST(ThreadDeathTest, threadThatCannotBeCreatedEndsTheProcess) {
  testing::GTEST_FLAG(death_test_style) = "threadsafe";
  EXPECT_DEATH(
      {
        pthread_attr_t attributes;
        pthread_attr_init(&attributes);
        pthread_attr_setstacksize(&attributes, std::size_t{1} << 60);  // no system has that much
        pthread_setattr_default_np(&attributes);
        Worker worker;
        worker.start();
      },
      "platformDependant:58: .*start.*: Assertion `hThread != 0' failed");
}

TEST(Thread, sleepsMicrosecondsDespiteTheName) {
  timespec before{};
  timespec after{};
  clock_gettime(CLOCK_MONOTONIC, &before);
  SThread::msSleep(2000);
  clock_gettime(CLOCK_MONOTONIC, &after);
  const long us = (after.tv_sec - before.tv_sec) * 1'000'000 + (after.tv_nsec - before.tv_nsec) / 1000;
  EXPECT_GE(us, 2000);       // 2000 of them passed
  EXPECT_LT(us, 2'000'000);  // not 2000 milliseconds
}

TEST(Mutex, keepsItsName) {
  const SMutex mutex("SubConfigLock");
  EXPECT_STREQ(mutex.getName(), "SubConfigLock");
  EXPECT_EQ(mutex.getLockCount(), 0);
}

TEST(Mutex, countsLocksAndReleasesAlike) {
  SMutex mutex("m");
  mutex.lock();
  EXPECT_EQ(mutex.getLockCount(), 1);
  mutex.release();
  EXPECT_EQ(mutex.getLockCount(), 2);
}

class OldMutex final : public SMutex {
 public:
  explicit OldMutex(int operations) : SMutex("m") { lockCount = operations; }
};

TEST(Mutex, countOfOperationsGoesOnBehindTheLargestNumber) {
  OldMutex mutex(std::numeric_limits<int>::max() - 1);
  mutex.lock();
  EXPECT_EQ(mutex.getLockCount(), std::numeric_limits<int>::max());
  mutex.release();
  EXPECT_EQ(mutex.getLockCount(), std::numeric_limits<int>::min());
  mutex.lock();
  EXPECT_EQ(mutex.getLockCount(), std::numeric_limits<int>::min() + 1);
  mutex.release();
}

TEST(Mutex, guardHoldsItForItsLife) {
  SMutex mutex("m");
  {
    const SmutexGuard guard(mutex);
    EXPECT_EQ(mutex.getLockCount(), 1);
  }
  EXPECT_EQ(mutex.getLockCount(), 2);
}

class Incrementer final : public SThread {
 public:
  Incrementer(SMutex& mutex, int& counter) : mutex_(mutex), counter_(counter) {}
  void awaitEnd() const {
    while (isRunning()) {
      sched_yield();
    }
  }

 private:
  void threadMain() override {
    for (int i = 0; i < 10'000; ++i) {
      const SmutexGuard guard(mutex_);
      ++counter_;
    }
  }
  SMutex& mutex_;
  int& counter_;
};

TEST(Mutex, keepsThreadsApart) {
  SMutex mutex("m");
  int counter = 0;
  Incrementer first(mutex, counter);
  Incrementer second(mutex, counter);
  first.start();
  second.start();
  first.awaitEnd();
  second.awaitEnd();
  const SmutexGuard guard(mutex);
  EXPECT_EQ(counter, 20'000);
  EXPECT_EQ(mutex.getLockCount(), 2 * 20'000 + 1);
}

}  // namespace
