// The manager when the store goes away, forgets, is slow, or belongs to somebody else.
#include "ManagerFixture.h"
#include "core/Clock.h"
#include "pvss/Settings.h"
#include "store/memory/MemoryDatabase.h"

namespace pvss {
namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;

std::chrono::steady_clock::time_point fakeTime;

class ManagerFaultsTest : public ManagerFixture {
 protected:
  ManagerFaultsTest() {
    fakeTime = std::chrono::steady_clock::time_point(std::chrono::hours(1));
    steadyNow() = [] { return fakeTime; };
  }
  ~ManagerFaultsTest() override {
    steadyNow() = &std::chrono::steady_clock::now;
    Settings::current() = Settings();
  }
  // The next dispatch polls the store even when it has callbacks to make.
  static void later(std::chrono::milliseconds length) { fakeTime += length; }

  static testing::ElementWrite number(double value) {
    testing::ElementWrite write;
    write.value = std::make_shared<const FloatVar>(value);
    return write;
  }
};

TEST_F(ManagerFaultsTest, ChangesDuringAConnectAreDeliveredAfterItsAnswer) {
  start();
  plant->write("A.x", FloatVar(1), 1);  // before the question: in the answer
  plant->holdSnapshots(true);
  Notes notes;
  Manager::dpConnect(DpIdentList{id("A.x"), id("A.x:_online.._stime")}, Manager::eventId, &notes, 0);
  dispatch();
  plant->write("A.x", FloatVar(2), 2);
  plant->write("A.x", FloatVar(2), 3);
  dispatch();
  EXPECT_TRUE(notes.lines.empty());
  plant->holdSnapshots(false);
  dispatch();
  EXPECT_THAT(notes.lines, ElementsAre("answer 1 1", "hotlink 1 1", "hotlink 2 2", "hotlink 2 3"));
}

TEST_F(ManagerFaultsTest, ChangesThatTheAnswerAlreadyHasAreNotCalledBackAgain) {
  start();
  Notes notes;
  follow("A.x", notes);
  plant->holdWrites(true);
  set("A.x:_original.._value", FloatVar(1), 1);
  dispatch();
  plant->holdWrites(false);
  plant->write("A.x", FloatVar(2), 2);
  plant->write("A.x", FloatVar(3), 3);
  Notes late;
  follow("A.x", late);  // asked when 2 and 3 are there already but not yet heard of, and 1 is not
  dispatch();
  EXPECT_THAT(late.lines, ElementsAre("answer 3", "hotlink 1"));
  EXPECT_THAT(notes.lines, ElementsAre("answer 0", "hotlink 2", "hotlink 3", "hotlink 1"));
}

TEST_F(ManagerFaultsTest, AReadThatIsLostWithTheLinkIsAskedAgain) {
  start();
  plant->write("A.x", FloatVar(5), 1);
  plant->holdSnapshots(true);
  Notes notes;
  Manager::dpGet(DpIdentList{id("A.x")}, Manager::eventId, &notes, 0);
  follow("A.x", notes);
  dispatch();
  plant->setLinkUp(false);
  dispatch();
  plant->setLinkUp(true);
  plant->holdSnapshots(false);
  dispatch();
  EXPECT_THAT(notes.lines, ElementsAre("answer 5", "answer 5"));
}

TEST_F(ManagerFaultsTest, AStoreThatIsAwayForLongMakesConnectedListsInvalidUntilItIsBack) {
  start();
  plant->write("A.x", FloatVar(5), 1);
  plant->write("A.y", IntegerVar(6), 1);
  Notes list;
  Notes single;
  Manager::dpConnect(DpIdentList{id("A.x"), id("A.x:_online.._invalid")}, Manager::eventId, &list, 0);
  Notes written;
  Manager::dpConnect(DpIdentList{id("A.y"), id("A.y:_online.._invalid")}, Manager::eventId, &written, 0);
  follow("A.x:_online.._invalid", single);
  dispatch();
  list.lines.clear();
  single.lines.clear();
  written.lines.clear();
  plant->setLinkUp(false);
  dispatch();
  later(std::chrono::milliseconds(9999));
  dispatch();
  EXPECT_TRUE(list.lines.empty()) << "not yet";
  later(std::chrono::milliseconds(1));
  dispatch();
  EXPECT_THAT(list.lines, ElementsAre("hotlink 5 1"));
  later(std::chrono::hours(1));
  dispatch();
  EXPECT_THAT(list.lines, ElementsAre("hotlink 5 1")) << "once";
  EXPECT_TRUE(single.lines.empty()) << "a configuration list stays what it was";
  plant->write("A.y", IntegerVar(7), 2);
  plant->write("A.y", IntegerVar(8), 3);
  plant->setLinkUp(true);
  dispatch();
  EXPECT_THAT(list.lines, ElementsAre("hotlink 5 1", "hotlink 5 0"));
  EXPECT_THAT(written.lines, ElementsAre("hotlink 6 1", "hotlink 7 0", "hotlink 8 0"))
      << "no change is missed";
  EXPECT_TRUE(single.lines.empty());
  plant->setLinkUp(false);
  dispatch();
  later(std::chrono::seconds(10));
  dispatch();
  EXPECT_THAT(list.lines, ElementsAre("hotlink 5 1", "hotlink 5 0", "hotlink 5 1"))
      << "the next absence counts anew";
}

TEST_F(ManagerFaultsTest, AnAbsenceIsToldOnlyWhenWanted) {
  Settings::current().invalidAfterSeconds = 0;
  start();
  Notes list;
  Manager::dpConnect(DpIdentList{id("A.x"), id("A.x:_online.._invalid")}, Manager::eventId, &list, 0);
  dispatch();
  const std::size_t before = list.lines.size();
  plant->setLinkUp(false);
  dispatch();
  later(std::chrono::hours(24));
  dispatch();
  EXPECT_EQ(list.lines.size(), before);
}

TEST_F(ManagerFaultsTest, WhoIsReadAgainAfterALongAbsenceIsCalledBackWithTheTruth) {
  start();
  plant->write("A.x", FloatVar(5), 1);
  Notes list;
  Manager::dpConnect(DpIdentList{id("A.x"), id("A.x:_online.._invalid")}, Manager::eventId, &list, 0);
  dispatch();
  list.lines.clear();
  plant->setLinkUp(false);
  dispatch();
  later(std::chrono::seconds(10));
  dispatch();
  plant->loseNewest(0);  // another server: nothing has changed, but it has to be asked
  plant->setLinkUp(true);
  plant->holdSnapshots(true);
  dispatch();
  EXPECT_THAT(list.lines, ElementsAre("hotlink 5 1"));
  plant->holdSnapshots(false);
  dispatch();
  EXPECT_THAT(list.lines, ElementsAre("hotlink 5 1", "hotlink 5 0"));
}

TEST_F(ManagerFaultsTest, TheLogIsNotReadOnWhileTooManyBytesOfCallbacksWait) {
  start();
  struct Counting : HotLinkWaitForAnswer {
    using HotLinkWaitForAnswer::hotLinkCallBack;
    void hotLinkCallBack(DpHLGroup& /*group*/) override { ++count; }
    int count = 0;
  } counting;
  Manager::dpConnect(id("A.t"), Manager::eventId, &counting, 0);
  dispatch();
  testing::ElementWrite large;
  large.value = std::make_shared<const TextVar>(std::string(std::size_t{1024} * 1024, 'x').c_str());
  for (int time = 1; time <= 600; ++time) {
    plant->write({{"A.t", large}}, time);
  }
  const auto dispatchLater = [] {
    later(std::chrono::seconds(1));
    long sec = 0;
    long usec = 0;
    Manager::dispatch(sec, usec);
  };
  dispatchLater();
  EXPECT_EQ(counting.count, 256);
  plant->write("A.y", IntegerVar(1));
  dispatchLater();
  EXPECT_EQ(counting.count, 512);
  EXPECT_EQ(plant->database()->events.size(), 1U) << "88 callbacks of 1 MiB wait";
  dispatchLater();
  EXPECT_EQ(counting.count, 600);
  EXPECT_TRUE(plant->database()->events.empty());
  EXPECT_GT(Manager::getCounters().deliveryBytesHigh, 600U * 1024 * 1024);
}

TEST_F(ManagerFaultsTest, MissedChangesAreReadAgainAndCalledBackWhereTheyShow) {
  start();
  Notes changed;
  Notes same;
  Notes flagOnly;
  follow("A.x", changed);
  follow("A.y", same);
  follow("A.x:_original.._userbit1", flagOnly);
  dispatch();
  plant->gapDuring({{"A.x", number(7)}}, 5);
  dispatch();
  EXPECT_THAT(changed.lines, ElementsAre("answer 0", "hotlink 7"));
  EXPECT_THAT(same.lines, ElementsAre("answer 0"));
  EXPECT_THAT(flagOnly.lines, ElementsAre("answer 0"));
  plant->write("A.x", FloatVar(8), 6);
  dispatch();
  EXPECT_THAT(changed.lines, ElementsAre("answer 0", "hotlink 7", "hotlink 8"));
}

TEST_F(ManagerFaultsTest, AChangeNewerThanTheSecondReadingIsNotUndoneByIt) {
  start();
  Notes notes;
  follow("A.x", notes);
  dispatch();
  plant->holdSnapshots(true);
  plant->gapDuring({{"A.x", number(7)}}, 5);
  dispatch();
  plant->write("A.x", FloatVar(8), 6);
  dispatch();
  plant->holdSnapshots(false);
  dispatch();
  EXPECT_THAT(notes.lines, ElementsAre("answer 0", "hotlink 8"));
}

TEST_F(ManagerFaultsTest, AConnectThatWasStartingWhenChangesWereMissedGetsOneTrueAnswer) {
  start();
  plant->holdSnapshots(true);
  Notes notes;
  follow("A.x", notes);
  dispatch();
  plant->write("A.x", FloatVar(1), 1);
  plant->gapDuring({{"A.x", number(7)}}, 5);
  dispatch();
  plant->holdSnapshots(false);
  dispatch();
  EXPECT_THAT(notes.lines, ElementsAre("answer 7"));
}

TEST_F(ManagerFaultsTest, WritesWhoseConfirmationWasLostAreNotAppliedTwice) {
  start();
  plant->holdConfirmations(true);
  set("A.x:_original.._value", FloatVar(1), 1);
  set("A.x:_original.._value", FloatVar(2), 2);
  dispatch();
  EXPECT_EQ(Manager::getCounters().pending, 2U);
  plant->setLinkUp(false);
  dispatch();
  plant->holdConfirmations(false);
  plant->setLinkUp(true);
  dispatch();
  EXPECT_EQ(plant->read("A.x").writes, 2U);
  EXPECT_EQ(Manager::getCounters().confirmed, 2U);
  EXPECT_EQ(Manager::getCounters().pending, 0U);
  EXPECT_EQ(Manager::getCounters().lost, 0U);
  expectBalance();
}

TEST_F(ManagerFaultsTest, AServerThatForgotGetsTheNewestValuesBack) {
  start();
  Notes notes;
  follow("A.x", notes);
  set("A.x:_original.._value", FloatVar(1), 100);
  dispatch();
  set("A.y:_original.._value", IntegerVar(2), 200);
  set("A.x:_original.._value", FloatVar(3), 300);
  set("A.x:_original.._exp_inv", BitVar(true), 400);
  dispatch();
  EXPECT_EQ(Manager::getCounters().pending, 0U);
  plant->setLinkUp(false);
  dispatch();
  plant->loseNewest(3);
  EXPECT_EQ(valueOf("A.x"), 1);
  set("A.x:_original.._userbit1", BitVar(true), 500);
  plant->setLinkUp(true);
  dispatch();
  const testing::ElementView view = plant->read("A.x");
  EXPECT_EQ(valueText(*view.value), "3");
  EXPECT_EQ(view.valueTimeMs, 300);
  EXPECT_TRUE(view.invalid);
  EXPECT_TRUE(view.userBit1);
  EXPECT_EQ(valueText(*plant->read("A.y").value), "2");
  EXPECT_EQ(plant->read("A.y").valueTimeMs, 200);
  EXPECT_EQ(Manager::getCounters().restored, 4U);
  EXPECT_EQ(Manager::getCounters().lost, 5U) << "two values with the flags that they clear, and a flag";
  EXPECT_EQ(Manager::getCounters().settled, 8U);
  EXPECT_EQ(notes.lines.back(), "hotlink 3");
  expectBalance();
}

TEST_F(ManagerFaultsTest, WhatSomebodyWroteSinceIsNotOverwrittenByWhatIsBroughtBack) {
  start();
  set("A.x:_original.._value", FloatVar(1), 100);
  dispatch();
  plant->setLinkUp(false);
  dispatch();
  plant->loseNewest(1);
  plant->write("A.x", FloatVar(9), 900);
  plant->setLinkUp(true);
  dispatch();
  EXPECT_EQ(valueOf("A.x"), 9);
}

TEST_F(ManagerFaultsTest, ANumberHeldByAnotherIsWaitedForAndSaidOnce) {
  plant->holdLease("manager 7.abc on host, process 5");
  ::testing::internal::CaptureStderr();
  connect();
  dispatch();
  dispatch();
  EXPECT_EQ(Manager::managerState, Manager::STATE_INIT);
  const std::string said = ::testing::internal::GetCapturedStderr();
  EXPECT_THAT(said, HasSubstr("manager number 7 is held by manager 7.abc on host, process 5 - waiting\n"));
  EXPECT_EQ(said.find("waiting"), said.rfind("waiting"));
  plant->holdLease("");
  dispatch();
  EXPECT_EQ(Manager::managerState, Manager::STATE_RUNNING);
}

class ManagerFaultsDeathTest : public ManagerFaultsTest {
 protected:
  // What is said is written by a thread of its own.
  ManagerFaultsDeathTest() { ::testing::FLAGS_gtest_death_test_style = "threadsafe"; }
};

TEST_F(ManagerFaultsDeathTest, AManagerThatHasRunEndsWhenItsNumberIsAnothersAndSaysWhose) {
  start();
  set("A.x:_original.._value", FloatVar(1), 1);
  dispatch();
  plant->holdWrites(true);
  set("A.x:_original.._value", FloatVar(2), 2);
  set("A.x:_original.._value", FloatVar(3), 3);
  dispatch();
  plant->holdLease("manager 7.abc on host, process 5");
  EXPECT_EXIT(dispatch(), ::testing::ExitedWithCode(4),
              "manager number 7 was taken by manager 7.abc on host, process 5: this one ends, 2 values were "
              "not written\n");
}

TEST_F(ManagerFaultsDeathTest, AManagerThatHasRunEndsWhenAWriteIsFenced) {
  start();
  plant->fenceNextWrite();
  set("A.x:_original.._value", FloatVar(2), 2);
  EXPECT_EXIT(dispatch(), ::testing::ExitedWithCode(4), "number 7 was taken by another manager: this one");
}

TEST_F(ManagerFaultsDeathTest, AManagerThatFindsItsNumberTakenWhenTheStoreIsBackEnds) {
  start();
  plant->setLinkUp(false);
  dispatch();
  plant->holdLease("manager 7.abc on host, process 5");
  plant->setLinkUp(true);
  EXPECT_EXIT(dispatch(), ::testing::ExitedWithCode(4), "number 7 was taken by manager 7.abc on host");
}

TEST_F(ManagerFaultsTest, AFullBacklogGivesUpSupersededWritesAndSaysSoOnce) {
  Settings::current().backlogBytes = 20000;
  start();
  plant->setLinkUp(false);
  dispatch();
  ::testing::internal::CaptureStderr();
  for (int count = 1; count <= 2000; ++count) {
    set("A.x:_original.._value", FloatVar(count), count);
  }
  set("A.y:_original.._value", IntegerVar(1), 1);
  const std::string said = ::testing::internal::GetCapturedStderr();
  EXPECT_THAT(said, HasSubstr("the backlog is full"));
  EXPECT_EQ(said.find("backlog"), said.rfind("backlog"));
  expectBalance();
  const Counters before = Manager::getCounters();
  EXPECT_GT(before.coalesced, 0U);
  EXPECT_LE(before.backlogBytesHigh, 21500U);
  ::testing::internal::CaptureStderr();
  later(std::chrono::minutes(1));
  for (int count = 2001; count <= 4000; ++count) {
    set("A.x:_original.._value", FloatVar(count), count);
  }
  EXPECT_THAT(::testing::internal::GetCapturedStderr(), HasSubstr("the backlog is full"));
  plant->setLinkUp(true);
  dispatch();
  EXPECT_EQ(valueOf("A.x"), 4000);
  EXPECT_EQ(valueText(*plant->read("A.y").value), "1");
  EXPECT_EQ(Manager::getCounters().pending, 0U);
  expectBalance();
}

TEST_F(ManagerFaultsTest, AStoreThatTakesLittleAtATimeGetsEverythingInOrder) {
  plant->setWindow(3);
  start();
  Notes notes;
  follow("A.y", notes);
  dispatch();
  for (int count = 1; count <= 20; ++count) {
    set("A.y:_original.._value", IntegerVar(count), count);
  }
  for (int round = 0; round < 20; ++round) {
    later(std::chrono::milliseconds(10));
    dispatch();
  }
  ASSERT_EQ(notes.lines.size(), 21U);
  EXPECT_EQ(notes.lines.back(), "hotlink 20");
  EXPECT_EQ(Manager::getCounters().confirmed, 20U);
}

TEST_F(ManagerFaultsTest, AWriteThatTheStoreRefusesIsRejectedAndReported) {
  start();
  plant->holdWrites(true);
  set("A.x:_original.._value", FloatVar(1), 1);
  dispatch();
  plant->removeElement("A.x");
  plant->holdWrites(false);
  ::testing::internal::CaptureStderr();
  dispatch();
  EXPECT_THAT(::testing::internal::GetCapturedStderr(),
              HasSubstr("1 values cannot be written, for example no such element: A.x"));
  EXPECT_EQ(Manager::getCounters().rejected, 1U);
  expectBalance();
}

TEST_F(ManagerFaultsTest, WhatIsRefusedOfACallIsNotCountedAsConfirmed) {
  start();
  plant->holdWrites(true);
  DpIdValueList list;
  list.append(id("A.x:_original.._value"), FloatVar(1));
  list.append(id("A.x:_original.._userbit1"), BitVar(true));
  list.append(id("A.y:_original.._value"), IntegerVar(2));
  Manager::dpSetTimed(TimeVar(PVSSTime::fromMilliseconds(1)), list, Manager::eventId, nullptr, 1);
  dispatch();
  plant->removeElement("A.x");
  plant->holdWrites(false);
  ::testing::internal::CaptureStderr();
  dispatch();
  EXPECT_THAT(::testing::internal::GetCapturedStderr(),
              HasSubstr("2 values cannot be written, for example no such element: A.x"));
  EXPECT_EQ(Manager::getCounters().rejected, 2U);
  EXPECT_EQ(Manager::getCounters().confirmed, 1U);
  expectBalance();
}

TEST_F(ManagerFaultsTest, AWriteUnderWhichTheLinkFailsWasHandedOverAndIsResent) {
  start();
  plant->holdWrites(true);
  set("A.x:_original.._value", FloatVar(1), 1);
  plant->failLinkInNextWrite();
  DpIdValueList list;
  list.append(id("A.y:_original.._value"), IntegerVar(2));
  list.append(id("A.y:_original.._userbit1"), BitVar(true));
  Manager::dpSetTimed(TimeVar(PVSSTime::fromMilliseconds(2)), list, Manager::eventId, nullptr, 1);
  EXPECT_EQ(Manager::getCounters().handed, 3U);
  plant->holdWrites(false);
  dispatch();
  EXPECT_EQ(Manager::getCounters().handed, 6U);
  EXPECT_EQ(Manager::getCounters().resent, 3U);
  EXPECT_EQ(Manager::getCounters().confirmed, 3U);
  expectBalance();
}

TEST_F(ManagerFaultsTest, TheHeartbeatComesOnceASecond) {
  start();
  set("A.x:_original.._value", FloatVar(1), 1);
  const auto queued = [this] {
    for (const auto& [name, value] : plant->lastBeat()) {
      if (name == "queued") {
        return value;
      }
    }
    return std::string("none");
  };
  dispatch();
  EXPECT_EQ(queued(), "0");
  later(std::chrono::milliseconds(999));
  dispatch();
  EXPECT_EQ(queued(), "0");
  later(std::chrono::milliseconds(1));
  dispatch();
  EXPECT_EQ(queued(), "1");
}

TEST_F(ManagerFaultsTest, CallbacksDoNotKeepTheStoreFromItsTurn) {
  start();
  // Asks anew in every answer, so that there is always a callback to make.
  class Endless : public Notes {
   public:
    void callBack(DpMsgAnswer& answer) override {
      Notes::callBack(answer);
      Manager::dpGet(DpIdentList{id("A.x:_address.._type")}, Manager::eventId, this, 0);
    }
  } endless;
  Manager::dpGet(DpIdentList{id("A.x:_address.._type")}, Manager::eventId, &endless, 0);
  set("A.x:_original.._value", FloatVar(1), 1);
  for (int round = 0; round < 3; ++round) {
    later(std::chrono::milliseconds(5));
    dispatch();
  }
  EXPECT_EQ(valueOf("A.x"), 1);
  EXPECT_GE(endless.lines.size(), 10U);
}

}  // namespace
}  // namespace pvss
