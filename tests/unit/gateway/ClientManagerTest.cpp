// The subscribing side: lists become wrappers, subscriptions and mappings.
#include <optional>
#include <thread>

#include "Gateway.h"
#include "KELClientManager.h"

namespace gateway_test {
namespace {

class ClientsUnderTest : public CkelClientManager {
 public:
  [[nodiscard]] Lines clients() const {
    Lines names;
    for (const auto& [name, wrapper] : dpeClients) {
      EXPECT_TRUE(wrapper->isValid());
      EXPECT_NE(wrapper->getMapping(), nullptr);
      EXPECT_FALSE(wrapper->isMarked());
      names.push_back(name->str());
    }
    return names;
  }
  [[nodiscard]] Lines subscriptions() const {
    Lines names;
    for (const auto& [name, subscription] : kelPubsSubscribedTo) {
      EXPECT_GT(subscription->getNumberOfMappings(), 0);
      names.push_back(name->str() + ":" + std::to_string(subscription->getNumberOfMappings()));
    }
    return names;
  }
  [[nodiscard]] CdpeWrapper& wrapper(const char* name) const {
    const CharString key(name);
    return *dpeClients.at(&key);
  }
  [[nodiscard]] int entrances() const { return entranceCount; }
  [[nodiscard]] int lockOperations() const { return configLock.getLockCount(); }
  /// Gives back what an unfinished update left held.
  void releaseLock() RUNTIME_NO_LOCK_ANALYSIS { configLock.release(); }
  [[nodiscard]] const char* lockName() const { return configLock.getName(); }
};

class ClientManager : public Gateway {
 protected:
  void SetUp() override {
    addClient("A.v", DPELEMENT_INT, "P", "a");
    addClient("B.v", DPELEMENT_INT, "P", "b");
    addClient("C.v", DPELEMENT_INT, "Q", "c");
    start();
    clients.emplace();
  }
  void TearDown() override {
    printedBy([this] { clients.reset(); });
  }
  /// Applies the list and gives what was printed.
  std::string apply(const std::vector<std::string>& names) {
    return printedBy([&] {
      const DynVar list = textList(names);
      clients->updateConfig(&list);
    });
  }

