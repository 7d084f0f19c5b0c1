// The ledger: every record has a place in a book, and the books add up.

#include <kel/KelBrowser.h>

#include <algorithm>
#include <limits>

#include "KelFixture.h"
#include "PayloadBuilder.h"
#include "session/LedgerPayload.h"
#include "wire/RecordCodec.h"

namespace kel {
namespace {

using namespace std::chrono_literals;
using testing::delimited;
using testing::KelFixture;
using testing::Listener;
using testing::metric;
using testing::number;

/// A record of whom it names, with its number.
std::string recordOf(const std::string& publisher, std::uint64_t sequence) {
  return number(1, 1) + metric("_value", 3, number(10, 7)) +
         metric("_publisher", 12, delimited(15, publisher)) + metric("_seq", 4, number(11, sequence));
}

struct LedgerTest : KelFixture {
  void SetUp() override { subscriber = factory("sub", "s1"); }

  void subscribe() {
    subscription = subscriber->createSubscription("x", &listener);
    settle();
  }

  /// Publishes so many records in a process run of its own, which then ends.
  void runOfPublisher(const std::string& incarnation, int records) {
    auto publisher = factory("pub", incarnation);
    KelPublication* publication = publisher->createPublication("x", nullptr);
    for (int i = 1; i <= records; ++i) send(publication, i);
    ASSERT_TRUE(publisher->flush(30s));
    settle();
  }

  void delivered(std::int64_t records) {
    ASSERT_TRUE(listener.waitFor([&](const testing::Journal& journal) {
      return std::count_if(journal.begin(), journal.end(),
                           [](const std::string& line) { return line.starts_with("record"); }) >= records;
    }));
    while (subscriber->counters().pending != 0) std::this_thread::yield();
  }

