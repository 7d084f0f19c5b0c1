// The manager's operations, and the eyes that tests have on them.
#include "ManagerFixture.h"
#include "pvss/DiagHotLinkWaitForAnswer.h"

namespace pvss {
namespace {

using ::testing::ElementsAre;

class ManagerTest : public ManagerFixture {};

TEST_F(ManagerTest, WithoutAManagerNothingWorksAndNothingBreaks) {
  DpIdentifier found(1, 1);
  EXPECT_FALSE(Manager::getId("A.x", found));
  EXPECT_TRUE(found.isNull());
  DpElementType type = DPELEMENT_INT;
  EXPECT_FALSE(Manager::getElementType(DpIdentifier(1, 1), type));
  CharString name("before");
  EXPECT_FALSE(Manager::getLIName(DpIdentifier(1, 1), name, 1));
  EXPECT_TRUE(name.isEmpty());
  Notes notes;
  EXPECT_FALSE(Manager::dpConnect(DpIdentifier(), Manager::eventId, &notes, 0));
  EXPECT_FALSE(Manager::dpGet(DpIdentList(), Manager::eventId, &notes, 0));
  EXPECT_FALSE(Manager::dpSetTimed(TimeVar(), DpIdValueList(), Manager::eventId, nullptr, 1));
  long sec = 0;
  long usec = 0;
  Manager::dispatch(sec, usec);
  Manager::sigHdl(15);
  EXPECT_EQ(Manager::getCounters().queued, 0U);
}

TEST_F(ManagerTest, RunsOnceTheCatalogueIsThereHoweverLongItTakes) {
  plant->setLinkUp(false);
  connect();
  EXPECT_EQ(Manager::managerState, Manager::STATE_INIT);
  dispatch();
  EXPECT_EQ(Manager::managerState, Manager::STATE_INIT);
  DpIdentifier found;
  EXPECT_FALSE(Manager::getId("A.x", found));
  plant->setLinkUp(true);
  dispatch();
  EXPECT_EQ(Manager::managerState, Manager::STATE_RUNNING);
  EXPECT_TRUE(Manager::getId("A.x", found));
}

TEST_F(ManagerTest, AnswersComeFromInsideDispatchOnly) {
  start();
  Notes notes;
  follow("A.x:_address.._type", notes);
  Manager::dpGet(DpIdentList{id("A.x:_address.._type")}, Manager::eventId, &notes, 0);
  EXPECT_TRUE(notes.lines.empty());
  long sec = 0;
  long usec = 0;
  Manager::dispatch(sec, usec);
  EXPECT_THAT(notes.lines, ElementsAre("answer 0", "answer 0"));
}

TEST_F(ManagerTest, AnIdentifierThatNobodyMadeAnswersWithoutValue) {
  start();
  Notes notes;
  plant->write("A.x", FloatVar(5), 1);
  Manager::dpGet(DpIdentList{DpIdentifier(9999, 1), id("A.x"), DpIdentifier(0, 1), DpIdentifier(1, 99)},
                 Manager::eventId, &notes, 0);
  dispatch();
  EXPECT_THAT(notes.lines, ElementsAre("answer - 5 - -"));
}

TEST_F(ManagerTest, AddressesAreAnsweredWithoutTheStore) {
  start();
  plant->setLinkUp(false);
  dispatch();
  Notes notes;
  Manager::dpGet(DpIdentList{id("A.x:_address.._type")}, Manager::eventId, &notes, 0);
  dispatch();
  EXPECT_THAT(notes.lines, ElementsAre("answer 0"));
}

TEST_F(ManagerTest, AConnectedAddressCallsBackWhenItChanges) {
  start();
  Notes notes;
  follow("A.x:_address.._reference", notes);
  dispatch();
  plant->setAddress("A.x", 1, "KEL", "pub");
  dispatch();
  EXPECT_THAT(notes.lines, ElementsAre("answer ", "hotlink pub"));
}

// Reads inside its callback, as a configuration update does, and waits for the answer in a dispatch of its
// own.
class ReadsInside : public Notes {
 public:
  explicit ReadsInside(DpIdentifier toRead) : toRead_(toRead) {}
  using Notes::hotLinkCallBack;
  void hotLinkCallBack(DpHLGroup& group) override {
    Notes::hotLinkCallBack(group);
    const std::string outer = lines.back();
    Notes inner;
    Manager::dpGet(DpIdentList{toRead_}, Manager::eventId, &inner, 0);
    for (int round = 0; round < 100 && inner.lines.empty(); ++round) {
      long sec = 0;
      long usec = 0;
      Manager::dispatch(sec, usec);
    }
    lines.push_back("read " + (inner.lines.empty() ? std::string("nothing") : inner.lines.front()) + " in " +
                    outer);
  }

