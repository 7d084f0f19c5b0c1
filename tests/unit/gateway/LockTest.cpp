// Who waits for whom: while a lock is held, everything else that needs it comes to wait.
#include <pvss/BitVar.h>
#include <pvss/IntegerVar.h>
#include <pvss/TimeVar.h>

#include <functional>
#include <memory>
#include <mutex>
#include <optional>

#include "CkelSubscription.h"
#include "DelayList.h"
#include "Gateway.h"
#include "KelDataSpy.h"
#include "WatchedThread.h"

namespace gateway_test {
namespace {

using test_support::WatchedThread;

/// Whether `second` waits as long as `first` stands still in the middle. `standStill` is called there.
class InTheMiddle {
 public:
  void standStill() { const std::scoped_lock wait(hold_); }
  /// Runs both to their end.
  bool secondWaits(const std::function<void()>& first, const std::function<void()>& second) {
    hold_.lock();
    WatchedThread holder(first);
    EXPECT_TRUE(holder.comesToWaitForALock());
    WatchedThread other(second);
    const bool waited = other.comesToWaitForALock();
    hold_.unlock();
    return waited;
  }

 private:
  std::mutex hold_;
};

class SubscriptionLock : public Gateway {
 protected:
  void SetUp() override {
    for (const char* const name : {"A.v", "B.v"}) {
      addClient(name, DPELEMENT_INT, "P", "a");
    }
    start();
    testing::internal::CaptureStdout();
    a = std::make_unique<CdpeWrapper>("A.v");
    b = std::make_unique<CdpeWrapper>("B.v");
    ASSERT_TRUE(a->revalidateDPE());
    ASSERT_TRUE(b->revalidateDPE());
    subscription = std::make_unique<CkelSubscription>("P");
    subscription->createMapping("a", "P", *a);
  }
  void TearDown() override {
    subscription.reset();
    a.reset();
    b.reset();
    written();
    testing::internal::GetCapturedStdout();
  }
  void takeRecord() const {
    KelData data;
    data.insert(7, "a");
    kel::testing::setQuality(data, 1);
    subscription->handleMessage(nullptr, data);
  }
  /// Whether the action waits while a Kel thread is in the middle of a record.
  bool waits(const std::function<void()>& action) {
    InTheMiddle middle;
    const KelDataSpy spy([&middle](const char* operation, const char* /*tag*/) {
      if (std::string(operation) == "extractInt") {
        middle.standStill();
      }
    });
    return middle.secondWaits([this] { takeRecord(); }, action);
  }

  std::unique_ptr<CdpeWrapper> a;
  std::unique_ptr<CdpeWrapper> b;
  std::unique_ptr<CkelSubscription> subscription;
};

TEST_F(SubscriptionLock, recordsWaitForEachOther) {
  EXPECT_TRUE(waits([this] { takeRecord(); }));
}

TEST_F(SubscriptionLock, connectionChangesWaitForARecord) {
  EXPECT_TRUE(waits([this] { subscription->connected(nullptr); }));
  EXPECT_TRUE(waits([this] { subscription->disconnected(nullptr, nullptr); }));
}

TEST_F(SubscriptionLock, mappingsComeAndGoBetweenRecords) {
  EXPECT_TRUE(waits([this] { subscription->createMapping("a", "P", *b); }));
  EXPECT_TRUE(waits([this] { subscription->destroyMapping(*b); }));
  EXPECT_TRUE(waits([this] { EXPECT_EQ(subscription->getNumberOfMappings(), 1); }));
}

TEST_F(SubscriptionLock, whatKelThreadsSeeOfAnElementChangesBetweenRecords) {
  EXPECT_TRUE(waits([this] { a->getMapping()->showDpe(); }));
}

TEST_F(SubscriptionLock, isGivenBackBeforeTheListIsQueued) {
  // The drain holds the queue's lock; a record that is done with its subscription waits for that alone.
  takeRecord();
  class AtTheWrite final : public pvss::testing::ManagerObserver {
   public:
    explicit AtTheWrite(CkelSubscription& subscription) : subscription_(subscription) {}
    void onDpSetTimed(const TimeVar& /*time*/, const DpIdValueList& /*values*/,
                      unsigned int /*flags*/) override {
      if (!kelThread) {
        kelThread.emplace([this] { subscription_.connected(nullptr); });
        EXPECT_TRUE(kelThread->comesToWaitForALock());
        mappings = subscription_.getNumberOfMappings();
      }
    }
    std::optional<WatchedThread> kelThread;
    int mappings = 0;

   private:
    CkelSubscription& subscription_;
  };
  AtTheWrite atTheWrite(*subscription);
  plant.observe(&atTheWrite);
  ManagerUnderTest::writeQueuedUpdates();
  plant.observe(nullptr);
  atTheWrite.kelThread->join();
  EXPECT_EQ(atTheWrite.mappings, 1);
}

class GroupLock : public Gateway {
 protected:
  void SetUp() override {
    plant.addElement("A.v", DPELEMENT_INT);
    plant.write("A.v", IntegerVar(0), 1000);
    start();
    printedBy([this] {
      CdpeMappingTuple tuple{"A.v", "a"};
      CvectorOfdpeMappingTuples tuples;
      tuples.push_back(&tuple);
      group = std::make_unique<CkelPubGroup>("Out", 100, tuples);
      gdelayedPubThread.stopInOrder();
      settle();
    });
  }
  void TearDown() override {
    kel.onCall = nullptr;
    printedBy([this] {
      gdelayedPubThread.stopInOrder();
      group.reset();
    });
  }
  void change() const {
    DpHLGroup hotLink;
    const auto add = [&hotLink](const char* name, std::unique_ptr<Variable> value) {
      DpIdentifier id;
      ASSERT_TRUE(Manager::getId(name, id));
      hotLink.append(id, value.release());
    };
    add("A.v:_online.._value", std::make_unique<IntegerVar>(1));
    add("A.v:_online.._stime", std::make_unique<TimeVar>(PVSSTime(5, 0)));
    add("A.v:_online.._invalid", std::make_unique<BitVar>(false));
    group->hotLinkCallBack(hotLink);
  }

