// The wrapper base, the value fetch and the two mappings' base; the publisher's wrapper.
#include <pvss/BitVar.h>
#include <pvss/DpMsgAnswer.h>
#include <pvss/IntegerVar.h>

#include <array>
#include <stdexcept>
#include <utility>
#include <vector>

#include "Gateway.h"
#include "mapping.h"
#include "pubDpeWrapper.h"

namespace gateway_test {
namespace {

using DpeWrapper = Gateway;
using PubDpeWrapper = Gateway;

class PlainWrapper : public CsimpleDPEWrapper {
 public:
  explicit PlainWrapper(const CharString& dpeName) : CsimpleDPEWrapper(dpeName) {}
  [[nodiscard]] const CharString getDPESourceName() const override { return "original"; }
  [[nodiscard]] const CharString getValidAttribName() const override { return "exp_inv"; }
  [[nodiscard]] const DpIdentifier& valueId() const { return dpId_value; }
  [[nodiscard]] const DpIdentifier& invalidId() const { return dpId_invalid; }
};

class PublisherWrapper : public CpubDpeWrapper {
 public:
  using CpubDpeWrapper::CpubDpeWrapper;
  [[nodiscard]] const DpIdentifier& timeId() const { return dpId_timeStamp; }
};

/// The names that the manager is asked for.
class AskedNames final : public pvss::testing::ManagerObserver {
 public:
  void onGetId(const char* name, bool /*found*/) override { names.emplace_back(name); }
  Lines names;
};

std::string nameOf(const DpIdentifier& id) {
  CharString name;
  Manager::getLIName(id, name, 1);
  return name.str();
}

TEST_F(DpeWrapper, linesTellOfItsLife) {
  EXPECT_EQ(printedBy([] { const PlainWrapper wrapper("A.v"); }),
            "Created DPEWrapper for DPE A.v\nDestroyed DPEWrapper for DPE A.v\n");
}

TEST_F(DpeWrapper, isNotValidBeforeItWasValidated) {
  const PlainWrapper wrapper("A.v");
  EXPECT_FALSE(wrapper.isValid());
  EXPECT_FALSE(wrapper.isMarked());
  EXPECT_EQ(wrapper.getName(), "A.v");
  EXPECT_THROW(static_cast<void>(wrapper.getKELValueID()), CdepException);
  EXPECT_THROW(static_cast<void>(wrapper.getKELinvalidBit()), CdepException);
  EXPECT_THROW(static_cast<void>(wrapper.getTypeOfValueID()), CdepException);
}

TEST_F(DpeWrapper, resolvesValueInvalidFlagAndType) {
  plant.addElement("A.v", DPELEMENT_FLOAT);
  start();
  PlainWrapper wrapper("A.v");
  EXPECT_EQ(printedBy([&wrapper] { EXPECT_TRUE(wrapper.revalidateDPE()); }), "");
  EXPECT_TRUE(wrapper.isValid());
  EXPECT_EQ(nameOf(wrapper.getKELValueID()), "System1:A.v:_original.._value");
  EXPECT_EQ(nameOf(wrapper.getKELinvalidBit()), "System1:A.v:_original.._exp_inv");
  EXPECT_EQ(wrapper.getTypeOfValueID(), DPELEMENT_FLOAT);
}

TEST_F(DpeWrapper, elementThatDoesNotExistIsNotValid) {
  start();
  PlainWrapper wrapper("No.such");
  EXPECT_EQ(printedBy([&wrapper] { EXPECT_FALSE(wrapper.revalidateDPE()); }), "");
  EXPECT_FALSE(wrapper.isValid());
  EXPECT_TRUE(wrapper.valueId().isNull());
}

TEST_F(DpeWrapper, withoutInvalidAttributeOnlyTheValueIsResolved) {
  plant.addElement("A.v", DPELEMENT_INT);
  plant.switchOff("A.v:_original.._exp_inv");
  start();
  PlainWrapper wrapper("A.v");
  EXPECT_FALSE(wrapper.revalidateDPE());
  EXPECT_FALSE(wrapper.isValid());
  EXPECT_EQ(nameOf(wrapper.valueId()), "System1:A.v:_original.._value");
  EXPECT_TRUE(wrapper.invalidId().isNull());
}

TEST_F(DpeWrapper, lookUpStopsAtTheFirstNameThatFails) {
  plant.addElement("A.v", DPELEMENT_INT);
  start();
  const auto namesAsked = [this](const char* missing) {
    plant.switchOff(missing);
    settle();
    AskedNames asked;
    plant.observe(&asked);
    PlainWrapper wrapper("A.v");
    EXPECT_FALSE(wrapper.revalidateDPE());
    plant.observe(nullptr);
    plant.switchOn(missing);
    settle();
    return asked.names;
  };
  EXPECT_EQ(namesAsked("A.v:_original.._value"), Lines{"A.v:_original.._value"});
  EXPECT_EQ(namesAsked("A.v:_original.._exp_inv"),
            (Lines{"A.v:_original.._value", "A.v:_original.._exp_inv"}));
}

TEST_F(DpeWrapper, failedRevalidationKeepsWhatWasResolvedBefore) {
  plant.addElement("A.v", DPELEMENT_INT);
  start();
  PlainWrapper wrapper("A.v");
  ASSERT_TRUE(wrapper.revalidateDPE());
  plant.removeElement("A.v");
  settle();
  EXPECT_FALSE(wrapper.revalidateDPE());
  EXPECT_FALSE(wrapper.isValid());
  EXPECT_FALSE(wrapper.valueId().isNull());
  EXPECT_THROW(static_cast<void>(wrapper.getKELValueID()), CdepException);
}

TEST_F(DpeWrapper, equalNamesAreEqualWhateverTheState) {
  plant.addElement("A.v", DPELEMENT_INT);
  start();
  PlainWrapper valid("A.v");
  ASSERT_TRUE(valid.revalidateDPE());
  const PlainWrapper unvalidated("A.v");
  const PlainWrapper other("A.w");
  EXPECT_TRUE(valid == unvalidated);
  EXPECT_FALSE(valid == other);
}

TEST_F(DpeWrapper, marksComeAndGo) {
  PlainWrapper wrapper("A.v");
  wrapper.mark();
  EXPECT_TRUE(wrapper.isMarked());
  wrapper.clearMark();
  EXPECT_FALSE(wrapper.isMarked());
}

TEST_F(DpeWrapper, validateMakesItValid) {
  PlainWrapper wrapper("A.v");
  wrapper.validate();
  EXPECT_TRUE(wrapper.isValid());
  EXPECT_NO_THROW(static_cast<void>(wrapper.getKELValueID()));
}

TEST_F(DpeWrapper, typeOfAVanishedElementIsStillAnAnswer) {
  start();
  const PlainWrapper wrapper("No.such");
  DpElementType type = DPELEMENT_INT;
  EXPECT_TRUE(wrapper.retrieveDPEsValueType(type));
}

TEST_F(DpeWrapper, listOfElementsStopsAtTheFirstUnknownName) {
  plant.addElement("A.v", DPELEMENT_INT);
  plant.addElement("C.v", DPELEMENT_INT);
  start();
  DpIdentList list;
  const std::array<CharString, 3> names{"A.v", "B.v", "C.v"};
  EXPECT_EQ(printedBy([&] { EXPECT_EQ(CsimpleDPEWrapper::makeListOfDPEs(list, names.data(), 3), 0); }),
            "ERROR: simpleDPEWrapper 82 Failed to get dpID for B.v\n");
  ASSERT_EQ(list.getNumberOfItems(), 1U);
  EXPECT_EQ(nameOf(list[0]), "System1:A.v:_online.._value");
}

TEST_F(DpeWrapper, listOfNoElementsGivesItsPresentSize) {
  plant.addElement("A.v", DPELEMENT_INT);
  plant.addElement("B.v", DPELEMENT_INT);
  start();
  DpIdentList list;
  const std::array<CharString, 2> names{"A.v", "B.v"};
  EXPECT_EQ(CsimpleDPEWrapper::makeListOfDPEs(list, names.data(), 2), 2);
  EXPECT_EQ(CsimpleDPEWrapper::makeListOfDPEs(list, names.data(), 0), 2);
  EXPECT_EQ(CsimpleDPEWrapper::makeListOfDPEs(list, names.data(), -1), 2);
  EXPECT_EQ(CsimpleDPEWrapper::makeListOfDPEs(list, names.data(), 1), 3);
}

TEST_F(DpeWrapper, fetchAsksOnceAndGetsEveryAnswer) {
  plant.addElement("A.v", DPELEMENT_INT);
  plant.addElement("B.v", DPELEMENT_TEXT);
  start();
  plant.write("A.v", IntegerVar(5));
  plant.write("B.v", TextVar("five"));
  settle();
  DpIdentList list;
  const std::array<CharString, 2> names{"B.v:_original.._value", "A.v:_original.._value"};
  ASSERT_EQ(CsimpleDPEWrapper::makeListOfDPEs(list, names.data(), 2), 2);
  plant.clearRecords();
  CdpGetCallBackHandler handler;
  CsimpleDPEWrapper::getValuesOfDPEs(handler, list);
  EXPECT_EQ(handler.getNumOfResponses(), 2);
  EXPECT_EQ(describe(handler.getListOfResponses()),
            (Lines{"B.v:_original.._value = text five", "A.v:_original.._value = int 5"}));
  ASSERT_EQ(plant.gets().size(), 1U);
  EXPECT_EQ(plant.gets()[0].answer, &handler);
  EXPECT_EQ(plant.gets()[0].flags, 0U);
}

/// Answers a read itself, one value at some turn and the other later, so that whoever waits has to wait.
class LateAnswers final : public pvss::testing::ManagerObserver {
 public:
  void onDpGet(const DpIdentList& ids, WaitForAnswer* answer, unsigned int /*flags*/) override {
    ids_ = ids;
    answer_ = answer;
  }
  void onDispatch(long sec, long usec) override {
    waits.emplace_back(sec, usec);
    if (waits.size() == 3) {
      deliver(1);
    } else if (waits.size() == 7) {
      deliver(0);
    } else if (waits.size() > 50) {
      throw std::runtime_error("waits for more than was asked for");
    }
  }
  std::vector<std::pair<long, long>> waits;