 private:
  DpIdentifier toRead_;
};

TEST_F(ManagerTest, ACallbackMayDispatchItself) {
  start();
  ReadsInside listener(id("A.y"));
  follow("A.x", listener);
  dispatch();
  plant->write("A.x", FloatVar(1), 1);
  plant->write("A.x", FloatVar(2), 2);
  plant->write("A.y", IntegerVar(5), 2);
  dispatch();
  // The second change is delivered inside the first one's wait, and nothing twice.
  EXPECT_THAT(listener.lines, ElementsAre("answer 0", "hotlink 1", "hotlink 2", "read answer 5 in hotlink 2",
                                          "read answer 5 in hotlink 1"));
}

TEST_F(ManagerTest, AConnectMadeInsideACallbackIsAnswered) {
  start();
  Notes second;
  class Connects : public Notes {
   public:
    Notes* other = nullptr;
    using Notes::hotLinkCallBack;
    void hotLinkCallBack(DpHLGroup& /*group*/) override { follow("A.y", *other); }
  } first;
  first.other = &second;
  follow("A.x", first);
  dispatch();
  plant->write("A.x", FloatVar(1), 1);
  dispatch();
  EXPECT_THAT(second.lines, ElementsAre("answer 0"));
}

TEST_F(ManagerTest, WhatACallbackThrowsPassesOutAndTheRestIsDeliveredAfterwards) {
  start();
  class Throws : public Notes {
   public:
    using Notes::hotLinkCallBack;
    void hotLinkCallBack(DpHLGroup& /*group*/) override { throw std::runtime_error("from inside"); }
  } thrower;
  Notes other;
  follow("A.x", thrower);
  follow("A.x", other);
  dispatch();
  plant->write("A.x", FloatVar(1), 1);
  EXPECT_THROW(dispatch(), std::runtime_error);
  dispatch();
  EXPECT_THAT(other.lines, ElementsAre("answer 0", "hotlink 1"));
}

TEST_F(ManagerTest, CallbackObjectsMayOutliveTheManager) {
  start();
  auto notes = std::make_unique<Notes>();
  follow("A.x", *notes);
  Manager::dpGet(DpIdentList{id("A.x")}, Manager::eventId, notes.get(), 0);
  manager.reset();
  EXPECT_EQ(Manager::managerState, Manager::STATE_JUST_STARTED);
  start();
  plant->write("A.x", FloatVar(1), 1);
  dispatch();
  EXPECT_TRUE(notes->lines.empty());
  notes.reset();
}

TEST_F(ManagerTest, ThePlantSeesEveryCallWithItsArguments) {
  start();
  Notes notes;
  follow("A.x", notes);
  Manager::dpConnect(DpIdentList{id("A.y"), DpIdentifier(), id("A.y:_online.._stime")}, Manager::eventId,
                     &notes, 0);
  DpIdValueList list;
  list.append(id("A.y:_original.._value"), IntegerVar(5));
  list.append(id("A.x:_original.._exp_inv"), BitVar(true));
  list.append(id("A.y:_original.._value"), IntegerVar(6));
  Manager::dpSetTimed(TimeVar(PVSSTime(3, 4)), list, Manager::eventId, nullptr, 1);
  Manager::dpSetTimed(TimeVar(PVSSTime(5, 0)), DpIdValueList(), Manager::eventId, nullptr, 1);
  ASSERT_EQ(plant->connects().size(), 2U);
  EXPECT_THAT(plant->connects()[0].names, ElementsAre("System1:A.x:_online.._value"));
  EXPECT_THAT(plant->connects()[1].names,
              ElementsAre("System1:A.y:_online.._value", "", "System1:A.y:_online.._stime"));
  EXPECT_EQ(plant->connects()[1].answer, &notes);
  ASSERT_EQ(plant->writes().size(), 2U);
  const testing::RecordedWrite& write = plant->writes()[0];
  EXPECT_EQ(write.timeMs, 3004);
  EXPECT_EQ(write.flags, 1U);
  ASSERT_EQ(write.items.size(), 3U);
  EXPECT_EQ(write.items[0].name, "System1:A.y:_original.._value");
  EXPECT_EQ(valueText(*write.items[0].value), "5");
  EXPECT_EQ(write.items[1].name, "System1:A.x:_original.._exp_inv");
  EXPECT_EQ(valueText(*write.items[2].value), "6");
  EXPECT_TRUE(plant->writes()[1].items.empty());
  plant->clearRecords();
  plant->setRecording(false);
  set("A.x:_original.._value", FloatVar(1), 1);
  EXPECT_TRUE(plant->writes().empty());
  EXPECT_TRUE(plant->connects().empty());
}

TEST_F(ManagerTest, AnObserverSeesCallsBeforeTheyTakeEffect) {
  struct Observer : testing::ManagerObserver {
    std::string seen;
    void onConnectToData(unsigned char flags, unsigned int count) override {
      seen += "data " + std::to_string(flags) + " " + std::to_string(count) + ";";
    }
    void onConnectToEvent(unsigned int flags) override { seen += "event " + std::to_string(flags) + ";"; }
    void onGetId(const char* name, bool found) override {
      seen += "id " + std::string(name) + (found ? " found;" : " missing;");
    }
    void onDpGet(const DpIdentList& ids, WaitForAnswer* /*answer*/, unsigned int /*flags*/) override {
      seen += "get " + std::to_string(ids.getNumberOfItems()) + ";";
    }
  } observer;
  plant->observe(&observer);
  start();
  manager->connectToEvent(0);
  DpIdentifier found;
  Manager::getId("A.x", found);
  Manager::getId("A.z", found);
  Notes notes;
  Manager::dpGet(DpIdentList(), Manager::eventId, &notes, 0);
  EXPECT_EQ(observer.seen, "data 3 0;event 0;id A.x found;id A.z missing;get 0;");
  plant->observe(nullptr);
}

TEST_F(ManagerTest, ThePlantRefusesWhatDoesNotExist) {
  EXPECT_THROW(plant->write("A.z", FloatVar(1)), std::invalid_argument);
  EXPECT_THROW(plant->write("A.x", IntegerVar(1)), std::invalid_argument);
  EXPECT_THROW(static_cast<void>(plant->read("A.z")), std::invalid_argument);
  EXPECT_THROW(plant->switchOff("A.x:_online.._what"), std::invalid_argument);
  EXPECT_THROW(plant->removeElement("A.z"), std::invalid_argument);
  EXPECT_THROW(MemoryPlant(), std::logic_error);
  plant.reset();
  EXPECT_THROW(MemoryPlant("elements: {A.x: flaot}"), std::invalid_argument);
}

TEST_F(ManagerTest, ThePlantsListsAreWhatTheGatewayReads) {
  plant = nullptr;
  plant = std::make_unique<MemoryPlant>(
      "elements: {A.x: float, A.y: {type: int, value: 7}}\n"
      "lists: {clients: L.c, publications: L.p}\n"
      "subscribe: {pub: {tag: A.x}}\n"
      "publish: {out: {bufferTime: 5, fields: {\"\": A.y}}}\n");
  start();
  Notes notes;
  follow("L.c", notes);
  follow("L.p", notes);
  follow("A.y", notes);
  Manager::dpGet(
      DpIdentList{id("A.x:_address.._type"), id("A.x:_address.._drv_ident"), id("A.x:_address.._reference")},
      Manager::eventId, &notes, 0);
  dispatch();
  EXPECT_THAT(notes.lines, ::testing::UnorderedElementsAre("answer 3:A.x",
                                                           "answer 9:out\x1a"
                                                           "5\x1a"
                                                           "A.y",
                                                           "answer 7",
                                                           "answer 1 KEL pub\x1a"
                                                           "tag"));
}

TEST_F(ManagerTest, SignalsGoToTheManagersOwnHandler) {
  class Signalled : public Manager {
   public:
    Signalled() : Manager(ManagerIdentifier(0, API_MAN, 1)) {}
    void signalHandler(int signal) override { last = signal; }
    int last = 0;
  } signalled;
  Manager::sigHdl(15);
  EXPECT_EQ(signalled.last, 15);
  Manager plain(ManagerIdentifier(0, API_MAN, 2));
  Manager::sigHdl(2);  // does nothing
  EXPECT_EQ(signalled.last, 15);
}

TEST_F(ManagerTest, TheDiagnosisObjectIsAHotLinkObject) {
  start();
  const std::unique_ptr<DiagHotLinkWaitForAnswer> object(manager->newDiagWaitObject());
  ASSERT_TRUE(object);
  EXPECT_EQ(object->isA(), WaitForAnswer::KIND_HOTLINK);
}

using ManagerDeathTest = ManagerTest;

TEST_F(ManagerDeathTest, ExitEndsTheProcessAtOnceWithTheCode) {
  EXPECT_EXIT(Manager::exit(3), ::testing::ExitedWithCode(3), "");
}

TEST_F(ManagerTest, TheMostCallsBetweenTwoDispatchesAreCounted) {
  start();
  const auto write = [](int calls) {
    for (int i = 0; i < calls; ++i) set("A.x:_original.._value", FloatVar(i), 1);
    long sec = 0;
    long usec = 0;
    Manager::dispatch(sec, usec);
  };
  write(2);
  EXPECT_EQ(Manager::getCounters().callsHigh, 2U);
  write(5);
  write(3);
  EXPECT_EQ(Manager::getCounters().callsHigh, 5U);
}

TEST_F(ManagerTest, TheHeartbeatShowsStateAndCounters) {
  start();
  set("A.x:_original.._value", FloatVar(1), 1);
  const auto beat = plant->lastBeat();
  ASSERT_FALSE(beat.empty());
  EXPECT_EQ(beat[0].first, "state");
  EXPECT_EQ(beat[0].second, "running");
  for (const char* name :
       {"queued", "confirmed", "resent", "coalesced", "dropped", "rejected", "pending", "hotLinks",
        "backlogBytesHigh", "backlogBound", "pendingHigh", "callsHigh", "storeLosses"}) {
    EXPECT_TRUE(std::any_of(beat.begin(), beat.end(), [&](const auto& pair) { return pair.first == name; }))
        << name;
  }
}

}  // namespace
}  // namespace pvss
