// What holds which lock meanwhile, and what comes before what.
#include <gmock/gmock.h>
#include <pvss/IntegerVar.h>

#include <csignal>
#include <cstdio>
#include <functional>
#include <memory>
#include <optional>

#include "DelayList.h"
#include "Gateway.h"
#include "KELClientManager.h"
#include "WatchedThread.h"

namespace gateway_test {
namespace {

using test_support::WatchedThread;

class Order : public Gateway {
 protected:
  void SetUp() override {
    addClient("A.v", DPELEMENT_INT, "P", "a");
    addClient("B.v", DPELEMENT_INT, "P", "b");
    addClient("C.v", DPELEMENT_INT, "Q", "c");
    start();
  }
  void TearDown() override {
    kel.onCall = nullptr;
    plant.observe(nullptr);
  }
  static void apply(CkelClientManager& clients, const std::vector<std::string>& names) {
    printedBy([&] {
      const DynVar list = textList(names);
      clients.updateConfig(&list);
    });
  }
  static void queue(int value) {
    DpIdentifier id;
    ASSERT_TRUE(Manager::getId("A.v:_original.._value", id));
    auto* const list = new DpIdValueList;
    list->append(id, new IntegerVar(value));
    KelApiManager::sendListOfUpdatesToPVSS(list, new TimeVar(PVSSTime(value, 0)));
  }
};

/// Does what a test says at every dpSetTimed.
class AtEveryWrite final : public pvss::testing::ManagerObserver {
 public:
  explicit AtEveryWrite(std::function<void()> action) : action_(std::move(action)) {}
  void onDpSetTimed(const TimeVar& /*time*/, const DpIdValueList& /*values*/,
                    unsigned int /*flags*/) override {
    action_();
  }

