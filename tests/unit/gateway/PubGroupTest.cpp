// Publication groups: hot-links become records, sent at once.
#include <gmock/gmock.h>
#include <pvss/BitVar.h>
#include <pvss/CharVar.h>
#include <pvss/IntegerVar.h>
#include <pvss/TextVar.h>
#include <pvss/TimeVar.h>

#include <cstdio>
#include <memory>

#include "Gateway.h"
#include "kelPubGroup.h"

#if defined(__SANITIZE_ADDRESS__) || defined(KELGW_LEAK_SANITIZER)
#include <sanitizer/lsan_interface.h>
#endif

namespace gateway_test {
namespace {

struct Tuples {
  Tuples(std::initializer_list<std::pair<const char*, const char*>> pairs) {
    for (const auto& [dpe, tag] : pairs) {
      owned.push_back(std::make_unique<CdpeMappingTuple>(CdpeMappingTuple{dpe, tag}));
      list.push_back(owned.back().get());
    }
  }
  std::vector<std::unique_ptr<CdpeMappingTuple>> owned;
  CvectorOfdpeMappingTuples list;
};

class PubGroup : public Gateway {
 protected:
  void SetUp() override {
    plant.addElement("A.v", DPELEMENT_INT);
    plant.addElement("B.v", DPELEMENT_TEXT);
    plant.addElement("T.v", DPELEMENT_TIME);
    start();
  }
  void TearDown() override {
    printedBy([this] {
      gdelayedPubThread.stopInOrder();
      group.reset();
    });
  }
  std::string make(const Tuples& tuples, int bufferTime_ms = 0) {
    return printedBy([&] { group = std::make_unique<CkelPubGroup>("Out", bufferTime_ms, tuples.list); });
  }
  void makePair() {
    make({{"A.v", "a"}, {"B.v", "b"}});
    settle();
    kel.takeSent();
  }
  static DpIdentifier idOf(const std::string& name) {
    DpIdentifier id;
    EXPECT_TRUE(Manager::getId(name.c_str(), id)) << name;
    return id;
  }
  /// Appends the triple that the platform delivers for an element.
  static void addTriple(DpHLGroup& hotLink, const std::string& dpe, Variable* value, std::int64_t timeMs,
                        bool invalid) {
    hotLink.append(idOf(dpe + ":_online.._value"), value);
    hotLink.append(idOf(dpe + ":_online.._stime"), new TimeVar(PVSSTime::fromMilliseconds(timeMs)));
    hotLink.append(idOf(dpe + ":_online.._invalid"), new BitVar(invalid));
  }
  std::string deliver(Variable* a, std::int64_t timeA, bool invalidA, Variable* b, std::int64_t timeB,
                      bool invalidB) {
    DpHLGroup hotLink;
    addTriple(hotLink, "A.v", a, timeA, invalidA);
    addTriple(hotLink, "B.v", b, timeB, invalidB);
    return printedBy([&] { group->hotLinkCallBack(hotLink); });
  }
  /// What was sent since the last look, as text.
  Lines sent() {
    Lines lines;
    for (const FakeKelFactory::Sent& sent : kel.takeSent()) {
      if (!sent.good) {
        lines.push_back(sent.publication + " bad: " + sent.reason);
        continue;
      }
      lines.push_back(sent.publication + " " + std::to_string(sent.data.extractInt("a")) + " " +
                      sent.data.extractCString("b") + " @" + std::to_string(sent.timeNanoseconds));
    }
    return lines;
  }

