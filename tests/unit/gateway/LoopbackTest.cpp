// The gateway with the real Kel library on its loopback broker: records in, records out, nobody stubbed.
#include <gmock/gmock.h>
#include <kel/Kel.h>
#include <pvss/FloatVar.h>
#include <pvss/IntegerVar.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <functional>
#include <memory>
#include <mutex>

#include "Gateway.h"
#include "KelApiResources.h"

namespace gateway_test {
namespace {

using namespace std::chrono_literals;

class IgnoringHandler final : public KelPublicationErrorHandler {
 public:
  void handleException(KelPublication* /*publication*/, KelException& /*exception*/) override {}
};

/// Collects what a subscriber sees.
class Listener final : public KelSubscriptionListener {
 public:
  void handleMessage(KelSubscription* /*subscription*/, KelData& data) override {
    const std::scoped_lock guard(mutex_);
    records_.push_back(data);
  }
  void disconnected(KelSubscription* /*subscription*/, char* /*reason*/) override {}
  void connected(KelSubscription* /*subscription*/) override {}
  void handleException(KelSubscription* /*subscription*/, KelException& /*exception*/) override {}
  std::vector<KelData> records() {
    const std::scoped_lock guard(mutex_);
    return records_;
  }

 private:
  std::mutex mutex_;
  std::vector<KelData> records_;
};

/// Calls the step in every turn of the main loop until it says that all is done.
class Steps final : public pvss::testing::ManagerObserver {
 public:
  explicit Steps(std::function<bool()> step) : step_(std::move(step)) {}
  void onDispatch(long /*sec*/, long usec) override {
    if (usec == 1000 && step_()) {
      KelApiManager::doExit = PVSS_TRUE;
    }
  }

 private:
  std::function<bool()> step_;
};

class Loopback : public Gateway {
 protected:
  void SetUp() override {
    const std::string url = "loopback:" + std::to_string(++broker_);
    setenv("KEL_URL", url.c_str(), 1);
    KelApiManager::kelFactory = nullptr;  // run() makes it
    KelApiResources::publisherName = "gateway";
    KelApiResources::clientSourceName = "Gw.clients";
    KelApiResources::pubSourceName = "Gw.pubs";
    plant.addElement("Gw.clients", DPELEMENT_DYNTEXT);
    plant.addElement("Gw.pubs", DPELEMENT_DYNTEXT);
    partner.reset(Kel::create("partner"));
  }
  void TearDown() override {
    plant.observe(nullptr);
    printedBy([this] {
      gdelayedPubThread.stopInOrder();
      for (const auto& [name, group] : std::exchange(CkelPublicationManager::publications, {})) {
        delete group;
      }
      manager.reset();
    });
    partner.reset();
    delete KelApiManager::kelFactory;
    KelApiManager::kelFactory = nullptr;
    KelApiResources::clientSourceName = "";
    KelApiResources::pubSourceName = "";
    unsetenv("KEL_URL");
  }
  /// Runs the main loop until the step says so; gives what was printed.
  std::string runUntil(const std::function<bool()>& step) {
    Steps steps(step);
    plant.observe(&steps);
    return printedBy([this] {
      manager.emplace();
      manager->run();
    });
  }
  void sendInt(KelPublication& publication, const char* tag, int value, std::int64_t timeNanoseconds) const {
    const std::unique_ptr<KelData> data(partner->createData());
    data->insert(value, tag);
    publication.send(*data, KelTimestamp(timeNanoseconds));
  }

  IgnoringHandler handler;
  std::unique_ptr<KelFactory> partner;