 private:
  std::function<void()> action_;
};

TEST_F(Order, drainHoldsTheQueuesLockAcrossAllItsWrites) {
  queue(1);
  queue(2);
  queue(3);
  const SMutex& lock = KelApiManager::dpeUpdateQueueLock;
  const int before = lock.getLockCount();
  std::vector<int> during;
  std::vector<std::size_t> waiting;
  AtEveryWrite atEveryWrite([&] {
    during.push_back(lock.getLockCount());
    waiting.push_back(ManagerUnderTest::waitingUpdates());
  });
  plant.observe(&atEveryWrite);
  ManagerUnderTest::writeQueuedUpdates();
  plant.observe(nullptr);
  EXPECT_EQ(during, (std::vector<int>(3, before + 1)));     // locked once, and not released in between
  EXPECT_EQ(waiting, (std::vector<std::size_t>{2, 1, 0}));  // taken off the queue, then written
  EXPECT_EQ(lock.getLockCount(), before + 2);
}

TEST_F(Order, sendersWaitUntilTheDrainIsOver) {
  queue(1);
  queue(2);
  std::optional<WatchedThread> sender;
  std::vector<bool> waited;
  AtEveryWrite atEveryWrite([&] {
    if (!sender) {
      sender.emplace([] { queue(3); });
    }
    waited.push_back(sender->comesToWaitForALock());
  });
  plant.observe(&atEveryWrite);
  plant.clearRecords();
  ManagerUnderTest::writeQueuedUpdates();
  sender->join();  // it asks the plant, too
  plant.observe(nullptr);
  EXPECT_EQ(waited, (std::vector<bool>{true, true}));
  EXPECT_EQ(plant.writes().size(), 2U);
  EXPECT_EQ(written().size(), 1U);
}

void tellOfTheLock(int /*signal*/) {
  std::fprintf(stderr, "operations of the lock: %d\n", KelApiManager::dpeUpdateQueueLock.getLockCount());
}

using OrderDeathTest = Order;

TEST_F(OrderDeathTest, queuedUpdateIsMadeWhileTheLockIsHeld) {
  testing::GTEST_FLAG(death_test_style) = "threadsafe";
  // A list that is missing ends the process where the update is made; the handler looks at the lock there.
  EXPECT_DEATH(
      {
        std::signal(SIGABRT, &tellOfTheLock);
        std::fprintf(stderr, "before: %d\n", KelApiManager::dpeUpdateQueueLock.getLockCount());
        KelApiManager::sendListOfUpdatesToPVSS(nullptr, new TimeVar);
      },
      "before: 0\n(.*\n)*operations of the lock: 1\n");
}

TEST_F(Order, updateThreadHoldsItsLockWhileAGroupIsPublished) {
  const DrivenClock clock;
  const BareGroups groups(2);
  PublicationUpdateThread thread;
  kel.takeSent();
  thread.addGroup(groups[0], 10);
  std::optional<WatchedThread> adder;
  bool waited = false;
  kel.onCall = [&](const std::string& call) {
    EXPECT_EQ(call, "send 0");
    adder.emplace([&] { EXPECT_TRUE(thread.addGroup(groups[1], 20)); });
    waited = adder->comesToWaitForALock();
  };
  const auto turn = thread.beginTurn();
  thread.endTurn(turn, SEvent::timedOut);
  kel.onCall = nullptr;
  ASSERT_TRUE(adder.has_value());
  adder->join();
  EXPECT_TRUE(waited);
  EXPECT_EQ(thread.beginTurn().waitMs, 20);
  EXPECT_EQ(kel.takeSent().size(), 1U);
}

TEST_F(Order, linesOfASubscriptionFollowWhatTheyTellOf) {
  CdpeWrapper a("A.v");
  ASSERT_TRUE(a.revalidateDPE());
  kel.onCall = [](const std::string& call) {
    std::puts(call.c_str());
    std::fflush(stdout);
  };
  EXPECT_EQ(printedBy([&a] {
              CkelSubscription subscription("P");
              subscription.createMapping("a", "P", a);
            }),
            "subscribe P\n"
            "Created subscription to P\n"
            "Created client mapping between DPE A.v and publication P\n"
            "release P\n"
            "Destroyed client mapping between DPE A.v and publication P\n"
            "Destroyed subscription to P\n");
}

TEST_F(Order, handleIsReleasedBeforeTheMappingsGo) {
  CdpeWrapper a("A.v");
  ASSERT_TRUE(a.revalidateDPE());
  auto subscription = std::make_unique<CkelSubscription>("P");
  const CkelSubscription& seen = *subscription;
  subscription->createMapping("a", reference("P", "a"), a);
  int mappingsAtRelease = -1;
  kel.onCall = [&](const std::string& call) {
    EXPECT_EQ(call, "release P");
    mappingsAtRelease = seen.getNumberOfMappings();
    EXPECT_NE(a.getMapping(), nullptr);
  };
  subscription.reset();
  EXPECT_EQ(mappingsAtRelease, 1);
  EXPECT_EQ(a.getMapping(), nullptr);
}

TEST_F(Order, whatIsDroppedIsReleasedBeforeResendsAreAskedFor) {
  CkelClientManager clients;
  apply(clients, {"A.v", "C.v"});
  kel.subscription("P")->listener->connected(nullptr);
  const auto& p = static_cast<const CkelSubscription&>(*kel.subscription("P")->listener);
  kel.takeCalls();
  bool markedAtTheRequest = false;
  kel.onCall = [&](const std::string& call) {
    if (call == "resend P") {
      markedAtTheRequest = p.mustGetLastPubValue();
    }
  };
  apply(clients, {"A.v", "B.v"});
  kel.onCall = nullptr;
  EXPECT_EQ(kel.takeCalls(), (Lines{"release Q", "resend P"}));
  EXPECT_TRUE(markedAtTheRequest);  // the mark goes after the request
  EXPECT_FALSE(p.mustGetLastPubValue());
}

TEST_F(Order, firstMappingOfANewSubscriptionAsksForNoResend) {
  // The library delivers the last value to a new subscription by itself.
  CkelClientManager clients;
  printedBy([&] {
    CdpeWrapper dpe("A.v");
    ASSERT_TRUE(dpe.revalidateDPE());
    EXPECT_TRUE(clients.subscribeDPE(dpe));
    EXPECT_FALSE(dpe.getMapping()->getSubscription().mustGetLastPubValue());
    clients.unsubscribeDPE(dpe);
    clients.subscribeDPE(dpe);
    EXPECT_TRUE(dpe.getMapping()->getSubscription().mustGetLastPubValue());
    clients.unsubscribeDPE(dpe);
  });
}

TEST_F(Order, groupIsConnectedBeforeItsPublicationIsCreated) {
  plant.clearRecords();
  std::size_t connectsAtCreation = 0;
  kel.onCall = [&](const std::string& call) {
    EXPECT_EQ(call, "publish Out");
    connectsAtCreation = plant.connects().size();
  };
  CdpeMappingTuple first{"A.v", "a"};
  CdpeMappingTuple second{"B.v", "b"};
  CvectorOfdpeMappingTuples tuples;
  tuples.push_back(&first);
  tuples.push_back(&second);
  printedBy([&] {
    const CkelPubGroup group("Out", 100, tuples);
    kel.onCall = nullptr;
    gdelayedPubThread.stopInOrder();
  });
  EXPECT_EQ(connectsAtCreation, 2U);
}

}  // namespace
}  // namespace gateway_test
