// One subscription with its mappings: records become lists of writes.
#include <pvss/DpIdValueList.h>

#include <limits>
#include <memory>
#include <thread>

#include "CkelSubscription.h"
#include "Gateway.h"

namespace gateway_test {
namespace {

class Subscription : public Gateway {
 protected:
  void SetUp() override {
    plant.addElement("A.v", DPELEMENT_INT);
    plant.addElement("B.v", DPELEMENT_TEXT);
    for (const char* const name : {"A.v", "B.v"}) {
      plant.setAddress(name, 1, "KEL", reference("P", std::string(1, name[0])));
    }
    start();
    testing::internal::CaptureStdout();
    a = std::make_unique<CdpeWrapper>("A.v");
    b = std::make_unique<CdpeWrapper>("B.v");
    ASSERT_TRUE(a->revalidateDPE());
    ASSERT_TRUE(b->revalidateDPE());
    subscription = std::make_unique<CkelSubscription>("P");
    kel.takeCalls();
    testing::internal::GetCapturedStdout();
  }
  void TearDown() override {
    testing::internal::CaptureStdout();
    subscription.reset();
    a.reset();
    b.reset();
    testing::internal::GetCapturedStdout();
  }
  void mapA() {
    printedBy([this] { subscription->createMapping("a", reference("P", "a"), *a); });
  }
  void mapB() {
    printedBy([this] { subscription->createMapping("b", reference("P", "b"), *b); });
  }
  void connect() {
    subscription->connected(nullptr);
    written();
  }
  /// Delivers the record as the Kel library would; gives what was printed.
  std::string deliver(KelData& data, int quality = 1, std::int64_t timeNanoseconds = 5'000'000'000) {
    kel::testing::setQuality(data, quality);
    kel::testing::setTimestamp(data, timeNanoseconds);
    return printedBy([&] { std::thread([&] { subscription->handleMessage(nullptr, data); }).join(); });
  }
  std::string deliver(int a_, int quality = 1, std::int64_t timeNanoseconds = 5'000'000'000) {
    KelData data;
    data.insert(a_, "a");
    data.insert("x", "b");
    return deliver(data, quality, timeNanoseconds);
  }