  std::optional<ClientsUnderTest> clients;
};

TEST_F(ClientManager, firstListIsSubscribedInListOrder) {
  EXPECT_EQ(apply({"C.v", "A.v"}),
            "Created DPEWrapper for DPE C.v\n"
            "Created subscription to Q\n"
            "Created client mapping between DPE C.v and publication Q\x1A"
            "c\n"
            "Created DPEWrapper for DPE A.v\n"
            "Created subscription to P\n"
            "Created client mapping between DPE A.v and publication P\x1A"
            "a\n");
  EXPECT_EQ(clients->clients(), (Lines{"A.v", "C.v"}));
  EXPECT_EQ(clients->subscriptions(), (Lines{"P:1", "Q:1"}));
  EXPECT_EQ(kel.takeCalls(), (Lines{"subscribe Q", "subscribe P"}));
}

TEST_F(ClientManager, lockIsTakenAndGivenBackOnceAnUpdate) {
  EXPECT_STREQ(clients->lockName(), "SubConfigLock");
  apply({"A.v"});
  EXPECT_EQ(clients->lockOperations(), 2);
  EXPECT_EQ(clients->entrances(), 0);
}

TEST_F(ClientManager, sameListAgainChangesNothing) {
  apply({"A.v", "C.v"});
  kel.takeCalls();
  EXPECT_EQ(apply({"A.v", "C.v"}), "");
  EXPECT_EQ(kel.takeCalls(), Lines{});
  EXPECT_EQ(clients->clients(), (Lines{"A.v", "C.v"}));
}

TEST_F(ClientManager, sameListAgainAsksAConnectedSubscriptionForNothing) {
  apply({"A.v", "B.v"});
  kel.subscription("P")->listener->connected(nullptr);
  kel.takeCalls();
  apply({"A.v", "B.v"});
  EXPECT_EQ(kel.takeCalls(), Lines{});
}

TEST_F(ClientManager, whatAnUpdateLeavesIsShownToKelThreadsAtOnceAgain) {
  const auto shown = [this] {
    DpIdValueList list;
    try {
      clients->wrapper("A.v").getMapping()->addValueValidityStatusToList(list);
    } catch (const CdepException&) {
      return false;
    }
    return true;
  };
  const auto goesAndComes = [&] {
    EXPECT_TRUE(shown());
    plant.switchOff("A.v:_original.._exp_inv");
    settle();
    EXPECT_FALSE(clients->wrapper("A.v").revalidateDPE());
    EXPECT_FALSE(shown());
    plant.switchOn("A.v:_original.._exp_inv");
    settle();
    EXPECT_TRUE(clients->wrapper("A.v").revalidateDPE());
  };
  apply({"A.v"});
  apply({"A.v"});  // unchanged
  goesAndComes();
  plant.setAddress("A.v", 1, "KEL", reference("Q", "a"));
  settle();
  apply({"A.v"});  // moved
  goesAndComes();
}

TEST_F(ClientManager, elementsOfOnePublicationShareASubscription) {
  EXPECT_EQ(apply({"A.v", "B.v"}),
            "Created DPEWrapper for DPE A.v\n"
            "Created subscription to P\n"
            "Created client mapping between DPE A.v and publication P\x1A"
            "a\n"
            "Created DPEWrapper for DPE B.v\n"
            "Created client mapping between DPE B.v and publication P\x1A"
            "b\n");
  EXPECT_EQ(clients->subscriptions(), Lines{"P:2"});
  // Not connected yet: nothing is asked for, and the mark is gone.
  EXPECT_EQ(kel.takeCalls(), Lines{"subscribe P"});
  EXPECT_FALSE(clients->wrapper("B.v").getMapping()->getSubscription().mustGetLastPubValue());
}

TEST_F(ClientManager, newMappingOfAConnectedSubscriptionAsksForTheLastValue) {
  apply({"A.v"});
  kel.subscription("P")->listener->connected(nullptr);
  kel.takeCalls();
  apply({"A.v", "B.v"});
  EXPECT_EQ(kel.takeCalls(), Lines{"resend P"});
  EXPECT_FALSE(clients->wrapper("B.v").getMapping()->getSubscription().mustGetLastPubValue());
}

TEST_F(ClientManager, lastElementOfAPublicationTakesTheSubscriptionWithIt) {
  apply({"A.v", "B.v", "C.v"});
  kel.takeCalls();
  EXPECT_EQ(apply({"A.v", "B.v"}),
            "Destroyed client mapping between DPE C.v and publication Q\x1A"
            "c\n"
            "Destroyed DPEWrapper for DPE C.v\n"
            "Destroyed subscription to Q\n");
  EXPECT_EQ(kel.takeCalls(), Lines{"release Q"});
  EXPECT_EQ(apply({"B.v"}),
            "Destroyed client mapping between DPE A.v and publication P\x1A"
            "a\n"
            "Destroyed DPEWrapper for DPE A.v\n");
  EXPECT_EQ(kel.takeCalls(), Lines{});
}

TEST_F(ClientManager, emptyListDestroysEverything) {
  apply({"A.v", "C.v"});
  EXPECT_EQ(apply({}),
            "Destroyed client mapping between DPE A.v and publication P\x1A"
            "a\n"
            "Destroyed DPEWrapper for DPE A.v\n"
            "Destroyed client mapping between DPE C.v and publication Q\x1A"
            "c\n"
            "Destroyed DPEWrapper for DPE C.v\n"
            "Destroyed subscription to P\n"
            "Destroyed subscription to Q\n");
  EXPECT_EQ(clients->clients(), Lines{});
  EXPECT_EQ(clients->subscriptions(), Lines{});
}

TEST_F(ClientManager, destructionEndsSubscriptionsThenWrappers) {
  apply({"A.v", "C.v"});
  EXPECT_EQ(printedBy([this] { clients.reset(); }),
            "Destroyed client mapping between DPE A.v and publication P\x1A"
            "a\n"
            "Destroyed subscription to P\n"
            "Destroyed client mapping between DPE C.v and publication Q\x1A"
            "c\n"
            "Destroyed subscription to Q\n"
            "Destroyed DPEWrapper for DPE A.v\n"
            "Destroyed DPEWrapper for DPE C.v\n");
}

TEST_F(ClientManager, elementThatIsNotValidIsReportedAndDropped) {
  EXPECT_EQ(apply({"No.such", "A.v"}),
            "Created DPEWrapper for DPE No.such\n"
            "ERROR: KELClientManager 114 DPE No.such is not a valid DPE - ignoring\n"
            "Created DPEWrapper for DPE A.v\n"
            "Created subscription to P\n"
            "Created client mapping between DPE A.v and publication P\x1A"
            "a\n"
            "Destroyed DPEWrapper for DPE No.such\n");
  EXPECT_EQ(clients->clients(), Lines{"A.v"});
}

TEST_F(ClientManager, elementIsTriedAgainWithTheNextList) {
  apply({"D.v"});
  addClient("D.v", DPELEMENT_INT, "P", "d");
  settle();
  EXPECT_EQ(apply({"D.v"}),
            "Created DPEWrapper for DPE D.v\n"
            "Created subscription to P\n"
            "Created client mapping between DPE D.v and publication P\x1A"
            "d\n");
}

TEST_F(ClientManager, elementMovesToAnotherPublication) {
  apply({"A.v", "C.v"});
  kel.takeCalls();
  plant.setAddress("A.v", 1, "KEL", reference("Q", "a"));
  settle();
  EXPECT_EQ(apply({"A.v", "C.v"}),
            "Destroyed client mapping between DPE A.v and publication P\x1A"
            "a\n"
            "Created client mapping between DPE A.v and publication Q\x1A"
            "a\n"
            "Destroyed subscription to P\n");
  EXPECT_EQ(clients->subscriptions(), Lines{"Q:2"});
  EXPECT_EQ(kel.takeCalls(), Lines{"release P"});
}

TEST_F(ClientManager, elementOfAnotherTypeIsMappedAnew) {
  apply({"A.v"});
  kel.subscription("P")->listener->connected(nullptr);
  kel.takeCalls();
  plant.addElement("A.v", DPELEMENT_FLOAT);
  plant.setAddress("A.v", 1, "KEL", reference("P", "a"));
  settle();
  EXPECT_EQ(apply({"A.v"}),
            "Destroyed client mapping between DPE A.v and publication P\x1A"
            "a\n"
            "Created client mapping between DPE A.v and publication P\x1A"
            "a\n");
  EXPECT_EQ(kel.takeCalls(), Lines{"resend P"});
}

TEST_F(ClientManager, elementWhoseAddressGoesIsDroppedWithoutMessageOfItsOwn) {
  apply({"A.v", "B.v"});
  plant.setAddress("A.v", 0, "", "");
  settle();
  EXPECT_EQ(apply({"A.v", "B.v"}),
            "ERROR: CdpeWrapper 54 Address config does not exist for A.v\n"
            "Destroyed client mapping between DPE A.v and publication P\x1A"
            "a\n"
            "Destroyed DPEWrapper for DPE A.v\n");
  EXPECT_EQ(clients->clients(), Lines{"B.v"});
}

TEST_F(ClientManager, referenceWithoutSeparatorIsThePublicationAlone) {
  plant.setAddress("A.v", 1, "KEL", "plant/boiler1");
  settle();
  apply({"A.v"});
  EXPECT_EQ(clients->subscriptions(), Lines{"plant/boiler1:1"});
  EXPECT_STREQ(clients->wrapper("A.v").getMapping()->getTagName(), "");
}

TEST_F(ClientManager, separatorAtTheEndGivesAnEmptyTagAndAtTheStartAnEmptyName) {
  plant.setAddress("A.v", 1, "KEL", reference("P", ""));
  plant.setAddress("B.v", 1, "KEL", reference("", "b"));
  settle();
  apply({"A.v", "B.v"});
  EXPECT_EQ(clients->subscriptions(), (Lines{":1", "P:1"}));
  EXPECT_STREQ(clients->wrapper("A.v").getMapping()->getTagName(), "");
  EXPECT_STREQ(clients->wrapper("B.v").getMapping()->getTagName(), "b");
}

TEST_F(ClientManager, onlyTheFirstSeparatorSeparates) {
  plant.setAddress("A.v", 1, "KEL", compound({"P", "a", "b"}));
  settle();
  apply({"A.v"});
  EXPECT_EQ(clients->subscriptions(), Lines{"P:1"});
  EXPECT_EQ(std::string(clients->wrapper("A.v").getMapping()->getTagName()), compound({"a", "b"}));
}

TEST_F(ClientManager, nameGivenTwiceIsOneClient) {
  EXPECT_EQ(apply({"A.v", "A.v"}),
            "Created DPEWrapper for DPE A.v\n"
            "Created subscription to P\n"
            "Created client mapping between DPE A.v and publication P\x1A"
            "a\n");
  EXPECT_EQ(clients->subscriptions(), Lines{"P:1"});
}

TEST_F(ClientManager, nameGivenTwiceWhoseAddressGoesInBetweenIsDropped) {
  kel.onCall = [this](const std::string& call) {
    if (call == "subscribe P") {
      plant.setAddress("A.v", 0, "", "");
    } else if (call == "subscribe Q") {
      settle();  // the manager learns of it
    }
  };
  apply({"A.v", "C.v", "A.v"});
  kel.onCall = nullptr;
  EXPECT_EQ(clients->clients(), Lines{"C.v"});
  EXPECT_EQ(clients->subscriptions(), Lines{"Q:1"});
}

using ClientManagerDeathTest = ClientManager;

TEST_F(ClientManagerDeathTest, nameGivenTwiceThatIsNotValidEndsTheProcess) {
  testing::GTEST_FLAG(death_test_style) = "threadsafe";
  const DynVar list = textList({"No.such", "No.such"});
  EXPECT_DEATH(clients->updateConfig(&list),
               "KELClientManager:119: .*Assertion `clientDp.getMapping\\(\\) != __null' failed");
}

TEST_F(ClientManagerDeathTest, unsubscribingWhatIsNotMappedEndsTheProcess) {
  testing::GTEST_FLAG(death_test_style) = "threadsafe";
  const CdpeWrapper wrapper("A.v");
  EXPECT_DEATH(clients->unsubscribeDPE(wrapper),
               "KELClientManager:71: .*Assertion `dpe.getMapping\\(\\) != __null' failed");
}

TEST_F(ClientManagerDeathTest, mappingThatStaysEndsTheProcess) {
  testing::GTEST_FLAG(death_test_style) = "threadsafe";
  // A mapping on a subscription that the client manager does not own cannot be removed by it.
  CdpeWrapper wrapper("A.v");
  ASSERT_TRUE(wrapper.revalidateDPE());
  CkelSubscription foreign("X");
  foreign.createMapping("a", reference("X", "a"), wrapper);
  EXPECT_DEATH(clients->unsubscribeDPE(wrapper),
               "KELClientManager:74: .*Assertion `dpe.getMapping\\(\\) == __null' failed");
}

TEST_F(ClientManagerDeathTest, destroyingAnUnknownSubscriptionEndsTheProcess) {
  testing::GTEST_FLAG(death_test_style) = "threadsafe";
  EXPECT_DEATH(clients->destroySubscription("X"),
               "KELClientManager:23: .*Assertion `pubIt != kelPubsSubscribedTo.end\\(\\)' failed");
}

TEST_F(ClientManager, subscribingWhatIsNotValidIsRefused) {
  CdpeWrapper wrapper("A.v");
  EXPECT_THROW(clients->subscribeDPE(wrapper), CdepException);
}

TEST_F(ClientManager, subscribedElementFeedsItsValue) {
  apply({"A.v"});
  CkelSubscription& subscription = *static_cast<CkelSubscription*>(kel.subscription("P")->listener);
  subscription.connected(nullptr);
  written();
  KelData data;
  data.insert(42, "a");
  kel::testing::setQuality(data, 1);
  kel::testing::setTimestamp(data, 1'000'000'000);
  subscription.handleMessage(nullptr, data);
  written();
  settle();
  const auto seen = plant.read("A.v");
  EXPECT_EQ(describe(seen.value.get()), "int 42");
  EXPECT_FALSE(seen.invalid);
  EXPECT_TRUE(seen.userBit1);
  EXPECT_TRUE(seen.userBit2);
  EXPECT_EQ(seen.valueTimeMs, 1000);
}

TEST_F(ClientManager, exceptionOfTheLibraryLeavesTheUpdateUnfinishedAndTheLockHeld) {
  kel.failing = true;
  const DynVar list = textList({"A.v", "C.v"});
  EXPECT_THROW(printedBy([&] {
                 try {
                   clients->updateConfig(&list);
                 } catch (...) {
                   std::fflush(stdout);
                   throw;
                 }
               }),
               KelException);
  testing::internal::GetCapturedStdout();
  EXPECT_EQ(clients->lockOperations(), 1);
  EXPECT_EQ(clients->entrances(), 1);
  clients->releaseLock();
}

/// Delivers lists while the manager dispatches, on its own thread, as the platform's callbacks do.
class ListsDuringDispatch final : public pvss::testing::ManagerObserver {
 public:
  ListsDuringDispatch(CkelClientManager& clients, std::vector<std::vector<std::string>> lists)
      : clients_(clients), lists_(std::move(lists)) {}
  void onDispatch(long /*sec*/, long /*usec*/) override {
    if (next_ < lists_.size()) {
      const DynVar list = textList(lists_[next_++]);
      clients_.updateConfig(&list);
    }
  }
  [[nodiscard]] bool allDelivered() const { return next_ == lists_.size(); }

 private:
  CkelClientManager& clients_;
  std::vector<std::vector<std::string>> lists_;
  std::size_t next_ = 0;
};

TEST_F(ClientManager, listThatArrivesDuringAnUpdateIsAppliedRightAfterIt) {
  ListsDuringDispatch lists(*clients, {{"C.v"}});
  plant.observe(&lists);
  const std::string printed = apply({"A.v", "B.v"});
  plant.observe(nullptr);
  EXPECT_TRUE(lists.allDelivered());
  EXPECT_EQ(printed,
            "Created DPEWrapper for DPE A.v\n"
            "Created subscription to P\n"
            "Created client mapping between DPE A.v and publication P\x1A"
            "a\n"
            "Created DPEWrapper for DPE B.v\n"
            "Created client mapping between DPE B.v and publication P\x1A"
            "b\n"
            "Created DPEWrapper for DPE C.v\n"
            "Created subscription to Q\n"
            "Created client mapping between DPE C.v and publication Q\x1A"
            "c\n"
            "Destroyed client mapping between DPE A.v and publication P\x1A"
            "a\n"
            "Destroyed DPEWrapper for DPE A.v\n"
            "Destroyed client mapping between DPE B.v and publication P\x1A"
            "b\n"
            "Destroyed DPEWrapper for DPE B.v\n"
            "Destroyed subscription to P\n");
  EXPECT_EQ(clients->clients(), Lines{"C.v"});
  EXPECT_EQ(clients->lockOperations(), 4);
}

TEST_F(ClientManager, onlyTheNewestOfTheListsThatArriveIsKept) {
  ListsDuringDispatch lists(*clients, {{"B.v"}, {}, {"A.v", "C.v"}});
  plant.observe(&lists);
  apply({"A.v", "B.v"});
  plant.observe(nullptr);
  ASSERT_TRUE(lists.allDelivered());
  EXPECT_EQ(clients->clients(), (Lines{"A.v", "C.v"}));
  EXPECT_EQ(clients->lockOperations(), 4);
}

TEST_F(ClientManager, listThatArrivesDuringTheFollowingUpdateIsAppliedToo) {
  // The second list is delivered in the first update, the third in the second one.
  class Chain final : public pvss::testing::ManagerObserver {
   public:
    explicit Chain(ClientsUnderTest& clients) : clients_(clients) {}
    void onDispatch(long /*sec*/, long /*usec*/) override {
      const int update = clients_.lockOperations();
      if (update == 1 && delivered_ == 0) {
        deliver({"A.v", "C.v"});
      } else if (update == 3 && delivered_ == 1) {
        deliver({"B.v"});
      }
    }

   private:
    void deliver(const std::vector<std::string>& names) {
      ++delivered_;
      const DynVar list = textList(names);
      clients_.updateConfig(&list);
    }
    ClientsUnderTest& clients_;
    int delivered_ = 0;
  };
  Chain chain(*clients);
  plant.observe(&chain);
  apply({"A.v"});
  plant.observe(nullptr);
  EXPECT_EQ(clients->clients(), Lines{"B.v"});
  EXPECT_EQ(clients->lockOperations(), 6);
}

TEST_F(ClientManager, elementThatLosesItsAddressDoesNotSpoilTheRecordsOfTheOthers) {
  apply({"A.v", "B.v"});
  CkelSubscription& subscription = *static_cast<CkelSubscription*>(kel.subscription("P")->listener);
  subscription.connected(nullptr);
  written();
  plant.setAddress("A.v", 0, "", "");
  settle();

  class RecordDuringDispatch final : public pvss::testing::ManagerObserver {
   public:
    explicit RecordDuringDispatch(CkelSubscription& target) : target_(target) {}
    void onDispatch(long /*sec*/, long /*usec*/) override {
      ++times;
      std::thread([this] {
        KelData data;
        data.insert(1, "a");
        data.insert(2, "b");
        kel::testing::setQuality(data, 1);
        target_.handleMessage(nullptr, data);
      }).join();
    }
    int times = 0;

   private:
    CkelSubscription& target_;
  };
  RecordDuringDispatch records(subscription);
  plant.observe(&records);
  EXPECT_EQ(apply({"A.v", "B.v"}),
            "ERROR: CdpeWrapper 54 Address config does not exist for A.v\n"
            "Destroyed client mapping between DPE A.v and publication P\x1A"
            "a\n"
            "Destroyed DPEWrapper for DPE A.v\n");
  plant.observe(nullptr);
  const auto writes = written();
  ASSERT_GT(records.times, 1);
  ASSERT_EQ(writes.size(), static_cast<std::size_t>(records.times));
  for (const Lines& write : writes) {
    EXPECT_EQ(write.size(), 8U);  // both elements whole, until the sweep takes the first one away
    EXPECT_EQ(write.front(), "A.v:_original.._value = int 1");
    EXPECT_EQ(write.back(), "B.v:_original.._exp_inv = bit 0");
  }
}

}  // namespace
}  // namespace gateway_test