  std::unique_ptr<CkelPubGroup> group;
};

TEST_F(GroupLock, changeWaitsWhileTheRecordIsSent) {
  InTheMiddle middle;
  kel.onCall = [&middle](const std::string& /*call*/) { middle.standStill(); };
  EXPECT_TRUE(middle.secondWaits([this] { group->updatePublication(); }, [this] { change(); }));
  kel.onCall = nullptr;
}

TEST_F(GroupLock, sendingWaitsWhileAChangeIsTaken) {
  InTheMiddle middle;
  const KelDataSpy spy([&middle](const char* /*operation*/, const char* /*tag*/) { middle.standStill(); });
  EXPECT_TRUE(middle.secondWaits([this] { change(); }, [this] { group->updatePublication(); }));
}

TEST_F(GroupLock, isGivenBackBeforeTheGroupIsQueued) {
  // The update thread holds its lock and takes the group's: a change that is done with its record waits for
  // the former without the latter.
  gdelayedPubThread.addGroup(*group, 0);
  std::optional<WatchedThread> changer;
  const DrivenClock clock;
  const BareGroups other(1);
  gdelayedPubThread.addGroup(other[0], 0);
  kel.onCall = [&](const std::string& call) {
    if (call == "send 0") {
      changer.emplace([this] { change(); });
      EXPECT_TRUE(changer->comesToWaitForALock());
      group->updatePublication();  // would wait for ever if the change still held the group's lock
    }
  };
  for (int turn = 0; turn < 2; ++turn) {
    gdelayedPubThread.endTurn({0, true}, SEvent::timedOut);
  }
  kel.onCall = nullptr;
  ASSERT_TRUE(changer.has_value());
  changer->join();
}

class UpdateThreadLock : public Gateway {
 protected:
  void SetUp() override {
    start();
    groups.emplace(3);
    thread.emplace();
    kel.takeSent();
  }
  void TearDown() override {
    thread.reset();
    groups.reset();
  }
  /// Whether the action waits while the thread publishes.
  bool waits(const std::function<void()>& action) {
    thread->addGroup((*groups)[0], 0);
    InTheMiddle middle;
    bool first = true;
    kel.onCall = [&](const std::string& /*call*/) {
      if (std::exchange(first, false)) {
        middle.standStill();
      }
    };
    const auto turn = thread->beginTurn();
    const bool result = middle.secondWaits([&] { thread->endTurn(turn, SEvent::timedOut); }, action);
    kel.onCall = nullptr;
    return result;
  }

  std::optional<BareGroups> groups;
  std::optional<PublicationUpdateThread> thread;
};

TEST_F(UpdateThreadLock, everythingElseWaitsWhileAGroupIsPublished) {
  EXPECT_TRUE(waits([this] { EXPECT_TRUE(thread->addGroup((*groups)[1], 0)); }));
  EXPECT_TRUE(waits([this] { static_cast<void>(thread->beginTurn()); }));
  EXPECT_TRUE(waits([this] { thread->endTurn({0, true}, SEvent::timedOut); }));
  EXPECT_TRUE(waits([this] { thread->stopInOrder(); }));
}

}  // namespace
}  // namespace gateway_test
