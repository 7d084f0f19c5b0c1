// The outgoing side: what waits, what goes out again, what is counted.

#include <gmock/gmock.h>

#include "KelFixture.h"
#include "session/ControlPayload.h"
#include "wire/RecordCodec.h"

namespace kel {
namespace {

using namespace std::chrono_literals;
using testing::Handler;
using testing::Journal;
using testing::KelFixture;

struct PublishTest : KelFixture {
  /// The counts of the records that have gone over a topic.
  std::vector<std::int64_t> sequences(const std::string& topic) {
    std::vector<std::int64_t> result;
    for (const auto& [where, payload] : broker->recorded()) {
      if (where == topic && !payload.empty()) result.push_back(decodeRecord(payload).record->sequence);
    }
    return result;
  }
};

TEST_F(PublishTest, KeepsRecordsInOrderWhileTheBrokerIsAway) {
  broker->record("kel/g/data/#");
  broker->setReachable("a-a1", false);
  auto a = factory("a", "a1");
  KelPublication* publication = a->createPublication("x", nullptr);
  for (int i = 1; i <= 50; ++i) send(publication, i);
  EXPECT_FALSE(a->flush(0ms));
  broker->setReachable("a-a1", true);
  ASSERT_TRUE(a->flush(30s));
  std::vector<std::int64_t> expected(50);
  for (int i = 0; i < 50; ++i) expected[static_cast<std::size_t>(i)] = i + 1;
  EXPECT_EQ(sequences("kel/g/data/x"), expected);
}

TEST_F(PublishTest, KeepsTheNewestOfEachPublicationWhenTheQueueIsFull) {
  KelOptions options;
  options.outgoingRecords = 10;
  broker->setReachable("a-a1", false);
  auto a = factory("a", "a1", options);
  KelPublication* busy = a->createPublication("busy", nullptr);
  KelPublication* quiet = a->createPublication("quiet", nullptr);
  send(quiet, 1);
  for (int i = 1; i <= 100; ++i) send(busy, i);
  EXPECT_EQ(a->counters("busy").outgoingSuperseded, 89);
  EXPECT_EQ(a->counters("quiet").outgoingSuperseded, 0);
  EXPECT_TRUE(balanced(a->counters()));
  broker->record("kel/g/data/#");
  broker->setReachable("a-a1", true);
  ASSERT_TRUE(a->flush(30s));
  EXPECT_EQ(sequences("kel/g/data/quiet"), std::vector<std::int64_t>{1});
  EXPECT_EQ(sequences("kel/g/data/busy").back(), 100);
  EXPECT_EQ(sequences("kel/g/data/busy").size(), 11U) << "ten, and the newest";
  EXPECT_TRUE(balanced(a->counters()));
}

TEST_F(PublishTest, SendsAgainWhatTheBrokerHadNotTaken) {
  auto a = factory("a", "a1");
  KelPublication* publication = a->createPublication("x", nullptr);
  send(publication, 1);
  ASSERT_TRUE(a->flush(30s));
  broker->record("kel/g/data/#");
  broker->freeze("a-a1");
  for (int i = 2; i <= 300; ++i) send(publication, i);
  settle();
  EXPECT_EQ(a->counters().outgoingPending, 299);
  advance(11s);  // the link is found dead and made again
  ASSERT_TRUE(a->flush(30s));
  const auto sent = sequences("kel/g/data/x");
  ASSERT_EQ(sent.size(), 299U);
  for (std::size_t i = 0; i < sent.size(); ++i) EXPECT_EQ(sent[i], static_cast<std::int64_t>(i) + 2);
  EXPECT_TRUE(balanced(a->counters()));
  EXPECT_EQ(a->counters().reconnects, 1);
}

TEST_F(PublishTest, SendsItsLastRecordOnceMoreAfterAReconnect) {
  auto a = factory("a", "a1");
  KelPublication* publication = a->createPublication("x", nullptr);
  send(publication, 1);
  send(publication, 2);
  ASSERT_TRUE(a->flush(30s));
  broker->record("kel/g/data/#");
  broker->cut("a-a1");
  settle();
  EXPECT_EQ(sequences("kel/g/data/x"), std::vector<std::int64_t>{2});
  EXPECT_EQ(a->counters().sends, 2);
  EXPECT_TRUE(balanced(a->counters()));
}

TEST_F(PublishTest, RepeatsTheLastSentFieldsInABadRecord) {
  auto a = factory("a", "a1");
  KelPublication* publication = a->createPublication("x", nullptr);
  send(publication, 5);
  publication->declareBad("one");
  publication->declareBad(nullptr);
  ASSERT_TRUE(a->flush(30s));
  const DecodedRecord last = decodeRecord(broker->retained("kel/g/data/x"));
  ASSERT_TRUE(last.record);
  EXPECT_EQ(last.record->quality, 0);
  EXPECT_STREQ(last.record->reason, "");
  ASSERT_NE(last.record->find(""), nullptr);
  EXPECT_EQ(last.record->find("")->value.int32, 5);
  EXPECT_EQ(last.record->sequence, 3);
}

TEST_F(PublishTest, HasNothingToRepeatBeforeTheFirstSend) {
  auto a = factory("a", "a1");
  KelPublication* publication = a->createPublication("x", nullptr);
  publication->declareBad("why");
  ASSERT_TRUE(a->flush(30s));
  const DecodedRecord last = decodeRecord(broker->retained("kel/g/data/x"));
  ASSERT_TRUE(last.record);
  EXPECT_EQ(last.record->quality, -1);
  EXPECT_EQ(last.record->fields().size(), 0U);
  EXPECT_STREQ(last.record->reason, "why");
}

TEST_F(PublishTest, TellsOfANameThatNoPublicationCanHaveAndStaysQuiet) {
  Handler& handler = newHandler();
  auto a = factory("a", "a1");
  KelPublication* publication = a->createPublication("", &handler);
  EXPECT_EQ(handler.lines(1), Journal{": no publication can be called '': the name is empty"});
  send(publication, 1);
  publication->declareBad("no");
  EXPECT_EQ(a->counters().sends, 0);
  a->destroyPublication(publication);
}

TEST_F(PublishTest, TellsOnceOfRecordsThatTheBrokerRefuses) {
  Handler& handler = newHandler();
  auto a = factory("a", "a1");
  broker->refuse("kel/g/data/x", "not authorised");
  KelPublication* publication = a->createPublication("x", &handler);
  for (int i = 0; i < 5; ++i) send(publication, i);
  ASSERT_TRUE(a->flush(30s));
  EXPECT_EQ(handler.lines(1), Journal{"x: the broker refused a record of publication x: not authorised"});
  broker->refuse("kel/g/data/x", "");
  send(publication, 5);
  ASSERT_TRUE(a->flush(30s));
  EXPECT_EQ(a->counters("x").refused, 5);
  EXPECT_EQ(a->counters("x").acknowledged, 1);
  EXPECT_EQ(handler.all().size(), 1U);
}

TEST_F(PublishTest, SendsTheLastRecordAgainUntilTheBrokerTakesIt) {
  Handler& handler = newHandler();
  auto a = factory("a", "a1");
  broker->refuse("kel/g/data/x", "not authorised");
  KelPublication* publication = a->createPublication("x", &handler);
  for (int i = 1; i <= 3; ++i) send(publication, i);
  ASSERT_TRUE(a->flush(30s));
  advance(30s);
  EXPECT_EQ(broker->retained("kel/g/data/x"), "");
  broker->refuse("kel/g/data/x", "");
  advance(11s);
  EXPECT_NE(broker->retained("kel/g/data/x"), "");
  EXPECT_EQ(a->counters("x").refused, 3) << "each record is refused once, however often it went out";
  EXPECT_EQ(handler.lines(1).size(), 1U);
  EXPECT_TRUE(balanced(a->counters()));
}

TEST_F(PublishTest, SendsTheLastRecordAgainAsSoonAsItsPresenceIsTakenAgain) {
  auto a = factory("a", "a1");
  KelPublication* publication = a->createPublication("x", nullptr);
  send(publication, 1);
  ASSERT_TRUE(a->flush(30s));
  const std::string before = broker->retained("kel/g/data/x");
  broker->refuse("kel/g/data/x", "not authorised");
  broker->refuse("kel/g/publisher/a/a1", "not authorised");
  send(publication, 2);
  // Refused at once, so asked for again every 10 s; the presence half a keep-alive later.
  advance(3s);
  ASSERT_EQ(broker->retained("kel/g/data/x"), before);
  broker->refuse("kel/g/data/x", "");
  broker->refuse("kel/g/publisher/a/a1", "");
  advance(3s);
  EXPECT_NE(broker->retained("kel/g/data/x"), before);
  EXPECT_TRUE(balanced(a->counters()));
}

TEST_F(PublishTest, TellsOfARecordThatIsTooLarge) {
  Handler& handler = newHandler();
  auto a = factory("a", "a1");
  KelPublication* publication = a->createPublication("x", &handler);
  KelData data;
  data.insert(std::string(largestPayload, 'x').c_str(), "big");
  publication->send(data, KelTimestamp(1));
  ASSERT_EQ(handler.lines(1).size(), 1U);
  EXPECT_EQ(handler.all()[0].substr(0, 18), "x: a record of 167");
  EXPECT_THAT(handler.all()[0],
              ::testing::HasSubstr("too large for Kel, which takes at most 16777216 bytes"));
  EXPECT_EQ(a->counters("x").refused, 1);
  ASSERT_TRUE(a->flush(30s));
  const DecodedRecord last = decodeRecord(broker->retained("kel/g/data/x"));
  ASSERT_TRUE(last.record) << "it is declared bad";
  EXPECT_EQ(last.record->quality, 0);
  EXPECT_TRUE(balanced(a->counters()));
}

TEST_F(PublishTest, ClosesLaterWhatWasDestroyedWhileTheBrokerWasAway) {
  auto a = factory("a", "a1");
  KelPublication* publication = a->createPublication("x", nullptr);
  send(publication, 1);
  ASSERT_TRUE(a->flush(30s));
  broker->setReachable("a-a1", false);
  broker->cut("a-a1");
  settle();
  send(publication, 2);
  a->destroyPublication(publication);
  EXPECT_NE(broker->retained("kel/g/data/x"), "");
  broker->setReachable("a-a1", true);
  settle();
  EXPECT_EQ(broker->retained("kel/g/data/x"), "");
  EXPECT_EQ(broker->retained("kel/g/claim/x"), "");
  EXPECT_TRUE(balanced(a->counters()));
}

TEST_F(PublishTest, CountsOnWhereItStoppedWhenAPublicationIsMadeAgain) {
  broker->record("kel/g/data/#");
  auto a = factory("a", "a1");
  KelPublication* publication = a->createPublication("x", nullptr);
  send(publication, 1);
  ASSERT_TRUE(a->flush(30s));
  broker->setReachable("a-a1", false);
  broker->cut("a-a1");
  settle();
  a->destroyPublication(publication);
  publication = a->createPublication("x", nullptr);
  send(publication, 2);
  broker->setReachable("a-a1", true);
  ASSERT_TRUE(a->flush(30s));
  EXPECT_EQ(sequences("kel/g/data/x"), (std::vector<std::int64_t>{1, 2}));
}

TEST_F(PublishTest, WritesItsCountersIntoItsPresence) {
  auto a = factory("a", "a1");
  send(a->createPublication("x", nullptr), 1);
  ASSERT_TRUE(a->flush(30s));
  advance(3s);
  KelPublisherInfo info;
  ASSERT_TRUE(decodePresence(broker->retained("kel/g/publisher/a/a1"), info));
  EXPECT_EQ(info.counters.at("sends"), 1);
  EXPECT_EQ(info.counters.at("acknowledged"), 1);
  EXPECT_EQ(info.counters.size(), std::size(counterNames));
  EXPECT_EQ(info.process, getpid());
  EXPECT_FALSE(info.host.empty());
}

TEST_F(PublishTest, AFactoryThatEndsIsGoneAtOnceAndLeavesItsRecord) {
  auto a = factory("a", "a1");
  send(a->createPublication("x", nullptr), 1);
  ASSERT_TRUE(a->flush(30s));
  a.reset();
  settle();
  EXPECT_EQ(broker->retained("kel/g/publisher/a/a1"), "");
  EXPECT_NE(broker->retained("kel/g/data/x"), "");
}

TEST_F(PublishTest, AFactoryWithoutABrokerEndsAtOnce) {
  broker->setReachable("a-a1", false);
  auto a = factory("a", "a1");
  send(a->createPublication("x", nullptr), 1);
  a.reset();
  SUCCEED();
}

TEST(KelCreate, RefusesWhatIsNoAddress) {
  KelOptions options;
  options.url = "mqtt://b?qos=7";
  EXPECT_THROW(Kel::create("a", options), KelException);
  options.url = "loopback:";
  options.incarnation = "a/b";
  EXPECT_THROW(Kel::create("a", options), KelException);
}

TEST(KelCreate, GivesANamelessPublisherANameOfItsOwn) {
  KelOptions options;
  options.url = "loopback:nameless";
  const std::unique_ptr<KelFactory> a(Kel::create(nullptr, options));
  const std::unique_ptr<KelFactory> b(Kel::create("", options));
  EXPECT_STRNE(a->incarnation(), b->incarnation());
  std::unique_ptr<KelData> data(a->createData());
  data->insert(1, "x");
  KelPublication* one = a->createPublication("one", nullptr);
  KelPublication* two = b->createPublication("two", nullptr);
  one->send(*data, KelTimestamp(1));
  two->send(*data, KelTimestamp(1));
  EXPECT_TRUE(a->flush(30s));
  EXPECT_TRUE(b->flush(30s));
}

}  // namespace
}  // namespace kel
