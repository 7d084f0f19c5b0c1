// The manager: its life, its main loop, the update queue and the listeners of the lists.
#include <gmock/gmock.h>
#include <pvss/IntegerVar.h>
#include <pvss/Resources.h>
#include <pvss/TextVar.h>

#include <atomic>
#include <csignal>
#include <cstdlib>
#include <thread>
#include <utility>

#include "Gateway.h"
#include "KelApiResources.h"

namespace gateway_test {
namespace {

/// Sees what the manager asks of the platform, and ends its main loop after some turns.
class Watch final : public pvss::testing::ManagerObserver {
 public:
  void onRegister(const ManagerIdentifier& identifier) override { registeredAs = identifier; }
  void onConnectToData(unsigned char flags, unsigned int count) override {
    note("connectToData " + std::to_string(flags) + " " + std::to_string(count));
  }
  void onConnectToEvent(unsigned int flags) override { note("connectToEvent " + std::to_string(flags)); }
  void onGetId(const char* name, bool found) override {
    note(std::string("getId ") + name + (found ? "" : " not found"));
  }
  void onDpConnect(const DpIdentList& ids, WaitForAnswer* answer, unsigned int flags) override {
    const bool empty = ids.getNumberOfItems() == 1 && ids[0].isNull();
    note("dpConnect " + std::string(empty ? "nothing" : "element") +
         (answer->isA() == WaitForAnswer::KIND_HOTLINK ? " hotlink " : " answer ") + std::to_string(flags));
  }
  void onDpSetTimed(const TimeVar& time, const DpIdValueList& /*values*/, unsigned int flags) override {
    note("dpSetTimed " + std::to_string(time.getValue().toMilliseconds()) + " " + std::to_string(flags));
  }
  void onDispatch(long sec, long usec) override {
    const std::string call = "dispatch " + std::to_string(sec) + " " + std::to_string(usec);
    if (calls.empty() || calls.back() != call) {
      note(call);
    }
    if (usec == 1000 && ++loopTurns >= turnsToRun) {
      KelApiManager::doExit = PVSS_TRUE;
    }
  }
  void note(std::string call) { calls.push_back(std::move(call)); }

  Lines calls;
  ManagerIdentifier registeredAs;
  int loopTurns = 0;
  int turnsToRun = 20;
};

class ManagerLoop : public Gateway {
 protected:
  void SetUp() override {
    plant.addElement("Gw.clients", DPELEMENT_DYNTEXT);
    plant.addElement("Gw.pubs", DPELEMENT_DYNTEXT);
    KelApiResources::clientSourceName = "";
    KelApiResources::pubSourceName = "";
    plant.observe(&watch);
  }
  void TearDown() override {
    plant.observe(nullptr);
    KelApiResources::clientSourceName = "";
    KelApiResources::pubSourceName = "";
  }
  /// Runs the manager to the end that the watch sets; gives what was printed.
  std::string run() {
    return printedBy([this] {
      manager.emplace();
      manager->run();
    });
  }