 private:
  void deliver(unsigned int index) {
    DpMsgAnswer message;
    message.addGroup().append(ids_[index], new IntegerVar(static_cast<int>(index)));
    answer_->callBack(message);
  }
  DpIdentList ids_;
  WaitForAnswer* answer_ = nullptr;
};

TEST_F(DpeWrapper, fetchGoesOnWaitingUntilTheLastAnswerHasCome) {
  plant.addElement("A.v", DPELEMENT_INT);
  plant.addElement("B.v", DPELEMENT_INT);
  start();
  DpIdentList list;
  const std::array<CharString, 2> names{"A.v:_original.._value", "B.v:_original.._value"};
  ASSERT_EQ(CsimpleDPEWrapper::makeListOfDPEs(list, names.data(), 2), 2);
  plant.holdSnapshots(true);  // the plant's own answers do not come
  LateAnswers late;
  plant.observe(&late);
  CdpGetCallBackHandler handler;
  CsimpleDPEWrapper::getValuesOfDPEs(handler, list);
  plant.observe(nullptr);
  EXPECT_EQ(late.waits, (std::vector<std::pair<long, long>>(7, {0, 200})));
  EXPECT_EQ(describe(handler.getListOfResponses()),
            (Lines{"B.v:_original.._value = int 1", "A.v:_original.._value = int 0"}));
}

TEST_F(DpeWrapper, fetchDispatchesForAShortTimeEach) {
  class Waits final : public pvss::testing::ManagerObserver {
   public:
    void onDispatch(long sec, long usec) override {
      times.push_back(std::to_string(sec) + " " + std::to_string(usec));
    }
    Lines times;
  };
  plant.addElement("A.v", DPELEMENT_INT);
  start();
  DpIdentList list;
  const std::array<CharString, 1> names{"A.v:_original.._value"};
  ASSERT_EQ(CsimpleDPEWrapper::makeListOfDPEs(list, names.data(), 1), 1);
  Waits waits;
  plant.observe(&waits);
  CdpGetCallBackHandler handler;
  CsimpleDPEWrapper::getValuesOfDPEs(handler, list);
  plant.observe(nullptr);
  ASSERT_FALSE(waits.times.empty());
  EXPECT_EQ(waits.times, Lines(waits.times.size(), "0 200"));
}

TEST_F(DpeWrapper, fetchOfNothingReturnsAtOnce) {
  start();
  CdpGetCallBackHandler handler;
  CsimpleDPEWrapper::getValuesOfDPEs(handler, DpIdentList());
  EXPECT_EQ(handler.getNumOfResponses(), 0);
}

TEST_F(DpeWrapper, itemWithoutValueIsReportedAndNotCounted) {
  DpMsgAnswer answer;
  AnswerGroup& first = answer.addGroup();
  first.append(DpIdentifier(1, 1), new IntegerVar(1));
  first.append(DpIdentifier(2, 1), nullptr);
  answer.addGroup().append(DpIdentifier(3, 1), new IntegerVar(3));
  CdpGetCallBackHandler handler;
  EXPECT_EQ(printedBy([&] { handler.callBack(answer); }), "ERROR: AnswerCallBackHandler 17 var is null\n");
  EXPECT_EQ(handler.getNumOfResponses(), 2);
  const DpIdValueList& list = handler.getListOfResponses();
  ASSERT_EQ(list.getNumberOfItems(), 2U);
  EXPECT_EQ(list[0].getDpIdentifier(), DpIdentifier(1, 1));
  EXPECT_EQ(list[1].getDpIdentifier(), DpIdentifier(3, 1));
  EXPECT_EQ(describe(list[1].getValuePtr()), "int 3");
}

TEST_F(DpeWrapper, mappingKnowsTagAndElement) {
  PlainWrapper wrapper("A.v");
  const Cmapping mapping(wrapper, "temperature");
  EXPECT_STREQ(mapping.getTagName(), "temperature");
  EXPECT_STREQ(mapping.getDPEName(), "A.v");
}

// --- the publisher's wrapper

TEST_F(PubDpeWrapper, resolvesOnlineValueInvalidFlagAndTime) {
  plant.addElement("A.v", DPELEMENT_UINT);
  start();
  CpubDpeWrapper wrapper("A.v");
  EXPECT_TRUE(wrapper.revalidateDPE());
  EXPECT_EQ(nameOf(wrapper.getKELValueID()), "System1:A.v:_online.._value");
  EXPECT_EQ(nameOf(wrapper.getKELinvalidBit()), "System1:A.v:_online.._invalid");
  EXPECT_EQ(nameOf(wrapper.getKELTimeStampID()), "System1:A.v:_online.._stime");
  EXPECT_EQ(wrapper.getTypeOfValueID(), DPELEMENT_UINT);
}

TEST_F(PubDpeWrapper, withoutOnlineConfigNothingIsResolved) {
  plant.addElement("A.v", DPELEMENT_INT);
  for (const char* attribute : {"_value", "_invalid", "_stime"}) {
    plant.switchOff(std::string("A.v:_online..") + attribute);
  }
  start();
  PublisherWrapper wrapper("A.v");
  EXPECT_EQ(printedBy([&wrapper] { EXPECT_FALSE(wrapper.revalidateDPE()); }), "");
  EXPECT_FALSE(wrapper.isValid());
  EXPECT_TRUE(wrapper.timeId().isNull());
  EXPECT_THROW(static_cast<void>(wrapper.getKELTimeStampID()), CdepException);
}

TEST_F(PubDpeWrapper, timeIsNotAskedForWithoutTheOthers) {
  plant.addElement("A.v", DPELEMENT_INT);
  plant.switchOff("A.v:_online.._invalid");
  start();
  AskedNames asked;
  plant.observe(&asked);
  CpubDpeWrapper wrapper("A.v");
  EXPECT_FALSE(wrapper.revalidateDPE());
  plant.observe(nullptr);
  EXPECT_EQ(asked.names, (Lines{"A.v:_online.._value", "A.v:_online.._invalid"}));
}

TEST_F(PubDpeWrapper, withoutSourceTimeItIsNotValid) {
  plant.addElement("A.v", DPELEMENT_INT);
  plant.switchOff("A.v:_online.._stime");
  start();
  PublisherWrapper wrapper("A.v");
  EXPECT_FALSE(wrapper.revalidateDPE());
  EXPECT_FALSE(wrapper.isValid());
  EXPECT_TRUE(wrapper.timeId().isNull());
}

TEST_F(PubDpeWrapper, keepsTheInvalidFlag) {
  plant.addElement("A.v", DPELEMENT_INT);
  start();
  CpubDpeWrapper wrapper("A.v");
  EXPECT_FALSE(wrapper.isInvalidAttributeSet());
  const BitVar set(PVSS_TRUE);
  wrapper.storeInvalidAttribute(&set);
  EXPECT_TRUE(wrapper.isInvalidAttributeSet());
  EXPECT_TRUE(wrapper.revalidateDPE());
  EXPECT_TRUE(wrapper.isInvalidAttributeSet());
  const BitVar cleared(PVSS_FALSE);
  wrapper.storeInvalidAttribute(&cleared);
  EXPECT_FALSE(wrapper.isInvalidAttributeSet());
}

TEST_F(PubDpeWrapper, missingFlagLeavesTheKnownOne) {
  CpubDpeWrapper wrapper("A.v");
  const BitVar set(PVSS_TRUE);
  wrapper.storeInvalidAttribute(&set);
  wrapper.storeInvalidAttribute(nullptr);
  EXPECT_TRUE(wrapper.isInvalidAttributeSet());
}

}  // namespace
}  // namespace gateway_test