  std::unique_ptr<CkelPubGroup> group;
};

TEST_F(PubGroup, isBuiltAndConnectedAsAWhole) {
  plant.clearRecords();
  EXPECT_EQ(make({{"A.v", "a"}, {"B.v", "b"}}),
            "Created DPEWrapper for DPE A.v\n"
            "Created publisher mapping between DPE A.v tag a\n"
            "Created DPEWrapper for DPE B.v\n"
            "Created publisher mapping between DPE B.v tag b\n"
            "Created Publication group Out\n");
  EXPECT_EQ(group->getPubName(), "Out");
  EXPECT_EQ(kel.takeCalls(), Lines{"publish Out"});
  ASSERT_EQ(plant.connects().size(), 1U);
  EXPECT_EQ(plant.connects()[0].answer, group.get());
  EXPECT_EQ(plant.connects()[0].flags, 0U);
  EXPECT_EQ(
      plant.connects()[0].names,
      (Lines{"System1:A.v:_online.._value", "System1:A.v:_online.._stime", "System1:A.v:_online.._invalid",
             "System1:B.v:_online.._value", "System1:B.v:_online.._stime", "System1:B.v:_online.._invalid"}));
}

TEST_F(PubGroup, bufferedGroupConnectsEachElementByItself) {
  plant.clearRecords();
  make({{"B.v", "b"}, {"A.v", "a"}}, 100);
  ASSERT_EQ(plant.connects().size(), 2U);
  EXPECT_EQ(plant.connects()[0].names, (Lines{"System1:B.v:_online.._value", "System1:B.v:_online.._stime",
                                              "System1:B.v:_online.._invalid"}));
  EXPECT_EQ(plant.connects()[1].names, (Lines{"System1:A.v:_online.._value", "System1:A.v:_online.._stime",
                                              "System1:A.v:_online.._invalid"}));
}

TEST_F(PubGroup, startsTheUpdateThreadWhateverItsBufferTime) {
  EXPECT_FALSE(gdelayedPubThread.isRunning());
  make({{"A.v", "a"}});
  EXPECT_TRUE(gdelayedPubThread.isRunning());
}

TEST_F(PubGroup, destructionClosesThePublicationAndTellsSo) {
  make({{"A.v", "a"}, {"B.v", "b"}});
  kel.takeCalls();
  // The mappings go in the order of their identifiers.
  EXPECT_EQ(printedBy([this] { group.reset(); }),
            "Destroying Publication group Out\n"
            "Destroying publisher mapping between DPE A.v tag a\n"
            "Destroyed DPEWrapper for DPE A.v\n"
            "Destroying publisher mapping between DPE B.v tag b\n"
            "Destroyed DPEWrapper for DPE B.v\n");
  EXPECT_EQ(kel.takeCalls(), Lines{"close Out"});
}

TEST_F(PubGroup, mappingsCanBeDeletedWhileThePublicationLives) {
  make({{"A.v", "a"}});
  EXPECT_EQ(printedBy([this] { group->deleteMappings(); }),
            "Destroying Publication group Out\n"
            "Destroying publisher mapping between DPE A.v tag a\n"
            "Destroyed DPEWrapper for DPE A.v\n");
}

TEST_F(PubGroup, unknownElementUndoesWhatWasBuilt) {
  plant.clearRecords();
  EXPECT_EQ(printedBy([] {
              const Tuples tuples{{"A.v", "a"}, {"No.such", "n"}, {"B.v", "b"}};
              EXPECT_THROW(CkelPubGroup("Out", 0, tuples.list), CPubGroupException);
            }),
            "Created DPEWrapper for DPE A.v\n"
            "Created publisher mapping between DPE A.v tag a\n"
            "Created DPEWrapper for DPE No.such\n"
            "ERROR: kelPubGroup 237 Invalid DPE No.such can not be published through Out. This pub is now "
            "invalid\n"
            "Destroyed DPEWrapper for DPE No.such\n"
            "Destroying pub group mappings before publication was created\n"
            "Destroying publisher mapping between DPE A.v tag a\n"
            "Destroyed DPEWrapper for DPE A.v\n");
  EXPECT_TRUE(plant.connects().empty());
  EXPECT_EQ(kel.takeCalls(), Lines{});
}

TEST_F(PubGroup, typeThatNothingConvertsUndoesWhatWasBuiltSilently) {
  plant.clearRecords();
  EXPECT_EQ(printedBy([] {
              const Tuples tuples{{"A.v", "a"}, {"T.v", "t"}};
              EXPECT_THROW(CkelPubGroup("Out", 0, tuples.list), CPubGroupException);
            }),
            "Created DPEWrapper for DPE A.v\n"
            "Created publisher mapping between DPE A.v tag a\n"
            "Created DPEWrapper for DPE T.v\n"
            "Destroyed DPEWrapper for DPE T.v\n"
            "Destroying pub group mappings before publication was created\n"
            "Destroying publisher mapping between DPE A.v tag a\n"
            "Destroyed DPEWrapper for DPE A.v\n");
  EXPECT_TRUE(plant.connects().empty());
}

TEST_F(PubGroup, answerToTheConnectDoesNothing) {
  make({{"A.v", "a"}});
  DpMsgAnswer answer;
  answer.addGroup().append(idOf("A.v:_online.._value"), new IntegerVar(1));
  group->callBack(answer);
  EXPECT_EQ(kel.takeSent().size(), 0U);
}

TEST_F(PubGroup, elementsNeverWrittenAreInvalidAndThePublicationBad) {
  make({{"A.v", "a"}, {"B.v", "b"}});
  settle();
  EXPECT_EQ(sent(), Lines{"Out bad: 2 PVSS dpe's set to invalid"});
}

TEST_F(PubGroup, everyChangePublishesAtOnceWithTheNewestTime) {
  makePair();
  EXPECT_EQ(deliver(new IntegerVar(1), 1000, false, new TextVar("x"), 3000, false), "");
  EXPECT_EQ(deliver(new IntegerVar(2), 4000, false, new TextVar("x"), 3000, false), "");
  EXPECT_EQ(sent(), (Lines{"Out 1 x @3000000000", "Out 2 x @4000000000"}));
}

TEST_F(PubGroup, olderSourceTimeLeavesTheTimeAlone) {
  makePair();
  deliver(new IntegerVar(1), 5000, false, new TextVar("x"), 4999, false);
  deliver(new IntegerVar(2), 4000, false, new TextVar("y"), 5000, false);
  EXPECT_EQ(sent(), (Lines{"Out 1 x @5000000000", "Out 2 y @5000000000"}));
}

TEST_F(PubGroup, firstPublishWithoutEveryFieldIsBad) {
  makePair();
  // A value that is missing cannot be converted, so its field stays missing.
  const std::string mappingReport =
      "ERROR: kelPubGroup 370 Mapping from DPE System1:B.v:_online.._value to tag b has become invalid -- "
      "SHOULD RESTART API MANAGER\n";
  EXPECT_EQ(deliver(new IntegerVar(1), 1000, false, nullptr, 1000, false), mappingReport);
  EXPECT_EQ(sent(),
            Lines{"Out bad: PVSS has not supplied values for all fields making the publication (1 missing)"});
  EXPECT_EQ(deliver(nullptr, 1000, false, nullptr, 1000, false),
            "ERROR: kelPubGroup 370 Mapping from DPE System1:A.v:_online.._value to tag a has become invalid "
            "-- SHOULD RESTART API MANAGER\n" +
                mappingReport);
  EXPECT_EQ(sent(),
            Lines{"Out bad: PVSS has not supplied values for all fields making the publication (1 missing)"});
  EXPECT_EQ(deliver(new IntegerVar(1), 1000, false, new TextVar("x"), 1000, false), "");
  EXPECT_EQ(sent(), Lines{"Out 1 x @1000000000"});
}

TEST_F(PubGroup, conversionThatFailsTakesNeitherValueNorTime) {
  makePair();
  deliver(new IntegerVar(1), 1000, false, new TextVar("x"), 1000, false);
  deliver(new IntegerVar(2), 2000, false, nullptr, 9000, false);
  EXPECT_EQ(sent(), (Lines{"Out 1 x @1000000000", "Out 2 x @2000000000"}));
}

TEST_F(PubGroup, invalidElementGivesNeitherValueNorTimeAndMakesThePublicationBad) {
  makePair();
  deliver(new IntegerVar(1), 1000, false, new TextVar("x"), 1000, false);
  deliver(new IntegerVar(2), 9000, true, new TextVar("y"), 2000, false);
  deliver(new IntegerVar(3), 9000, true, new TextVar("z"), 3000, true);
  deliver(new IntegerVar(4), 9000, true, new TextVar("w"), 4000, false);
  deliver(new IntegerVar(5), 4500, false, new TextVar("w"), 4000, false);
  EXPECT_EQ(sent(), (Lines{"Out 1 x @1000000000", "Out bad: 1 PVSS dpe's set to invalid",
                           "Out bad: 2 PVSS dpe's set to invalid", "Out bad: 1 PVSS dpe's set to invalid",
                           "Out 5 w @4500000000"}));
}

TEST_F(PubGroup, valueWithoutTimeIsTakenAndLeavesTheTimeAlone) {
  makePair();
  deliver(new IntegerVar(1), 1000, false, new TextVar("x"), 1000, false);
  DpHLGroup hotLink;
  hotLink.append(idOf("A.v:_online.._value"), new IntegerVar(2));
  hotLink.append(idOf("A.v:_online.._stime"), nullptr);
  hotLink.append(idOf("A.v:_online.._invalid"), new BitVar(false));
  addTriple(hotLink, "B.v", new TextVar("y"), 500, false);
  EXPECT_EQ(printedBy([&] { group->hotLinkCallBack(hotLink); }), "");
  EXPECT_EQ(sent(), (Lines{"Out 1 x @1000000000", "Out 2 y @1000000000"}));
}

TEST_F(PubGroup, recordKeepsTheLatestValueOfEveryField) {
  makePair();
  deliver(new IntegerVar(1), 1000, false, new TextVar("x"), 1000, false);
  deliver(new IntegerVar(1), 1000, false, new TextVar("y"), 1000, true);
  deliver(new IntegerVar(2), 1000, false, new TextVar("z"), 1000, false);
  EXPECT_EQ(sent(),
            (Lines{"Out 1 x @1000000000", "Out bad: 1 PVSS dpe's set to invalid", "Out 2 z @1000000000"}));
}

TEST_F(PubGroup, timesAtTheEdgesOfTheClockAreKeptWithinATimestamp) {
  makePair();
  deliver(new IntegerVar(1), -5000, false, new TextVar("x"), -9000, false);
  EXPECT_EQ(sent(), Lines{"Out 1 x @0"});
  deliver(new IntegerVar(2), 0, false, new TextVar("x"), std::numeric_limits<std::int64_t>::max() / 2, false);
  const auto last = kel.takeSent();
  ASSERT_EQ(last.size(), 1U);
  EXPECT_EQ(last[0].timeNanoseconds / 1'000'000'000, 9'223'372'035);  // the last whole second but one
}

TEST_F(PubGroup, itemThatIsNotMappedIsReportedAndSkipped) {
  plant.addElement("C.v", DPELEMENT_INT);
  makePair();
  settle();
  DpHLGroup hotLink;
  addTriple(hotLink, "C.v", new IntegerVar(9), 9000, false);
  addTriple(hotLink, "A.v", new IntegerVar(1), 1000, false);
  EXPECT_EQ(printedBy([&] { group->hotLinkCallBack(hotLink); }),
            "ERROR: kelPubGroup 351 Got value for DPE System1:C.v:_online.._value which IS NOT MAPPED into "
            "Out -- SHOULD RESTART API MANAGER\n");
}

TEST_F(PubGroup, emptyTagIsTheUnnamedValue) {
  const Tuples tuples{{"A.v", CdpeMappingTuple::noTag}};
  EXPECT_EQ(make(tuples),
            "Created DPEWrapper for DPE A.v\n"
            "Created publisher mapping between DPE A.v tag \n"
            "Created Publication group Out\n");
  settle();
  kel.takeSent();
  plant.write("A.v", IntegerVar(5), 1000);
  settle();
  const auto records = kel.takeSent();
  ASSERT_EQ(records.size(), 1U);
  EXPECT_EQ(records[0].data.extractInt(nullptr), 5);
}

TEST_F(PubGroup, changesOfThePlantArePublished) {
  makePair();
  plant.write("A.v", IntegerVar(1), 1000);
  settle();
  plant.write("B.v", TextVar("x"), 2000);
  settle();
  plant.write("A.v", IntegerVar(2), 1500);
  settle();
  plant.writeInvalid("B.v", true, 2500);
  settle();
  plant.write("B.v", TextVar("y"), 3000);
  settle();
  EXPECT_EQ(sent(),
            (Lines{"Out bad: 1 PVSS dpe's set to invalid", "Out 1 x @2000000000", "Out 2 x @2000000000",
                   "Out bad: 1 PVSS dpe's set to invalid", "Out 2 y @3000000000"}));
}

TEST_F(PubGroup, currentValuesArePublishedAfterTheConnect) {
  plant.write("A.v", IntegerVar(1), 1000);
  plant.write("B.v", TextVar("x"), 2000);
  settle();
  make({{"A.v", "a"}, {"B.v", "b"}});
  settle();
  EXPECT_EQ(sent(), Lines{"Out 1 x @2000000000"});
}

TEST_F(PubGroup, errorOfTheLibraryIsReported) {
  make({{"A.v", "a"}});
  KelException exception("name taken");
  KelPublicationErrorHandler* const handler = kel.publications().back()->handler;
  EXPECT_EQ(printedBy([&] { handler->handleException(nullptr, exception); }),
            "ERROR: kelPubGroup 52 Pulisher has internal error\n");
}

TEST_F(PubGroup, sameElementTwiceLeavesOneEntryThatTheLaterTagHas) {
#if defined(__SANITIZE_ADDRESS__) || defined(KELGW_LEAK_SANITIZER)
  const __lsan::ScopedDisabler earlierMappingStaysAllocated;
#endif
  EXPECT_EQ(make({{"A.v", "first"}, {"A.v", "a"}}, 100),
            "Created DPEWrapper for DPE A.v\n"
            "Created publisher mapping between DPE A.v tag first\n"
            "Created DPEWrapper for DPE A.v\n"
            "Created publisher mapping between DPE A.v tag a\n"
            "Created Publication group Out\n");
  // The key is the first wrapper's identifier, which stays; the entry is the second mapping.
  EXPECT_EQ(printedBy([this] { group->deleteMappings(); }),
            "Destroying Publication group Out\n"
            "Destroying publisher mapping between DPE A.v tag a\n"
            "Destroyed DPEWrapper for DPE A.v\n");
}

using PubGroupDeathTest = PubGroup;

TEST_F(PubGroupDeathTest, sameElementTwiceUnbufferedEndsTheProcessWithTheFirstHotLink) {
  testing::GTEST_FLAG(death_test_style) = "threadsafe";
  EXPECT_DEATH(
      {
        kel.onCall = [](const std::string& call) { std::fprintf(stderr, "%s\n", call.c_str()); };
        make({{"A.v", "first"}, {"A.v", "a"}});
        settle();
      },
      testing::AllOf(
          testing::ContainsRegex("kelPubGroup:403: .*Assertion `\\(group.getNumberOfItems\\(\\)/3\\) == "
                                 "dpeMappings.size\\(\\)' failed"),
          testing::Not(testing::HasSubstr("declare bad"))));
}

}  // namespace
}  // namespace gateway_test