  Watch watch;
};

TEST_F(ManagerLoop, registersAsAnApiManager) {
  EXPECT_EQ(run(), "");
  EXPECT_EQ(watch.registeredAs, ManagerIdentifier(0, API_MAN, 1, 0));
}

TEST_F(ManagerLoop, registersUnderTheNumberOfTheCommandLine) {
  const int before = std::exchange(Resources::ownManId.manNum, 42);
  EXPECT_EQ(run(), "");
  Resources::ownManId.manNum = before;
  EXPECT_EQ(watch.registeredAs, ManagerIdentifier(0, API_MAN, 42, 0));
}

TEST_F(ManagerLoop, connectsInOrder) {
  EXPECT_EQ(run(), "");
  EXPECT_EQ(watch.calls, (Lines{"connectToData 3 0", "dispatch 1 0", "connectToEvent 0", "dispatch 0 1000"}));
}

TEST_F(ManagerLoop, withoutListsItRunsAndWritesNothing) {
  watch.turnsToRun = 100;
  EXPECT_EQ(run(), "");
  EXPECT_EQ(watch.loopTurns, 100);
  EXPECT_TRUE(plant.connects().empty());
  EXPECT_TRUE(plant.writes().empty());
  EXPECT_TRUE(plant.gets().empty());
}

TEST_F(ManagerLoop, connectsBothListsClientListFirst) {
  KelApiResources::clientSourceName = "Gw.clients";
  KelApiResources::pubSourceName = "Gw.pubs";
  EXPECT_EQ(run(), "");
  EXPECT_EQ(watch.calls, (Lines{"connectToData 3 0", "dispatch 1 0", "connectToEvent 0", "getId Gw.clients",
                                "dpConnect element hotlink 0", "getId Gw.pubs", "dpConnect element hotlink 0",
                                "dispatch 0 1000"}));
  ASSERT_EQ(plant.connects().size(), 2U);
  EXPECT_EQ(plant.connects()[0].names, Lines{"System1:Gw.clients:_online.._value"});
  EXPECT_EQ(plant.connects()[1].names, Lines{"System1:Gw.pubs:_online.._value"});
}

TEST_F(ManagerLoop, unknownClientListIsReportedAndNotConnected) {
  KelApiResources::clientSourceName = "No.clients";
  EXPECT_EQ(run(), "ERROR: KelApiManager 72 Can not get id for client Source No.clients\n");
  EXPECT_TRUE(plant.connects().empty());
}

TEST_F(ManagerLoop, unknownPublicationListIsReportedAndConnectedAllTheSame) {
  KelApiResources::pubSourceName = "No.pubs";
  // The connect of the empty identifier answers with an item without value.
  EXPECT_EQ(run(),
            "ERROR: KelApiManager 87 Can not get id for pub config Source No.pubs\n"
            "ERROR: kelManager 26 ConfigListChangeListener::callBack - client list is missing\n");
  ASSERT_EQ(plant.connects().size(), 1U);
  ASSERT_EQ(plant.connects()[0].ids.size(), 1U);
  EXPECT_TRUE(plant.connects()[0].ids[0].isNull());
}

TEST_F(ManagerLoop, clientListReachesTheSubscribingSide) {
  addClient("A.v", DPELEMENT_INT, "P", "a");
  plant.writeTexts("Gw.clients", {"A.v"});
  KelApiResources::clientSourceName = "Gw.clients";
  EXPECT_EQ(run(),
            "Created DPEWrapper for DPE A.v\n"
            "Created subscription to P\n"
            "Created client mapping between DPE A.v and publication P\x1A"
            "a\n");
  EXPECT_EQ(kel.takeCalls(), Lines{"subscribe P"});
}

TEST_F(ManagerLoop, publicationListReachesThePublishingSide) {
  plant.addElement("B.v", DPELEMENT_INT);
  plant.writeTexts("Gw.pubs", {compound({"Out", "0", "B.v", "b"})});
  KelApiResources::pubSourceName = "Gw.pubs";
  EXPECT_EQ(run(),
            "Created DPEWrapper for DPE B.v\n"
            "Created publisher mapping between DPE B.v tag b\n"
            "Created Publication group Out\n");
  EXPECT_EQ(kel.takeCalls(), Lines{"publish Out"});
}

TEST_F(ManagerLoop, laterListsReachTheirSideToo) {
  addClient("A.v", DPELEMENT_INT, "P", "a");
  KelApiResources::clientSourceName = "Gw.clients";
  class ChangesTheList final : public pvss::testing::ManagerObserver {
   public:
    explicit ChangesTheList(pvss::testing::MemoryPlant& plant) : plant_(plant) {}
    void onDispatch(long /*sec*/, long usec) override {
      if (usec != 1000) {
        return;
      }
      ++turns;
      if (turns == 10) {
        plant_.writeTexts("Gw.clients", {"A.v"});
      } else if (turns == 20) {
        plant_.writeTexts("Gw.clients", {});
      } else if (turns == 30) {
        KelApiManager::doExit = PVSS_TRUE;
      }
    }
    int turns = 0;

   private:
    pvss::testing::MemoryPlant& plant_;
  };
  ChangesTheList changes(plant);
  plant.observe(&changes);
  EXPECT_EQ(run(),
            "Created DPEWrapper for DPE A.v\n"
            "Created subscription to P\n"
            "Created client mapping between DPE A.v and publication P\x1A"
            "a\n"
            "Destroyed client mapping between DPE A.v and publication P\x1A"
            "a\n"
            "Destroyed DPEWrapper for DPE A.v\n"
            "Destroyed subscription to P\n");
}

TEST_F(ManagerLoop, burstFromSeveralThreadsIsWrittenInItsOrderOneCallEach) {
  constexpr int threads = 4;
  constexpr int updates = 250;
  plant.addElement("A.v", DPELEMENT_INT);
  start();
  DpIdentifier id;
  ASSERT_TRUE(Manager::getId("A.v:_original.._value", id));
  // The order of queueing across threads is fixed by taking turns.
  std::atomic<int> next{0};
  std::vector<std::thread> senders;
  senders.reserve(threads);
  for (int t = 0; t < threads; ++t) {
    senders.emplace_back([&next, &id, t] {
      for (int i = 0; i < updates; ++i) {
        const int turn = i * threads + t;
        while (next != turn) {
          std::this_thread::yield();
        }
        auto* const list = new DpIdValueList;
        list->append(id, new IntegerVar(turn));
        KelApiManager::sendListOfUpdatesToPVSS(list, new TimeVar(PVSSTime(turn, turn % 1000)));
        ++next;
      }
    });
  }
  for (std::thread& sender : senders) {
    sender.join();
  }
  const auto writes = written();
  ASSERT_EQ(writes.size(), static_cast<std::size_t>(threads * updates));
  for (int turn = 0; turn < threads * updates; ++turn) {
    const auto index = static_cast<std::size_t>(turn);
    EXPECT_EQ(writes[index], Lines{"A.v:_original.._value = int " + std::to_string(turn)});
    EXPECT_EQ(plant.writes()[index].timeMs, turn * 1000 + turn % 1000);
    EXPECT_EQ(plant.writes()[index].flags, 1U);
  }
}

TEST_F(ManagerLoop, updatesQueuedByACallbackAreWrittenWithTheNextTurn) {
  plant.addElement("A.v", DPELEMENT_INT);
  class Queues final : public pvss::testing::ManagerObserver {
   public:
    void onDispatch(long /*sec*/, long usec) override {
      if (usec != 1000) {
        return;
      }
      if (++turns == 3) {
        KelApiManager::doExit = PVSS_TRUE;
        return;
      }
      DpIdentifier id;
      Manager::getId("A.v:_original.._value", id);
      auto* const list = new DpIdValueList;
      list->append(id, new IntegerVar(turns));
      KelApiManager::sendListOfUpdatesToPVSS(list, new TimeVar(PVSSTime(turns, 0)));  // no lock is held here
    }
    int turns = 0;
  };
  Queues queues;
  plant.observe(&queues);
  EXPECT_EQ(run(), "");
  ASSERT_EQ(plant.writes().size(), 2U);
  EXPECT_EQ(plant.writes()[0].timeMs, 1000);
  EXPECT_EQ(plant.writes()[1].timeMs, 2000);
}

TEST_F(ManagerLoop, turnWritesFirstAndDispatchesThen) {
  KelApiManager::sendListOfUpdatesToPVSS(new DpIdValueList, new TimeVar(PVSSTime(1, 0)));
  EXPECT_EQ(run(), "");
  EXPECT_EQ(watch.calls, (Lines{"connectToData 3 0", "dispatch 1 0", "connectToEvent 0", "dpSetTimed 1000 1",
                                "dispatch 0 1000"}));
}

TEST_F(ManagerLoop, queuedUpdateOwnsListAndTime) {
  struct Counted : DpIdValueList {
    explicit Counted(int& liveGiven) : live(liveGiven) { ++live; }
    ~Counted() override { --live; }
    Counted(const Counted&) = delete;
    Counted& operator=(const Counted&) = delete;
    int& live;
  };
  int live = 0;
  {
    const CpvssUpdate update(new Counted(live), new TimeVar(PVSSTime(1, 2)));
    EXPECT_EQ(live, 1);
    EXPECT_EQ(update.getTime().getValue().toMilliseconds(), 1002);
    EXPECT_EQ(update.getList().getNumberOfItems(), 0U);
  }
  EXPECT_EQ(live, 0);
}

TEST_F(ManagerLoop, lockHasItsName) {
  EXPECT_STREQ(KelApiManager::dpeUpdateQueueLock.getName(), "dpeUpdateQueueLock");
}

class ManagerLoopDeathTest : public ManagerLoop {
 protected:
  void SetUp() override {
    testing::GTEST_FLAG(death_test_style) = "threadsafe";
    ManagerLoop::SetUp();
  }
};

TEST_F(ManagerLoopDeathTest, updateWithoutListOrTimeEndsTheProcess) {
  EXPECT_DEATH(KelApiManager::sendListOfUpdatesToPVSS(nullptr, nullptr),
               "KelApiManager:41: .*Assertion `theList' failed");
  EXPECT_DEATH(KelApiManager::sendListOfUpdatesToPVSS(nullptr, new TimeVar),
               "KelApiManager:41: .*Assertion `theList' failed");
  EXPECT_DEATH(KelApiManager::sendListOfUpdatesToPVSS(new DpIdValueList, nullptr),
               "KelApiManager:42: .*Assertion `theTime' failed");
}

TEST_F(ManagerLoopDeathTest, factoryIsMadeWhenTheManagerIsConnected) {
  class Tells final : public pvss::testing::ManagerObserver {
   public:
    void onConnectToEvent(unsigned int /*flags*/) override { std::fputs("connectToEvent\n", stderr); }
  };
  EXPECT_EXIT(
      {
        Tells tells;
        plant.observe(&tells);
        KelApiManager::kelFactory = nullptr;
        setenv("KEL_URL", "nowhere:", 1);
        manager.emplace();
        manager->run();
      },
      testing::ExitedWithCode(2), "connectToEvent");
}

TEST_F(ManagerLoopDeathTest, interruptAndTerminationEndTheProcessWithoutDraining) {
  class SignalsInTheLoop final : public pvss::testing::ManagerObserver {
   public:
    explicit SignalsInTheLoop(int number) : number_(number) {}
    void onDispatch(long /*sec*/, long usec) override {
      if (usec == 1000) {
        KelApiManager::sendListOfUpdatesToPVSS(new DpIdValueList, new TimeVar);
        std::fputs("queued\n", stderr);
        std::raise(number_);
      }
    }
    void onDpSetTimed(const TimeVar& /*time*/, const DpIdValueList& /*values*/,
                      unsigned int /*flags*/) override {
      std::fputs("written\n", stderr);
    }

   private:
    int number_;
  };
  for (const int number : {SIGINT, SIGTERM}) {
    EXPECT_EXIT(
        {
          SignalsInTheLoop signals(number);
          plant.observe(&signals);
          std::signal(number, Manager::sigHdl);
          manager.emplace();
          manager->run();
        },
        testing::ExitedWithCode(0),
        testing::AllOf(testing::HasSubstr("queued"), testing::Not(testing::HasSubstr("written"))));
  }
}

TEST_F(ManagerLoopDeathTest, otherSignalsAreThePlatforms) {
  // The platform does nothing with them; above all they do not end the process.
  EXPECT_EXIT(
      {
        manager.emplace();
        for (const int number : {SIGHUP, SIGUSR1, SIGALRM}) {
          manager->signalHandler(number);
          std::signal(number, Manager::sigHdl);
          std::raise(number);
        }
        std::fputs("still there\n", stderr);
        std::_Exit(7);
      },
      testing::ExitedWithCode(7), "still there");
}

TEST_F(ManagerLoopDeathTest, signalWithoutManagerIsIgnored) {
  EXPECT_EXIT(
      {
        Manager::sigHdl(SIGTERM);
        std::fputs("still there\n", stderr);
        std::_Exit(7);
      },
      testing::ExitedWithCode(7), "still there");
}

}  // namespace
}  // namespace gateway_test
