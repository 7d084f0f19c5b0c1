// The thread that sends buffered publications: its list, its turns, its life.
#include <pvss/IntegerVar.h>
#include <sched.h>

#include <optional>

#include "DelayList.h"

namespace gateway_test {
namespace {

constexpr short signalled = 0;
constexpr short timedOut = -1;
constexpr short failed = -2;

class UpdateThread : public Gateway {
 protected:
  void SetUp() override {
    start();
    groups.emplace(4);
    thread.emplace();
    kel.takeSent();
  }
  void TearDown() override {
    thread.reset();
    groups.reset();
  }
  bool add(std::size_t group, unsigned long ms) { return thread->addGroup((*groups)[group], ms); }
  /// One turn in which the wait is over: publishes what is due. Gives the wait.
  long elapseTurn() {
    const auto turn = thread->beginTurn();
    clock.advance(turn.waitMs);
    thread->endTurn(turn, timedOut);
    return turn.waitMs;
  }
  /// The names of what was published since the last look.
  Lines published() {
    Lines names;
    for (const auto& sent : kel.takeSent()) {
      names.push_back(sent.publication);
    }
    return names;
  }

  DrivenClock clock;
  std::optional<BareGroups> groups;
  std::optional<PublicationUpdateThread> thread;
};

TEST_F(UpdateThread, emptyListWaitsASecondAndPublishesNothing) {
  const auto turn = thread->beginTurn();
  EXPECT_EQ(turn.waitMs, 1000);
  EXPECT_FALSE(turn.entryInHand);
  thread->endTurn(turn, timedOut);
  EXPECT_EQ(published(), Lines{});
}

TEST_F(UpdateThread, groupAddedToAnEmptyListIsDueAfterExactlyItsTime) {
  clock.advance(123'456);  // however long the list was empty
  EXPECT_TRUE(add(0, 100));
  EXPECT_EQ(elapseTurn(), 100);
  EXPECT_EQ(published(), Lines{"0"});
}

TEST_F(UpdateThread, emptyListTakesTheMomentOfTheAddForItsStart) {
  // The thread has not begun its turn yet when the second group comes: what passed counts from the first add.
  clock.advance(50'000);
  add(0, 100);
  clock.advance(30);
  add(1, 500);
  EXPECT_EQ(elapseTurn(), 70);
  EXPECT_EQ(elapseTurn(), 430);
  EXPECT_EQ(published(), (Lines{"0", "1"}));
}

TEST_F(UpdateThread, timeOutOfATurnBegunWithAnEmptyListPublishesNothing) {
  const auto turn = thread->beginTurn();
  add(0, 5);
  thread->endTurn(turn, timedOut);
  EXPECT_EQ(published(), Lines{});
  EXPECT_EQ(elapseTurn(), 5);
  EXPECT_EQ(published(), Lines{"0"});
}

TEST_F(UpdateThread, timeOutAfterAnOrderlyStopPublishesNothing) {
  add(0, 5);
  const auto turn = thread->beginTurn();
  thread->stopInOrder();
  thread->endTurn(turn, timedOut);
  EXPECT_EQ(published(), Lines{});
}

TEST_F(UpdateThread, shorterGroupBecomesFirstAndTheOldFirstCountsFromIt) {
  add(0, 100);
  clock.advance(10);
  add(1, 30);
  EXPECT_EQ(elapseTurn(), 30);
  EXPECT_EQ(elapseTurn(), 60);
  EXPECT_EQ(published(), (Lines{"1", "0"}));
}

TEST_F(UpdateThread, groupBetweenTwoOthersTakesItsPartOfTheDelay) {
  add(0, 100);
  add(1, 300);
  EXPECT_TRUE(add(2, 250));
  EXPECT_EQ(elapseTurn(), 100);
  EXPECT_EQ(elapseTurn(), 150);
  EXPECT_EQ(elapseTurn(), 50);
  EXPECT_EQ(published(), (Lines{"0", "2", "1"}));
}

TEST_F(UpdateThread, waitingGroupKeepsItsDueTime) {
  add(0, 100);
  add(1, 200);
  clock.advance(40);
  EXPECT_FALSE(add(0, 10));
  EXPECT_FALSE(add(1, 10));
  EXPECT_FALSE(add(1, 10'000));
  EXPECT_EQ(elapseTurn(), 60);
  EXPECT_EQ(elapseTurn(), 100);
  EXPECT_EQ(published(), (Lines{"0", "1"}));
}

TEST_F(UpdateThread, groupsOfTheSameDueTimePublishInTheOrderOfTheirAdding) {
  add(0, 100);
  add(1, 100);
  clock.advance(60);
  add(2, 40);
  EXPECT_EQ(elapseTurn(), 40);
  EXPECT_EQ(elapseTurn(), 0);
  EXPECT_EQ(elapseTurn(), 0);
  EXPECT_EQ(published(), (Lines{"0", "1", "2"}));
}

TEST_F(UpdateThread, delayOfZeroPublishesWithoutWaiting) {
  add(0, 50);
  add(1, 0);
  EXPECT_EQ(elapseTurn(), 0);
  EXPECT_EQ(published(), Lines{"1"});
}

TEST_F(UpdateThread, timeBeforeAnAddIsDeductedAndANegativeRestIsZero) {
  add(0, 100);
  clock.advance(500);
  add(1, 50);
  EXPECT_EQ(elapseTurn(), 0);
  EXPECT_EQ(elapseTurn(), 50);
  EXPECT_EQ(published(), (Lines{"0", "1"}));
}

TEST_F(UpdateThread, entriesBehindAPublishedOneCountFromThatMoment) {
  add(0, 100);
  add(1, 300);
  const auto turn = thread->beginTurn();
  clock.advance(160);  // the thread comes late
  thread->endTurn(turn, timedOut);
  EXPECT_EQ(published(), Lines{"0"});
  clock.advance(50);
  add(2, 1000);
  EXPECT_EQ(elapseTurn(), 150);
  EXPECT_EQ(published(), Lines{"1"});
}

TEST_F(UpdateThread, timeThatPublishingTakesCountsForTheEntriesBehind) {
  add(0, 100);
  add(1, 300);
  kel.onCall = [](const std::string& /*call*/) { DrivenClock::advance(50); };
  elapseTurn();
  kel.onCall = nullptr;
  add(2, 1000);
  EXPECT_EQ(elapseTurn(), 150);
  EXPECT_EQ(published(), (Lines{"0", "1"}));
}

TEST_F(UpdateThread, signalOnlyBeginsTheNextTurn) {
  add(0, 100);
  auto turn = thread->beginTurn();
  clock.advance(20);
  add(1, 10);
  thread->endTurn(turn, signalled);
  EXPECT_EQ(published(), Lines{});
  EXPECT_EQ(elapseTurn(), 10);
  EXPECT_EQ(elapseTurn(), 70);
  EXPECT_EQ(published(), (Lines{"1", "0"}));
}

TEST_F(UpdateThread, failedWaitIsReportedAndRetried) {
  add(0, 100);
  const auto turn = thread->beginTurn();
  EXPECT_EQ(printedBy([&] { thread->endTurn(turn, failed); }),
            "ERROR: kelPubGroup 194 PublicationUpdateThread wait failed - retrying\n");
  EXPECT_EQ(published(), Lines{});
  EXPECT_EQ(elapseTurn(), 100);
  EXPECT_EQ(published(), Lines{"0"});
}

TEST_F(UpdateThread, publishedGroupCanBeQueuedAgain) {
  add(0, 100);
  elapseTurn();
  EXPECT_TRUE(add(0, 200));
  EXPECT_EQ(elapseTurn(), 200);
  EXPECT_EQ(published(), (Lines{"0", "0"}));
}

TEST_F(UpdateThread, longDelaysAreCountedInSixtyFourBits) {
  constexpr unsigned long fortyNineDays = 4'294'967'295;
  add(0, fortyNineDays);
  clock.advance(1000);
  add(1, 2 * fortyNineDays);
  EXPECT_EQ(elapseTurn(), 4'294'966'295);
  EXPECT_EQ(elapseTurn(), 4'294'968'295);
  EXPECT_EQ(published(), (Lines{"0", "1"}));
}

using UpdateThreadDeathTest = UpdateThread;

TEST_F(UpdateThreadDeathTest, delayBeyondSixtyThreeBitsEndsTheProcess) {
  testing::GTEST_FLAG(death_test_style) = "threadsafe";
  add(0, 0);
  add(1, (1UL << 63) + 10);
  EXPECT_DEATH(add(2, 5), "kelPubGroup:157: .*Assertion `newDelay >= 0' failed");
}

// --- the thread itself

TEST_F(UpdateThread, runningThreadPublishesWhatIsDueAtOnce) {
  thread->start();
  add(0, 0);
  while (kel.sentCount() < 1) {
    sched_yield();
  }
  add(1, 3'600'000);  // the thread now waits for an hour ...
  add(2, 0);          // ... and is woken
  while (kel.sentCount() < 2) {
    sched_yield();
  }
  EXPECT_EQ(published(), (Lines{"0", "2"}));
}

TEST_F(UpdateThread, stopsInOrderWithoutPublishingWhatWaits) {
  thread->start();
  add(0, 3'600'000);
  thread->stopInOrder();
  EXPECT_FALSE(thread->isRunning());
  EXPECT_EQ(published(), Lines{});
  EXPECT_EQ(thread->beginTurn().waitMs, 1000);  // nothing waits any more
  thread->start();
  add(0, 0);
  while (kel.sentCount() < 1) {
    sched_yield();
  }
  EXPECT_EQ(published(), Lines{"0"});
}

TEST_F(UpdateThread, waitOfAnHourIsEndedByAShorterGroupAndByAStop) {
  for (const bool shorterGroup : {true, false}) {
    add(0, 3'600'000);
    const int reads = DrivenClock::reads();
    thread->start();
    while (DrivenClock::reads() == reads) {
      sched_yield();  // until the thread has an hour in hand
    }
    if (shorterGroup) {
      add(1, 0);
      while (kel.sentCount() < 1) {
        sched_yield();
      }
      EXPECT_EQ(published(), Lines{"1"});
    }
    thread->stopInOrder();
    EXPECT_FALSE(thread->isRunning());
  }
}

TEST_F(UpdateThread, managerThatEndsStopsTheOneThread) {
  gdelayedPubThread.start();
  EXPECT_TRUE(gdelayedPubThread.isRunning());
  manager.reset();
  EXPECT_FALSE(gdelayedPubThread.isRunning());
}

// --- groups and the thread together

class BufferedGroup : public Gateway {
 protected:
  void SetUp() override {
    plant.addElement("A.v", DPELEMENT_INT);
    plant.write("A.v", IntegerVar(0), 1000);
    start();
  }
  void TearDown() override {
    printedBy([this] {
      gdelayedPubThread.stopInOrder();
      group.reset();
    });
  }
  void make(int bufferTime_ms) {
    printedBy([&] {
      CdpeMappingTuple tuple{"A.v", "a"};
      CvectorOfdpeMappingTuples tuples;
      tuples.push_back(&tuple);
      group = std::make_unique<CkelPubGroup>("Out", bufferTime_ms, tuples);
      gdelayedPubThread.stopInOrder();  // the test takes the turns
      settle();
    });
  }
  void change(int value, std::int64_t timeMs) {
    plant.write("A.v", IntegerVar(value), timeMs);
    settle();
  }
  long elapseTurn() {
    const auto turn = gdelayedPubThread.beginTurn();
    clock.advance(turn.waitMs);
    gdelayedPubThread.endTurn(turn, timedOut);
    return turn.waitMs;
  }

  DrivenClock clock;
  std::unique_ptr<CkelPubGroup> group;
};

TEST_F(BufferedGroup, publishesOncePerIntervalWithTheNewestValueAndTime) {
  make(100);
  change(1, 2000);
  clock.advance(40);
  change(2, 3000);
  clock.advance(40);
  change(3, 2500);
  EXPECT_EQ(kel.sentCount(), 0U);
  const auto turn = gdelayedPubThread.beginTurn();
  gdelayedPubThread.endTurn(turn, timedOut);
  auto sent = kel.takeSent();
  ASSERT_EQ(sent.size(), 1U);
  EXPECT_EQ(sent[0].data.extractInt("a"), 3);
  EXPECT_EQ(sent[0].timeNanoseconds, 3'000'000'000);
  EXPECT_EQ(gdelayedPubThread.beginTurn().waitMs, 1000);
  change(4, 4000);
  EXPECT_EQ(elapseTurn(), 100);
  sent = kel.takeSent();
  ASSERT_EQ(sent.size(), 1U);
  EXPECT_EQ(sent[0].data.extractInt("a"), 4);
}

TEST_F(BufferedGroup, laterChangesDoNotMoveTheDueTime) {
  make(100);
  elapseTurn();
  kel.takeSent();
  change(1, 2000);
  clock.advance(70);
  change(2, 3000);
  EXPECT_EQ(elapseTurn(), 30);
  EXPECT_EQ(kel.takeSent().size(), 1U);
}

TEST_F(BufferedGroup, negativeTimeWaitsFortyNineDays) {
  make(-1);
  EXPECT_EQ(gdelayedPubThread.beginTurn().waitMs, 4'294'967'295);
  clock.advance(5000);
  change(1, 2000);  // finds the group waiting and brings the first entry up to date
  EXPECT_EQ(gdelayedPubThread.beginTurn().waitMs, 4'294'962'295);
  EXPECT_EQ(kel.sentCount(), 0U);
}

}  // namespace
}  // namespace gateway_test