 private:
  static inline int broker_ = 0;
};

TEST_F(Loopback, recordReachesItsElementWithBitsFlagAndTime) {
  addClient("A.v", DPELEMENT_INT, "plant/boiler1", "temperature");
  plant.writeTexts("Gw.clients", {"A.v"});
  KelPublication* const publication = partner->createPublication("plant/boiler1", &handler);
  sendInt(*publication, "temperature", 42, 1'234'567'891'999'999);
  const std::string printed = runUntil([this] { return !plant.read("A.v").invalid; });
  EXPECT_THAT(printed, testing::HasSubstr("Created client mapping between DPE A.v and publication "
                                          "plant/boiler1\x1Atemperature\n"));
  const auto seen = plant.read("A.v");
  EXPECT_EQ(describe(seen.value.get()), "int 42");
  EXPECT_TRUE(seen.userBit1);
  EXPECT_TRUE(seen.userBit2);
  EXPECT_EQ(seen.valueTimeMs, 1'234'567'891);
  partner->destroyPublication(publication);
}

TEST_F(Loopback, publisherThatGoesInvalidatesItsElements) {
  addClient("A.v", DPELEMENT_INT, "P", "a");
  plant.writeTexts("Gw.clients", {"A.v"});
  sendInt(*partner->createPublication("P", &handler), "a", 1, 1'000'000);
  bool wasValid = false;
  runUntil([&] {
    if (!wasValid) {
      wasValid = !plant.read("A.v").invalid;
      if (wasValid) {
        partner.reset();
      }
      return false;
    }
    return plant.read("A.v").invalid;
  });
  const auto seen = plant.read("A.v");
  EXPECT_EQ(describe(seen.value.get()), "int 1");  // the value stays, it only is not good any more
  EXPECT_TRUE(seen.invalid);
}

TEST_F(Loopback, gatewayThatComesBackWithoutThePublisherInvalidatesItsElements) {
  // What a gateway and a publisher that died together have left: a good element, and a record on the broker.
  addClient("A.v", DPELEMENT_INT, "P", "a");
  plant.writeTexts("Gw.clients", {"A.v"});
  plant.write("A.v", IntegerVar(1), 5000);
  sendInt(*partner->createPublication("P", &handler), "a", 1, 1'000'000);
  ASSERT_TRUE(partner->flush(30s));
  partner.reset();
  ASSERT_FALSE(plant.read("A.v").invalid);
  runUntil([&] { return plant.read("A.v").invalid; });
  EXPECT_EQ(describe(plant.read("A.v").value.get()), "int 1");
}

TEST_F(Loopback, gatewayThatStartsWhileTheBrokerIsAwayInvalidatesItsElements) {
  setenv("KEL_URL", "mqtt://127.0.0.1:1", 1);  // nobody is there
  addClient("A.v", DPELEMENT_INT, "P", "a");
  plant.writeTexts("Gw.clients", {"A.v"});
  plant.write("A.v", IntegerVar(1), 5000);
  ASSERT_FALSE(plant.read("A.v").invalid);
  runUntil([&] { return plant.read("A.v").invalid; });
  EXPECT_EQ(describe(plant.read("A.v").value.get()), "int 1");
}

TEST_F(Loopback, publisherThatNeverWasInvalidatesItsElements) {
  addClient("A.v", DPELEMENT_INT, "P", "a");
  addClient("B.v", DPELEMENT_INT, "P", "b");
  addClient("C.v", DPELEMENT_INT, "", "c");
  for (const char* element : {"A.v", "B.v", "C.v"}) plant.write(element, IntegerVar(1), 5000);
  plant.writeTexts("Gw.clients", {"A.v", "B.v", "C.v"});
  runUntil(
      [&] { return plant.read("A.v").invalid && plant.read("B.v").invalid && plant.read("C.v").invalid; });
}

TEST_F(Loopback, elementAddedLaterGetsTheLastValueWithoutANewRecord) {
  addClient("A.v", DPELEMENT_INT, "P", "a");
  addClient("B.v", DPELEMENT_INT, "P", "a");
  plant.writeTexts("Gw.clients", {"A.v"});
  sendInt(*partner->createPublication("P", &handler), "a", 7, 1'000'000);
  bool added = false;
  runUntil([&] {
    if (!added && !plant.read("A.v").invalid) {
      added = true;
      plant.writeTexts("Gw.clients", {"A.v", "B.v"});
    }
    return !plant.read("B.v").invalid;
  });
  EXPECT_EQ(describe(plant.read("B.v").value.get()), "int 7");
}

TEST_F(Loopback, elementMovedFromALivePublicationToOneThatNeverWasStaysInvalid) {
  addClient("A.v", DPELEMENT_INT, "live", "a");
  addClient("B.v", DPELEMENT_INT, "live", "a");
  plant.writeTexts("Gw.clients", {"A.v", "B.v"});
  KelPublication* const publication = partner->createPublication("live", &handler);
  int turns = 0;
  int moved = 0;
  int goodAgain = 0;
  std::uint64_t othersWrites = 0;
  runUntil([&] {
    ++turns;
    sendInt(*publication, "a", turns, turns * 1'000'000LL);
    const auto seen = plant.read("A.v");
    if (moved == 0) {
      if (!seen.invalid) {
        moved = turns;
        othersWrites = plant.read("B.v").writes;
        plant.setAddress("A.v", 1, "KEL", reference("never", "a"));
      }
      return false;
    }
    goodAgain += seen.invalid ? 0 : 1;
    if (turns == moved + 50) {
      plant.writeTexts("Gw.clients", {"A.v", "B.v"});  // the gateway looks now, and not before
    }
    return turns > moved + 100 && plant.read("B.v").writes > othersWrites + 50;
  });
  EXPECT_EQ(goodAgain, 0);
  EXPECT_TRUE(plant.read("A.v").invalid);
  EXPECT_FALSE(plant.read("B.v").invalid);
  EXPECT_GT(Manager::getCounters().dropped, 0U);
  partner->destroyPublication(publication);
}

TEST_F(Loopback, gatewayThatStartsLatePublishesWhatIsThere) {
  plant.addElement("A.v", DPELEMENT_INT);
  plant.addElement("B.v", DPELEMENT_FLOAT);
  plant.write("A.v", IntegerVar(5), 5000);
  plant.write("B.v", FloatVar(0.5), 7000);
  plant.writeTexts("Gw.pubs", {compound({"now", "0", "A.v", "a", "B.v", "b"}),
                               compound({"later", "20", "A.v", "a", "B.v", "b"})});
  Listener now;
  Listener later;
  KelSubscription* const nowSubscription = partner->createSubscription("now", &now);
  KelSubscription* const laterSubscription = partner->createSubscription("later", &later);
  runUntil([&] { return !now.records().empty() && !later.records().empty(); });
  partner->releaseSubscription(nowSubscription);
  partner->releaseSubscription(laterSubscription);
  for (const auto& records : {now.records(), later.records()}) {
    EXPECT_EQ(records.back().extractInt("a"), 5);
    EXPECT_EQ(records.back().extractFloat("b"), 0.5F);
    EXPECT_EQ(records.back().getQuality(), 1);
    EXPECT_EQ(records.back().getTimestamp().timeNanoseconds, 7'000'000'000);
  }
}

TEST_F(Loopback, invalidElementMakesItsPublicationBadWithTheReason) {
  plant.addElement("A.v", DPELEMENT_INT);
  plant.write("A.v", IntegerVar(5), 5000);
  plant.writeTexts("Gw.pubs", {compound({"out", "0", "A.v", "a"})});
  Listener seen;
  KelSubscription* const subscription = partner->createSubscription("out", &seen);
  bool spoilt = false;
  runUntil([&] {
    if (!spoilt && !seen.records().empty()) {
      spoilt = true;
      plant.writeInvalid("A.v", true, 6000);
    }
    return seen.records().size() >= 2;
  });
  partner->releaseSubscription(subscription);
  const auto records = seen.records();
  EXPECT_EQ(records[0].getQuality(), 1);
  EXPECT_EQ(records[1].getQuality(), 0);
  EXPECT_STREQ(records[1].getReason(), "1 PVSS dpe's set to invalid");
  EXPECT_EQ(records[1].extractInt("a"), 5);
}

}  // namespace
}  // namespace gateway_test