  Listener listener;
  Factory subscriber;
  KelSubscription* subscription = nullptr;
};

TEST_F(LedgerTest, SaysWhatArrivedOfAPublicationAndWhatWasSent) {
  subscribe();
  auto publisher = factory("pub", "p1");
  KelPublication* publication = publisher->createPublication("x", nullptr);
  for (int i = 1; i <= 5; ++i) send(publication, i);
  delivered(5);
  ASSERT_TRUE(publisher->flush(30s));

  const KelLedger received = subscriber->ledger();
  EXPECT_EQ(received.publisher, "sub");
  EXPECT_EQ(received.incarnation, "s1");
  EXPECT_TRUE(received.sent.empty());
  ASSERT_EQ(received.received.size(), 1U);
  const KelReceived& in = received.received[0];
  EXPECT_EQ(in.publication, "x");
  EXPECT_EQ(in.publisher, "pub");
  EXPECT_EQ(in.incarnation, "p1");
  EXPECT_EQ(in.runs, 1);
  EXPECT_EQ(in.before, 0);
  EXPECT_EQ(in.last, 5);
  EXPECT_EQ(in.counters.received, 5);
  EXPECT_EQ(in.counters.delivered, 5);

  const KelLedger sent = publisher->ledger();
  EXPECT_TRUE(sent.received.empty());
  ASSERT_EQ(sent.sent.size(), 1U);
  EXPECT_EQ(sent.sent[0].publication, "x");
  EXPECT_EQ(sent.sent[0].last, 5);
  EXPECT_EQ(sent.sent[0].lastAcknowledged, 5);
  EXPECT_EQ(sent.sent[0].counters.acknowledged, 5);
  EXPECT_TRUE(addsUp(*subscriber));
  EXPECT_TRUE(addsUp(*publisher));
}

TEST_F(LedgerTest, CountsNumbersThatNeverArrivedAndThoseGoneByBefore) {
  auto publisher = factory("pub", "p1");
  KelPublication* publication = publisher->createPublication("x", nullptr);
  for (int i = 1; i <= 3; ++i) send(publication, i);
  ASSERT_TRUE(publisher->flush(30s));
  subscribe();
  delivered(1);
  broker->refuse("kel/g/data/x", "full");
  send(publication, 4);
  send(publication, 5);
  ASSERT_TRUE(publisher->flush(30s));
  broker->refuse("kel/g/data/x", "");
  send(publication, 6);
  delivered(2);
  const KelReceived in = subscriber->ledger().received.at(0);
  EXPECT_EQ(in.before, 2);
  EXPECT_EQ(in.counters.received, 2);
  EXPECT_EQ(in.counters.gaps, 2);
  EXPECT_EQ(in.last, 6);
  ASSERT_TRUE(publisher->flush(30s));
  const KelSent out = publisher->ledger().sent.at(0);
  EXPECT_EQ(out.counters.refused, 2);
  EXPECT_EQ(out.last, 6);
  EXPECT_EQ(out.lastAcknowledged, 6);
  EXPECT_TRUE(addsUp(*subscriber));
}

TEST_F(LedgerTest, BooksWhatComesAgainWithoutANewNumber) {
  subscribe();
  auto publisher = factory("pub", "p1");
  KelPublication* publication = publisher->createPublication("x", nullptr);
  send(publication, 1);
  delivered(1);
  broker->publish("kel/g/data/x", broker->retained("kel/g/data/x"), true);
  settle();
  subscription->requestResend();
  delivered(2);
  const KelReceived in = subscriber->ledger().received.at(0);
  EXPECT_EQ(in.counters.received, 2);
  EXPECT_EQ(in.again, 1);
  EXPECT_EQ(in.counters.repeated, 1);
  EXPECT_EQ(in.counters.resends, 1);
  EXPECT_EQ(in.counters.delivered, 2);
  EXPECT_EQ(in.last, 1);
  EXPECT_TRUE(addsUp(*subscriber));
}

TEST_F(LedgerTest, BooksARecordThatWasHeldAndReplacedOnce) {
  subscribe();
  for (const std::uint64_t sequence : {3U, 4U, 6U}) {
    broker->publish("kel/g/data/x", recordOf("ghost/1", sequence), true);
  }
  settle();
  const KelReceived in = subscriber->ledger().received.at(0);
  EXPECT_EQ(in.publisher, "ghost");
  EXPECT_EQ(in.before, 2);
  EXPECT_EQ(in.counters.received, 3);
  EXPECT_EQ(in.counters.superseded, 2);
  EXPECT_EQ(in.counters.held, 1);
  EXPECT_EQ(in.counters.gaps, 1) << "5 only: 3 and 4 have arrived";
  EXPECT_TRUE(addsUp(*subscriber));
}

TEST_F(LedgerTest, GivesEachProcessRunARowTheNewestFirst) {
  subscribe();
  runOfPublisher("p1", 3);
  runOfPublisher("p2", 2);
  delivered(5);
  const auto rows = subscriber->ledger().received;
  ASSERT_EQ(rows.size(), 2U);
  EXPECT_EQ(rows[0].incarnation, "p2");
  EXPECT_EQ(rows[0].last, 2);
  EXPECT_EQ(rows[1].incarnation, "p1");
  EXPECT_EQ(rows[1].last, 3);
  EXPECT_TRUE(addsUp(*subscriber));
}

TEST_F(LedgerTest, SumsTheOlderRunsHoweverManyThereWere) {
  subscribe();
  std::int64_t all = 0;
  for (int run = 1; run <= 20; ++run) {
    runOfPublisher("p" + std::to_string(run), run);
    all += run;
  }
  delivered(all);
  const auto rows = subscriber->ledger().received;
  ASSERT_EQ(rows.size(), 5U);
  EXPECT_EQ(rows[0].incarnation, "p20");
  EXPECT_EQ(rows[3].incarnation, "p17");
  const KelReceived& older = rows[4];
  EXPECT_EQ(older.publication, "x");
  EXPECT_EQ(older.publisher, "");
  EXPECT_EQ(older.runs, 16);
  EXPECT_EQ(older.last, 0);
  EXPECT_EQ(older.restarted, 136) << "1 + 2 + ... + 16";
  EXPECT_EQ(older.counters.received, 136);
  EXPECT_EQ(older.counters.delivered, 136);
  EXPECT_TRUE(addsUp(*subscriber));
}

TEST_F(LedgerTest, WhatStillWaitsOfARunThatIsSummedEndsInTheSum) {
  subscribe();
  std::mutex gate;
  gate.lock();
  listener.onMessage = [&](KelSubscription* /*subscription*/, KelData& /*data*/) {
    const std::lock_guard pass(gate);
  };
  for (int run = 1; run <= 6; ++run) runOfPublisher("p" + std::to_string(run), 1);
  KelReceived older = subscriber->ledger().received.at(4);
  EXPECT_EQ(older.runs, 2);
  EXPECT_EQ(older.counters.pending, 2) << "the callback of the first has not come back";
  gate.unlock();
  delivered(6);
  older = subscriber->ledger().received.at(4);
  EXPECT_EQ(older.counters.pending, 0);
  EXPECT_EQ(older.counters.delivered, 2);
  EXPECT_TRUE(addsUp(*subscriber));
}

TEST_F(LedgerTest, KeepsTheSumOfWhatIsNotSubscribedAnyMore) {
  subscribe();
  runOfPublisher("p1", 3);
  delivered(3);
  subscriber->releaseSubscription(subscription);
  auto rows = subscriber->ledger().received;
  ASSERT_EQ(rows.size(), 1U);
  EXPECT_EQ(rows[0].publication, "");
  EXPECT_EQ(rows[0].counters.delivered, 3);
  EXPECT_EQ(rows[0].restarted, 3);
  subscribe();
  runOfPublisher("p2", 1);
  delivered(4);
  rows = subscriber->ledger().received;
  ASSERT_EQ(rows.size(), 3U) << "the run, what was held of the one before it, and the sum";
  EXPECT_TRUE(addsUp(*subscriber));
}

TEST_F(LedgerTest, WhatCarriesNoNumberHasARowOfItsOwn) {
  subscribe();
  broker->publish("kel/g/data/x", metric("_value", 3, number(10, 7)), true);
  broker->publish("kel/g/data/x", "not a record", true);
  settle();
  delivered(1);
  const KelReceived in = subscriber->ledger().received.at(0);
  EXPECT_EQ(in.publisher, "");
  EXPECT_EQ(in.runs, 0);
  EXPECT_EQ(in.counters.received, 2);
  EXPECT_EQ(in.counters.decodeErrors, 1);
  EXPECT_EQ(in.counters.delivered, 1);
  EXPECT_EQ(in.last, 0);
  EXPECT_TRUE(addsUp(*subscriber));
}

TEST_F(LedgerTest, GoesOnWithTheNumbersOfAPublicationThatIsMadeAgain) {
  subscribe();
  auto publisher = factory("pub", "p1");
  KelPublication* publication = publisher->createPublication("x", nullptr);
  send(publication, 1);
  delivered(1);
  publisher->destroyPublication(publication);
  publication = publisher->createPublication("x", nullptr);
  send(publication, 2);
  delivered(2);
  const KelReceived in = subscriber->ledger().received.at(0);
  EXPECT_EQ(in.last, 2);
  EXPECT_EQ(in.restarted, 0);
  EXPECT_EQ(in.counters.gaps, 0);
  EXPECT_EQ(publisher->ledger().sent.at(0).last, 2);
  EXPECT_TRUE(addsUp(*subscriber));
  EXPECT_TRUE(addsUp(*publisher));
}

TEST_F(LedgerTest, APublisherThatWasMissedClosingIsStillHeardAfterwards) {
  subscribe();
  auto publisher = factory("pub", "p1");
  KelPublication* publication = publisher->createPublication("x", nullptr);
  for (int i = 1; i <= 3; ++i) send(publication, i);
  delivered(3);
  broker->setReachable("sub-s1", false);
  broker->cut("sub-s1");
  settle();
  publisher->destroyPublication(publication);
  publication = publisher->createPublication("x", nullptr);
  send(publication, 4);
  ASSERT_TRUE(publisher->flush(30s));
  broker->setReachable("sub-s1", true);
  settle();
  advance(200ms);
  delivered(4);
  EXPECT_EQ(listener.all().back(), "record 4");
}

TEST_F(LedgerTest, ACountThatBeginsAnewAfterAClosingIsBookedOnTop) {
  subscribe();
  for (const std::uint64_t sequence : {1U, 2U, 3U}) {
    broker->publish("kel/g/data/x", recordOf("other/1", sequence), true);
  }
  broker->publish("kel/g/data/x", "", true);
  for (const std::uint64_t sequence : {1U, 2U}) {
    broker->publish("kel/g/data/x", recordOf("other/1", sequence), true);
  }
  settle();
  const KelReceived in = subscriber->ledger().received.at(0);
  EXPECT_EQ(in.restarted, 3);
  EXPECT_EQ(in.last, 2);
  EXPECT_EQ(in.counters.received, 5);
  EXPECT_EQ(in.counters.gaps, 0);
  EXPECT_TRUE(addsUp(*subscriber));
}

TEST_F(LedgerTest, ANumberFromOutsideCannotOverflowTheBooks) {
  subscribe();
  constexpr std::uint64_t most = std::numeric_limits<std::int64_t>::max();
  for (int round = 0; round < 3; ++round) {
    broker->publish("kel/g/data/x", recordOf("other/1", 1), true);
    broker->publish("kel/g/data/x", recordOf("other/1", most), true);
    broker->publish("kel/g/data/x", "", true);
  }
  broker->publish("kel/g/data/x", recordOf("other/1", ~std::uint64_t{0}), true);
  settle();
  const KelReceived in = subscriber->ledger().received.at(0);
  EXPECT_EQ(in.counters.received, 6);
  EXPECT_EQ(in.counters.gaps, std::numeric_limits<std::int64_t>::max());
  EXPECT_EQ(subscriber->counters().gaps, std::numeric_limits<std::int64_t>::max());
  EXPECT_EQ(subscriber->counters().received, 7);
}

TEST_F(LedgerTest, CountsWhatNeverLeftThePublisher) {
  KelOptions options;
  options.outgoingRecords = 10;
  broker->setReachable("pub-p1", false);
  auto publisher = factory("pub", "p1", options);
  KelPublication* publication = publisher->createPublication("x", nullptr);
  KelData large;
  large.insert(std::string(largestPayload, 'x').c_str(), "big");
  publication->send(large, KelTimestamp(1));
  for (int i = 2; i <= 31; ++i) send(publication, i);
  KelSent out = publisher->ledger().sent.at(0);
  // The first is too large for anybody, and a bad record takes its place.
  EXPECT_EQ(out.last, 32);
  EXPECT_EQ(out.lastAcknowledged, 0);
  EXPECT_EQ(out.counters.sends, 32);
  EXPECT_EQ(out.counters.refused, 1);
  EXPECT_EQ(out.counters.outgoingSuperseded, 20);
  EXPECT_EQ(out.counters.outgoingPending, 11);
  subscribe();
  broker->setReachable("pub-p1", true);
  ASSERT_TRUE(publisher->flush(30s));
  delivered(11);
  out = publisher->ledger().sent.at(0);
  EXPECT_EQ(out.lastAcknowledged, 32);
  EXPECT_EQ(subscriber->ledger().received.at(0).before, 21) << "they had gone by when the first one came";
  EXPECT_TRUE(addsUp(*publisher));
  EXPECT_TRUE(addsUp(*subscriber));
}

TEST_F(LedgerTest, RemembersSomeDestroyedPublicationsAndSumsTheRest) {
  auto publisher = factory("pub", "p1");
  for (int i = 0; i < 300; ++i) {
    KelPublication* publication = publisher->createPublication(("x" + std::to_string(i)).c_str(), nullptr);
    send(publication, i);
    ASSERT_TRUE(publisher->flush(30s));
    publisher->destroyPublication(publication);
  }
  const auto rows = publisher->ledger().sent;
  ASSERT_EQ(rows.size(), 257U);
  EXPECT_EQ(rows.back().publication, "");
  EXPECT_EQ(rows.back().counters.acknowledged, 44);
  EXPECT_EQ(rows.back().last, 44);
  EXPECT_TRUE(addsUp(*publisher));
}

TEST_F(LedgerTest, IsAnsweredToAProbeThatAsksForItAndToNoOther) {
  subscribe();
  broker->record("kel/g/ledger/#");
  broker->publish("kel/g/probe", "somebody/1", false);
  settle();
  advance(1s);
  EXPECT_TRUE(broker->recorded().empty());
  broker->publish("kel/g/probe", "somebody/1 ledger", false);
  settle();
  ASSERT_EQ(broker->recorded().size(), 1U);
  EXPECT_EQ(broker->recorded()[0].first, "kel/g/ledger/sub/s1");
  EXPECT_EQ(broker->retained("kel/g/ledger/sub/s1"), "");
  // Many that ask at once get one answer together, a little later.
  for (int i = 0; i < 10; ++i) broker->publish("kel/g/probe", "somebody/1 ledger", false);
  settle();
  EXPECT_EQ(broker->recorded().size(), 1U);
  advance(1s);
  EXPECT_EQ(broker->recorded().size(), 2U);
}

KelLedger largeLedger(int publications) {
  KelLedger ledger;
  ledger.publisher = "plant/gw";
  ledger.incarnation = "0a1b";
  for (int i = 0; i < publications; ++i) {
    KelReceived in;
    in.publication = "plant/area " + std::to_string(i);
    in.publisher = "pub";
    in.incarnation = "p" + std::to_string(i);
    in.runs = 1;
    in.before = i;
    in.last = std::int64_t{2} * i;
    in.counters.received = i;
    in.counters.gaps = -i;
    ledger.received.push_back(in);
    KelSent out;
    out.publication = in.publication;
    out.last = i;
    out.lastAcknowledged = i - 1;
    out.counters.sends = std::int64_t{1} << 40;
    ledger.sent.push_back(out);
  }
  return ledger;
}

TEST(LedgerPayload, TravelsInBoundedPiecesAndComesTogetherInAnyOrder) {
  const KelLedger ledger = largeLedger(1000);
  std::vector<std::string> pieces = encodeLedger(ledger, 7, 1);
  EXPECT_EQ(pieces.size(), 8U);
  LedgerCollector collector;
  for (auto piece = pieces.rbegin(); piece != pieces.rend(); ++piece) {
    EXPECT_LT(piece->size(), 64U << 10U);
    EXPECT_FALSE(collector.ledger().has_value());
    auto decoded = decodeLedgerPiece(*piece);
    ASSERT_TRUE(decoded.has_value());
    collector.add(std::move(*decoded));
  }
  ASSERT_TRUE(collector.ledger().has_value());
  const KelLedger& got = *collector.ledger();
  EXPECT_EQ(got.publisher, "plant/gw");
  EXPECT_EQ(got.incarnation, "0a1b");
  ASSERT_EQ(got.received.size(), 1000U);
  EXPECT_EQ(got.received[999].publication, "plant/area 999");
  EXPECT_EQ(got.received[999].publisher, "pub");
  EXPECT_EQ(got.received[999].incarnation, "p999");
  EXPECT_EQ(got.received[999].before, 999);
  EXPECT_EQ(got.received[999].last, 1998);
  EXPECT_EQ(got.received[999].counters.gaps, -999);
  ASSERT_EQ(got.sent.size(), 1000U);
  EXPECT_EQ(got.sent[999].lastAcknowledged, 998);
  EXPECT_EQ(got.sent[999].counters.sends, std::int64_t{1} << 40);
}

TEST(LedgerPayload, PiecesOfTwoAnswersAreNotMixed) {
  const std::vector<std::string> old = encodeLedger(largeLedger(300), 1, 1);
  const std::vector<std::string> fresh = encodeLedger(largeLedger(300), 2, 1);
  ASSERT_EQ(old.size(), 4U);
  LedgerCollector collector;
  for (const std::size_t index : {0U, 1U, 2U}) collector.add(*decodeLedgerPiece(old[index]));
  for (const std::size_t index : {3U, 0U, 1U}) collector.add(*decodeLedgerPiece(fresh[index]));
  EXPECT_FALSE(collector.ledger().has_value());
  collector.add(*decodeLedgerPiece(fresh[2]));
  EXPECT_TRUE(collector.ledger().has_value());
}

TEST(LedgerPayload, AnEmptyLedgerIsOnePiece) {
  KelLedger ledger;
  ledger.publisher = "gw";
  ledger.incarnation = "1";
  const std::vector<std::string> pieces = encodeLedger(ledger, 1, 1);
  ASSERT_EQ(pieces.size(), 1U);
  LedgerCollector collector;
  collector.add(*decodeLedgerPiece(pieces[0]));
  ASSERT_TRUE(collector.ledger().has_value());
  EXPECT_TRUE(collector.ledger()->received.empty());
}

TEST(LedgerPayload, RefusesWhatDoesNotFitTogether) {
  const auto count = [](const char* name, unsigned value) { return metric(name, 4, number(11, value)); };
  const std::string who = metric("publisher", 12, delimited(15, "gw/1"));
  const std::string names = metric("sent/publication", 33, delimited(16, std::string("a\0b\0", 4)));
  EXPECT_FALSE(decodeLedgerPiece("nonsense").has_value());
  EXPECT_FALSE(decodeLedgerPiece(count("pieces", 1)).has_value()) << "nobody's";
  EXPECT_FALSE(decodeLedgerPiece(who).has_value()) << "of no pieces";
  EXPECT_TRUE(decodeLedgerPiece(who + count("pieces", 1)).has_value());
  EXPECT_FALSE(decodeLedgerPiece(who + count("pieces", 1) + count("piece", 1)).has_value());
  EXPECT_FALSE(decodeLedgerPiece(who + count("pieces", 1) + names).has_value()) << "rows without figures";
}

TEST(LedgerBrowser, CollectsTheLedgersOfEverybodyAlive) {
  KelOptions options;
  options.url = "loopback:ledger-browser";
  Listener listener;
  const std::unique_ptr<KelFactory> subscriber(Kel::create("sub", options));
  const std::unique_ptr<KelFactory> publisher(Kel::create("pub", options));
  subscriber->createSubscription("x", &listener);
  KelPublication* publication = publisher->createPublication("x", nullptr);
  KelData data;
  for (int i = 0; i < 3; ++i) publication->send(data, KelTimestamp(1));
  ASSERT_TRUE(publisher->flush(30s));
  listener.lines(2);
  KelBrowser browser(options.url);
  ASSERT_TRUE(browser.lookWithLedgers(30s)) << browser.error();
  ASSERT_EQ(browser.ledgers().size(), 2U);
  const KelLedger& sent = browser.ledgers()[0];
  EXPECT_EQ(sent.publisher, "pub");
  EXPECT_EQ(sent.incarnation, publisher->incarnation());
  EXPECT_EQ(sent.sent.at(0).last, 3);
  EXPECT_EQ(browser.ledgers()[1].publisher, "sub");
  ASSERT_TRUE(browser.look(30s));
  EXPECT_TRUE(browser.ledgers().empty());
}

}  // namespace
}  // namespace kel