  std::unique_ptr<CdpeWrapper> a;
  std::unique_ptr<CdpeWrapper> b;
  std::unique_ptr<CkelSubscription> subscription;
};

using Writes = std::vector<Lines>;

TEST_F(Subscription, linesAndCallsTellOfItsLife) {
  EXPECT_EQ(printedBy([&] {
              CkelSubscription other("Q");
              EXPECT_EQ(other.getPubName(), "Q");
              other.createMapping("x", reference("Q", "x"), *a);
              other.createMapping("y", reference("Q", "y"), *b);
            }),
            "Created subscription to Q\n"
            "Created client mapping between DPE A.v and publication Q\x1Ax\n"
            "Created client mapping between DPE B.v and publication Q\x1Ay\n"
            "Destroyed client mapping between DPE B.v and publication Q\x1Ay\n"
            "Destroyed client mapping between DPE A.v and publication Q\x1Ax\n"
            "Destroyed subscription to Q\n");
  EXPECT_EQ(kel.takeCalls(), (Lines{"subscribe Q", "release Q"}));
  EXPECT_EQ(a->getMapping(), nullptr);
}

TEST_F(Subscription, recordIsOneWriteValuesFirstThenInvalidFlags) {
  mapA();
  mapB();
  connect();
  EXPECT_EQ(deliver(7), "");
  plant.clearRecords();
  EXPECT_EQ(written(), (Writes{{"A.v:_original.._value = int 7", "A.v:_original.._userbit1 = bit 1",
                                "A.v:_original.._userbit2 = bit 1", "B.v:_original.._value = text x",
                                "B.v:_original.._userbit1 = bit 1", "B.v:_original.._userbit2 = bit 1",
                                "A.v:_original.._exp_inv = bit 0", "B.v:_original.._exp_inv = bit 0"}}));
  ASSERT_EQ(plant.writes().size(), 1U);
  EXPECT_EQ(plant.writes()[0].timeMs, 5000);
  EXPECT_EQ(plant.writes()[0].flags, 1U);
}

TEST_F(Subscription, qualityMinusOneWritesNothingAndClearsTheResendMark) {
  mapA();
  connect();
  subscription->markForGetLastPubValue();
  EXPECT_EQ(deliver(7, -1), "");
  EXPECT_FALSE(subscription->mustGetLastPubValue());
  EXPECT_EQ(written(), Writes{});
}

TEST_F(Subscription, everyRecordClearsTheResendMark) {
  mapA();
  subscription->markForGetLastPubValue();
  deliver(7);
  EXPECT_FALSE(subscription->mustGetLastPubValue());
}

TEST_F(Subscription, qualityTwoSetsTheFirstBitAndTheInvalidFlag) {
  mapA();
  connect();
  deliver(7, 2);
  EXPECT_EQ(written(), (Writes{{"A.v:_original.._value = int 7", "A.v:_original.._userbit1 = bit 1",
                                "A.v:_original.._userbit2 = bit 0", "A.v:_original.._exp_inv = bit 1"}}));
}

TEST_F(Subscription, qualityZeroClearsBothBits) {
  mapA();
  connect();
  deliver(7, 0);
  EXPECT_EQ(written(), (Writes{{"A.v:_original.._value = int 7", "A.v:_original.._userbit1 = bit 0",
                                "A.v:_original.._userbit2 = bit 0", "A.v:_original.._exp_inv = bit 1"}}));
}

TEST_F(Subscription, goodRecordWithoutConnectionIsInvalid) {
  mapA();
  deliver(7);
  EXPECT_EQ(written(), (Writes{{"A.v:_original.._value = int 7", "A.v:_original.._userbit1 = bit 1",
                                "A.v:_original.._userbit2 = bit 1", "A.v:_original.._exp_inv = bit 1"}}));
}

TEST_F(Subscription, qualityOutsideTheTableWritesTheValueButNoBits) {
  mapA();
  connect();
  for (const int quality : {3, -2, 100}) {
    EXPECT_EQ(deliver(7, quality),
              "ERROR: CkelDataMapping 98 Failed to convert either the value or quality from P\x1A"
              "a to A.v\n");
    EXPECT_EQ(written(), (Writes{{"A.v:_original.._value = int 7", "A.v:_original.._exp_inv = bit 1"}}));
  }
  deliver(8);
  EXPECT_EQ(written()[0].back(), "A.v:_original.._exp_inv = bit 0");
}

TEST_F(Subscription, missingTagWritesTheInvalidFlagAloneAndIsTriedAgain) {
  mapA();
  mapB();
  connect();
  KelData without;
  without.insert("x", "b");
  const std::string reports =
      "ERROR: CkelDataMapping 59 KEL address P\x1A"
      "a does not exist in publication\n"
      "ERROR: CkelDataMapping 73 Can not find converter (2)\n";
  EXPECT_EQ(deliver(without), reports);
  EXPECT_EQ(written(), (Writes{{"B.v:_original.._value = text x", "B.v:_original.._userbit1 = bit 1",
                                "B.v:_original.._userbit2 = bit 1", "A.v:_original.._exp_inv = bit 1",
                                "B.v:_original.._exp_inv = bit 0"}}));
  EXPECT_EQ(deliver(without), reports);
  written();
  EXPECT_EQ(deliver(9), "");
  EXPECT_EQ(written()[0].front(), "A.v:_original.._value = int 9");
}

TEST_F(Subscription, unsupportedTypeIsReportedWithItsReason) {
  mapA();
  connect();
  KelData data;
  data.insert(1.5, "a");
  EXPECT_EQ(deliver(data), "ERROR: CkelDataMapping 73 Can not find converter (1)\n");
  EXPECT_EQ(written(), (Writes{{"A.v:_original.._exp_inv = bit 1"}}));
}

TEST_F(Subscription, fieldThatChangesItsTypeIsReportedAndInvalid) {
  mapA();
  connect();
  deliver(7);
  written();
  KelData data;
  data.insert("seven", "a");
  EXPECT_EQ(deliver(data),
            "ERROR: CkelDataMapping 98 Failed to convert either the value or quality from P\x1A"
            "a to A.v\n");
  EXPECT_EQ(written(), (Writes{{"A.v:_original.._exp_inv = bit 1"}}));
}

TEST_F(Subscription, emptyTagTakesTheUnnamedValue) {
  subscription->createMapping("", "P", *a);
  connect();
  KelData data;
  data.insert(11, static_cast<const char*>(nullptr));
  EXPECT_EQ(deliver(data), "");
  EXPECT_EQ(written()[0].front(), "A.v:_original.._value = int 11");
}

TEST_F(Subscription, disconnectionInvalidatesEveryElementNow) {
  mapA();
  mapB();
  connect();
  deliver(7);
  written();
  const auto before = TimeVar().getValue().toMilliseconds();
  std::string reason = "gone";
  subscription->disconnected(nullptr, reason.data());
  EXPECT_FALSE(subscription->isConnectedToPublication());
  EXPECT_EQ(written(), (Writes{{"A.v:_original.._exp_inv = bit 1", "B.v:_original.._exp_inv = bit 1"}}));
  EXPECT_GE(plant.writes()[0].timeMs, before);
  EXPECT_LE(plant.writes()[0].timeMs, TimeVar().getValue().toMilliseconds());
}

TEST_F(Subscription, connectionValidatesWhatWasGood) {
  mapA();
  mapB();
  deliver(7);
  written();
  subscription->connected(nullptr);
  EXPECT_TRUE(subscription->isConnectedToPublication());
  EXPECT_EQ(written(), (Writes{{"A.v:_original.._exp_inv = bit 0", "B.v:_original.._exp_inv = bit 0"}}));
}

TEST_F(Subscription, withoutMappingItStillQueuesAnEmptyList) {
  subscription->connected(nullptr);
  EXPECT_EQ(written(), Writes{Lines{}});
  deliver(7);
  EXPECT_EQ(written(), Writes{Lines{}});
}

TEST_F(Subscription, timeIsTakenInMillisecondsAlsoBefore1970) {
  mapA();
  const auto stamped = [this](std::int64_t ns) {
    deliver(7, 1, ns);
    written();
    return plant.writes().at(0).timeMs;
  };
  EXPECT_EQ(stamped(1'234'567'891'999'999), 1'234'567'891);
  EXPECT_EQ(stamped(-1'500'000'000), -1500);
  EXPECT_EQ(stamped(-1'999'999), -1);  // truncated, not rounded down
  EXPECT_EQ(stamped(0), 0);
  EXPECT_EQ(stamped(std::numeric_limits<std::int64_t>::max()), 9'223'372'036'854);
}

TEST_F(Subscription, recordBeforeTheFirstMappingIsAskedForAgain) {
  EXPECT_FALSE(subscription->mustGetLastPubValue());
  deliver(7);
  EXPECT_FALSE(subscription->mustGetLastPubValue());
  mapA();
  EXPECT_TRUE(subscription->mustGetLastPubValue());
}

TEST_F(Subscription, recordThatAMappingTookIsNotAskedForAgain) {
  mapA();
  deliver(7);
  mapB();
  EXPECT_FALSE(subscription->mustGetLastPubValue());
}

TEST_F(Subscription, recordsThatOthersTakeDoNotMakeTheOneBeforeThemForgotten) {
  deliver(7);
  subscription->clearGetLastPubValueMark();
  deliver(8);
  mapA();
  EXPECT_TRUE(subscription->mustGetLastPubValue());
  subscription->clearGetLastPubValueMark();
  mapB();
  EXPECT_FALSE(subscription->mustGetLastPubValue());  // asked for once
}

TEST_F(Subscription, withoutRecordTheFirstMappingAsksForNothing) {
  connect();
  mapA();
  EXPECT_FALSE(subscription->mustGetLastPubValue());
}

TEST_F(Subscription, exceptionWhileARecordIsTakenIsReportedAndItsListIsNotSent) {
  mapA();
  mapB();
  connect();
  plant.removeElement("B.v");
  settle();
  EXPECT_FALSE(b->revalidateDPE());
  EXPECT_EQ(deliver(7), "ERROR: CkelSubscription 124 Execption thrown in handler for pub P\n");
  EXPECT_EQ(written(), Writes{});
  EXPECT_EQ(printedBy([&] { subscription->connected(nullptr); }),
            "ERROR: CkelSubscription 124 Execption thrown in handler for pub P\n");
  EXPECT_EQ(printedBy([&] { subscription->disconnected(nullptr, nullptr); }),
            "ERROR: CkelSubscription 124 Execption thrown in handler for pub P\n");
  EXPECT_EQ(written(), Writes{});
}

class ReportingSubscription : public CkelSubscription {
 public:
  using CkelSubscription::CkelSubscription;
  template <typename Exception>
  void reportThrown(const Exception& exception) const {
    try {
      throw exception;
    } catch (...) {
      reportCaughtException();
    }
  }
};

TEST_F(Subscription, exceptionsWithATextAreReportedWithIt) {
  const ReportingSubscription other("Q");
  EXPECT_EQ(printedBy([&] { other.reportThrown(std::runtime_error("boom")); }),
            "ERROR: CkelSubscription 112 Execption boom thrown in handler for pub\n");
  EXPECT_EQ(printedBy([&] { other.reportThrown(KelException("bad field")); }),
            "ERROR: CkelSubscription 112 Execption bad field thrown in handler for pub\n");
  EXPECT_EQ(printedBy([&] { other.reportThrown(CdepException()); }),
            "ERROR: CkelSubscription 124 Execption thrown in handler for pub Q\n");
}

TEST_F(Subscription, exceptionOfTheLibraryIsTakenSilently) {
  KelException exception("no such name");
  EXPECT_EQ(printedBy([&] { subscription->handleException(nullptr, exception); }), "");
}

TEST_F(Subscription, destroyedMappingIsGoneAndTheOthersKeepTheirOrder) {
  mapA();
  mapB();
  connect();
  EXPECT_EQ(subscription->getNumberOfMappings(), 2);
  EXPECT_EQ(printedBy([&] { subscription->destroyMapping(*a); }),
            "Destroyed client mapping between DPE A.v and publication P\x1A"
            "a\n");
  EXPECT_EQ(a->getMapping(), nullptr);
  EXPECT_EQ(subscription->getNumberOfMappings(), 1);
  EXPECT_EQ(printedBy([&] { subscription->destroyMapping(*a); }), "");
  deliver(7);
  EXPECT_EQ(written(), (Writes{{"B.v:_original.._value = text x", "B.v:_original.._userbit1 = bit 1",
                                "B.v:_original.._userbit2 = bit 1", "B.v:_original.._exp_inv = bit 0"}}));
}

TEST_F(Subscription, elementThatIsNotValidGetsNoMapping) {
  CdpeWrapper unvalidated("A.v");
  EXPECT_THROW(subscription->createMapping("a", reference("P", "a"), unvalidated), CdepException);
  EXPECT_EQ(subscription->getNumberOfMappings(), 0);
  EXPECT_EQ(unvalidated.getMapping(), nullptr);
}

TEST_F(Subscription, resendIsAskedOfTheLibrary) {
  subscription->requestLastPublishedValue();
  EXPECT_EQ(kel.takeCalls(), Lines{"resend P"});
}

// --- the mapping itself

TEST_F(Subscription, mappingSeesWhatChangedInTheConfiguration) {
  subscription->createMapping("A", reference("P", "A"), *a);
  CkelDataMapping& mapping = *a->getMapping();
  EXPECT_EQ(&mapping.getMappedDpe(), a.get());
  EXPECT_EQ(&mapping.getSubscription(), subscription.get());
  EXPECT_FALSE(mapping.dpeSubscriptionHasChanged());

  plant.setAddress("A.v", 1, "KEL", reference("P", "other"));
  settle();
  EXPECT_TRUE(mapping.dpeSubscriptionHasChanged());

  plant.setAddress("A.v", 1, "KEL", reference("P", "A"));
  settle();
  EXPECT_FALSE(mapping.dpeSubscriptionHasChanged());

  plant.addElement("A.v", DPELEMENT_FLOAT);
  plant.setAddress("A.v", 1, "KEL", reference("P", "A"));
  settle();
  EXPECT_TRUE(mapping.dpeSubscriptionHasChanged());

  plant.removeElement("A.v");
  settle();
  EXPECT_TRUE(mapping.dpeSubscriptionHasChanged());
}

TEST_F(Subscription, mappingOfAnElementThatIsNotValidAddsNoValueAndRefusesTheFlag) {
  mapA();
  CkelDataMapping& mapping = *a->getMapping();
  plant.removeElement("A.v");
  settle();
  ASSERT_FALSE(a->revalidateDPE());
  KelData data;
  data.insert(1, "a");
  kel::testing::setQuality(data, 1);
  DpIdValueList list;
  mapping.addValueToList(data, list);
  EXPECT_THROW(mapping.addValueValidityStatusToList(list), CdepException);
  EXPECT_EQ(list.getNumberOfItems(), 0U);
}

TEST_F(Subscription, heldStateIsShownAtTheEndOfHoldingAndFromThenOnAtOnce) {
  mapA();
  CkelDataMapping& mapping = *a->getMapping();
  const auto shown = [&mapping] {
    DpIdValueList list;
    try {
      mapping.addValueValidityStatusToList(list);
    } catch (const CdepException&) {
      return false;
    }
    return true;
  };
  a->holdShownState();
  plant.removeElement("A.v");
  settle();
  EXPECT_FALSE(a->revalidateDPE());
  EXPECT_TRUE(shown());
  a->showState();
  EXPECT_FALSE(shown());
  plant.addElement("A.v", DPELEMENT_INT);
  plant.setAddress("A.v", 1, "KEL", reference("P", "A"));
  settle();
  EXPECT_TRUE(a->revalidateDPE());
  EXPECT_TRUE(shown());
}

TEST_F(Subscription, mappingIsInvalidUntilEverythingIsGood) {
  mapA();
  CkelDataMapping& mapping = *a->getMapping();
  EXPECT_TRUE(mapping.shouldDPEBeSetToInvalid());  // no converter
  deliver(7);
  EXPECT_TRUE(mapping.shouldDPEBeSetToInvalid());  // not connected
  connect();
  EXPECT_FALSE(mapping.shouldDPEBeSetToInvalid());
  deliver(7, 2);
  EXPECT_TRUE(mapping.shouldDPEBeSetToInvalid());  // not good
  deliver(7);
  EXPECT_FALSE(mapping.shouldDPEBeSetToInvalid());
  deliver(7, 5);
  EXPECT_TRUE(mapping.shouldDPEBeSetToInvalid());  // not convertible
}

/// Runs the action on another thread whenever the manager dispatches, as a Kel thread would come in between.
class DuringDispatch final : public pvss::testing::ManagerObserver {
 public:
  explicit DuringDispatch(std::function<void()> action) : action_(std::move(action)) {}
  void onDispatch(long /*sec*/, long /*usec*/) override {
    ++times;
    std::thread(action_).join();
  }
  int times = 0;

 private:
  std::function<void()> action_;
};

TEST_F(Subscription, recordDuringARevalidationIsTakenWhole) {
  subscription->createMapping("A", reference("P", "A"), *a);
  mapB();
  connect();
  DuringDispatch duringDispatch([this] {
    KelData data;
    data.insert(7, "A");
    data.insert("x", "b");
    kel::testing::setQuality(data, 1);
    kel::testing::setTimestamp(data, 5'000'000'000);
    subscription->handleMessage(nullptr, data);
  });
  plant.observe(&duringDispatch);
  EXPECT_EQ(printedBy([&] { EXPECT_FALSE(a->getMapping()->dpeSubscriptionHasChanged()); }), "");
  plant.observe(nullptr);
  ASSERT_GT(duringDispatch.times, 0);
  const Writes writes = written();
  ASSERT_EQ(writes.size(), static_cast<std::size_t>(duringDispatch.times));
  for (const Lines& write : writes) {
    EXPECT_EQ(write, (Lines{"A.v:_original.._value = int 7", "A.v:_original.._userbit1 = bit 1",
                            "A.v:_original.._userbit2 = bit 1", "B.v:_original.._value = text x",
                            "B.v:_original.._userbit1 = bit 1", "B.v:_original.._userbit2 = bit 1",
                            "A.v:_original.._exp_inv = bit 0", "B.v:_original.._exp_inv = bit 0"}));
  }
}

}  // namespace
}  // namespace gateway_test
