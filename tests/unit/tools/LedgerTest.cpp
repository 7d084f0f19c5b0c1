// The arithmetic of the ledger: books that agree are balanced, and whatever is planted in them is found.
#include "Ledger.h"

#include <gmock/gmock.h>

#include <functional>

namespace kelgw {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;

constexpr std::int64_t startedMs = 1'700'000'000'000;

/// A gateway with manager number 1 that has received "in" from a publisher and has sent "out".
Books agreeing() {
  Books books;
  pvss::StoreManager manager;
  manager.number = 1;
  manager.writer = "1.aa";
  manager.host = "here";
  manager.process = 77;
  manager.alive = true;
  manager.leaseHeld = true;
  manager.leaseHolder = "1.aa";
  manager.lastBeatMs = 1000;
  manager.counters = {{"state", "running"}, {"queued", "400"}, {"confirmed", "390"}, {"coalesced", "6"},
                      {"dropped", "0"},     {"rejected", "4"}, {"pending", "0"},     {"settled", "391"},
                      {"lost", "0"},        {"restored", "0"}, {"hotLinks", "5"}};
  books.managers.push_back(manager);
  pvss::StoreWriter writer;
  writer.writer = "1.aa";
  writer.lastClientSequence = 100;
  writer.applied = 100;
  writer.attributes = 390;
  writer.refused = 1;
  writer.values = 98;
  writer.sinceMs = startedMs;
  books.writers.push_back(writer);
  books.mapped = {"in"};

  KelPublisherInfo member;
  member.name = "gateway";
  member.incarnation = "g1";
  member.liveness = KelPublisherInfo::Liveness::alive;
  member.host = "here";
  member.process = 77;
  books.members.push_back(member);
  member.name = "plant";
  member.incarnation = "p1";
  member.process = 78;
  member.startedNanoseconds = (startedMs + 5) * 1'000'000;
  books.members.push_back(member);

  KelReceived in;
  in.publication = "in";
  in.publisher = "plant";
  in.incarnation = "p1";
  in.runs = 1;
  in.before = 10;
  in.last = 110;
  in.again = 2;
  in.counters.received = 100;
  in.counters.gaps = 2;
  in.counters.resends = 1;
  in.counters.delivered = 96;
  in.counters.superseded = 3;
  in.counters.repeated = 2;
  KelSent out;
  out.publication = "out";
  out.last = out.lastAcknowledged = 5;
  out.counters.sends = out.counters.acknowledged = 5;
  books.ledgers.push_back({"gateway", "g1", {in}, {out}});
  KelSent published;
  published.publication = "in";
  published.last = published.lastAcknowledged = 110;
  published.counters.sends = 110;
  published.counters.acknowledged = 108;
  published.counters.outgoingSuperseded = 2;
  books.ledgers.push_back({"plant", "p1", {}, {published}});
  books.kept = {{"in", "plant/p1", 110}, {"out", "gateway/g1", 5}};
  return books;
}

/// The counter of the first manager.
void setCounter(Books& books, const std::string& name, const std::string& text) {
  for (auto& [key, value] : books.managers[0].counters) {
    if (key == name) {
      value = text;
    }
  }
}

TEST(Ledger, BooksThatAgreeAreBalanced) {
  const Ledger ledger = balance(agreeing(), false);
  EXPECT_TRUE(ledger.balanced()) << testing::PrintToString(ledger.why);
  ASSERT_EQ(ledger.subscribe.size(), 1U);
  EXPECT_EQ(ledger.subscribe[0].subscriber, "gateway");
  EXPECT_EQ(ledger.subscribe[0].published, 110);
  EXPECT_STREQ(ledger.subscribe[0].publishedBy, "publisher");
  EXPECT_EQ(ledger.subscribe[0].missing, 0);
  ASSERT_EQ(ledger.publish.size(), 1U);
  EXPECT_EQ(ledger.publish[0].kept, 5);
  ASSERT_EQ(ledger.writes.size(), 1U);
  EXPECT_EQ(ledger.writes[0].applied, 390);
  EXPECT_EQ(ledger.writes[0].values, 98);
  EXPECT_TRUE(ledger.gone.empty());
}

struct Planted {
  const char* what;
  std::function<void(Books&)> plant;
  const char* why;
  bool seenWhileMoving;  ///< wrong at every moment, not only when nothing is under way
};

struct LedgerPlanted : testing::TestWithParam<Planted> {};

TEST_P(LedgerPlanted, IsFound) {
  Books books = agreeing();
  GetParam().plant(books);
  const Ledger still = balance(books, false);
  ASSERT_EQ(still.why.size(), 1U) << testing::PrintToString(still.why);
  EXPECT_EQ(still.why[0], GetParam().why);
  const Ledger moving = balance(books, true);
  EXPECT_EQ(moving.balanced(), !GetParam().seenWhileMoving) << testing::PrintToString(moving.why);
}

const Planted planted[] = {
    {"aRecordThatVanishedInTheGateway", [](Books& b) { --b.ledgers[0].received[0].counters.delivered; },
     "subscribed in from plant/p1: 101 records came in, but 100 are accounted for", true},
    {"aRecordDeliveredTwice", [](Books& b) { ++b.ledgers[0].received[0].counters.delivered; },
     "subscribed in from plant/p1: 101 records came in, but 102 are accounted for", true},
    {"aGapThatWasNotCounted", [](Books& b) { b.ledgers[0].received[0].counters.gaps = 1; },
     "subscribed in from plant/p1: 110 numbers, but 109 gone by, arrived or missing", true},
    {"theLastRecordsLostOnTheWay",
     [](Books& b) {
       b.ledgers[1].sent[0].last = b.ledgers[1].sent[0].lastAcknowledged = 113;
       b.kept[0].sequence = 113;
     },
     "subscribed in from plant/p1: the broker has taken number 113, the last that arrived is 110", false},
    {"theLastRecordOfAPublisherThatIsGone",
     [](Books& b) {
       b.ledgers.pop_back();
       b.kept[0].sequence = 111;
     },
     "subscribed in from plant/p1: the broker has taken number 111, the last that arrived is 110", false},
    {"aRecordThatNobodySent", [](Books& b) { b.ledgers[1].sent[0].last = 109; },
     "subscribed in from plant/p1: number 110 arrived, but only 109 were sent", false},
    {"aSentRecordThatVanished", [](Books& b) { --b.ledgers[0].sent[0].counters.acknowledged; },
     "published out: 5 records sent, but 4 are accounted for", true},
    {"aNumberThatWasNotGiven", [](Books& b) { b.ledgers[0].sent[0].last = 4; },
     "published out: 5 records sent, but the last number is 4", true},
    {"anOldRecordKept", [](Books& b) { b.kept[1].sequence = 4; },
     "published out: the broker keeps number 4, but the last that it took is 5", false},
    {"aWriteThatVanishedInTheBacklog", [](Books& b) { setCounter(b, "confirmed", "389"); },
     "manager 1: 400 writes queued, but 399 are accounted for", true},
    {"aWriteConfirmedAndNotApplied", [](Books& b) { b.writers[0].attributes = 389; },
     "manager 1: 391 writes settled, but the store has counted 390", true},
    {"aWriteAppliedTwice", [](Books& b) { b.writers[0].attributes = 394; },
     "manager 1: the store has counted 395 writes, but only 391 are settled", false},
    {"aGatewayThatHidesItsBooks", [](Books& b) { b.ledgers.erase(b.ledgers.begin()); },
     "manager 1: process 77 on here does not show its books on the broker; is it there, and may it write to "
     "its ledger topic?",
     true},
};

INSTANTIATE_TEST_SUITE_P(Ledger, LedgerPlanted, testing::ValuesIn(planted),
                         [](const auto& each) { return std::string(each.param.what); });

TEST(Ledger, WhatThePublisherCouldNotSendIsNotMissedHere) {
  Books books = agreeing();
  KelSent& sent = books.ledgers[1].sent[0];
  sent.last = 113;
  sent.counters.sends = 113;
  sent.counters.refused = 3;
  const Ledger ledger = balance(books, false);
  EXPECT_TRUE(ledger.balanced()) << testing::PrintToString(ledger.why);
  EXPECT_EQ(ledger.subscribe[0].published, 113);
  EXPECT_EQ(ledger.subscribe[0].missing, 3);
}

TEST(Ledger, APublisherThatIsGoneIsKnownByTheRecordThatTheBrokerKeeps) {
  Books books = agreeing();
  books.ledgers.pop_back();
  books.members.pop_back();
  Ledger ledger = balance(books, false);
  EXPECT_TRUE(ledger.balanced());
  EXPECT_STREQ(ledger.subscribe[0].publishedBy, "retained");
  EXPECT_EQ(ledger.subscribe[0].published, 110);
  books.kept[0] = {"in", "plant/p2", 7};
  ledger = balance(books, false);
  EXPECT_TRUE(ledger.balanced());
  EXPECT_STREQ(ledger.subscribe[0].publishedBy, "seen");
  EXPECT_EQ(ledger.subscribe[0].published, 110);
}

TEST(Ledger, WhatHasNoNumbersIsNotComparedWithAnybody) {
  Books books = agreeing();
  KelReceived& in = books.ledgers[0].received[0];
  in = KelReceived();
  in.publication = "in";
  in.again = in.counters.received = 4;
  in.counters.delivered = 3;
  in.counters.decodeErrors = 1;
  const Ledger ledger = balance(books, false);
  EXPECT_TRUE(ledger.balanced()) << testing::PrintToString(ledger.why);
  EXPECT_EQ(ledger.subscribe[0].published, std::nullopt);
}

TEST(Ledger, WritesThatTheStoreLostAreNoSurprise) {
  Books books = agreeing();
  books.writers[0].attributes = 300;
  setCounter(books, "lost", "90");
  EXPECT_TRUE(balance(books, false).balanced());
}

/// An earlier run of the gateway that brought seven records into the store.
void addOldRun(Books& books) {
  pvss::StoreWriter old = books.writers[0];
  old.writer = "1.00";
  old.values = 7;
  books.writers.push_back(old);
}

/// So many records more had gone by when the present run came.
void publishMoreBefore(Books& books, std::int64_t records) {
  books.ledgers[0].received[0].before += records;
  books.ledgers[0].received[0].last += records;
  books.ledgers[1].sent[0].last = books.ledgers[1].sent[0].lastAcknowledged += records;
}

TEST(Ledger, ARunThatWasKilledIsHeldAgainstWhatHadBeenPublished) {
  Books books = agreeing();
  addOldRun(books);
  Ledger ledger = balance(books, false);
  ASSERT_EQ(ledger.gone.size(), 1U);
  EXPECT_EQ(ledger.gone[0].manager, 1);
  EXPECT_THAT(ledger.gone[0].writers, ElementsAre("1.00"));
  EXPECT_EQ(ledger.gone[0].published, 10) << "what had gone by when the present run came";
  EXPECT_EQ(ledger.gone[0].applied, 7);
  EXPECT_EQ(ledger.gone[0].inFlight, 3);
  EXPECT_TRUE(ledger.balanced());

  publishMoreBefore(books, mostInFlight(0));
  ledger = balance(books, false);
  ASSERT_EQ(ledger.why.size(), 1U);
  EXPECT_THAT(ledger.why[0], HasSubstr("more than its queues hold"));
}

TEST(Ledger, WhatMayHaveBeenInFlightIsWhatTheConfiguredQueuesHold) {
  Books books = agreeing();
  addOldRun(books);
  books.managers[0].counters.emplace_back("backlogBound", "12800");
  EXPECT_EQ(balance(books, false).gone.at(0).bound, mostInFlight(12800));
  EXPECT_EQ(mostInFlight(0) - mostInFlight(12800), (64 << 20) / 128 - 100);

  publishMoreBefore(books, mostInFlight(12800));
  const Ledger ledger = balance(books, false);
  ASSERT_EQ(ledger.why.size(), 1U);
  EXPECT_THAT(ledger.why[0], HasSubstr("more than its queues hold"));
}

TEST(Ledger, ARunThatWasKilledAndHasNoSuccessorIsHeldAgainstEverythingPublished) {
  Books books = agreeing();
  books.managers[0].leaseHeld = false;
  books.ledgers.erase(books.ledgers.begin());
  const Ledger ledger = balance(books, false);
  EXPECT_TRUE(ledger.balanced()) << testing::PrintToString(ledger.why);
  EXPECT_TRUE(ledger.subscribe.empty());
  ASSERT_EQ(ledger.gone.size(), 1U);
  EXPECT_EQ(ledger.gone[0].published, 110);
  EXPECT_EQ(ledger.gone[0].inFlight, 12);
  ASSERT_EQ(ledger.writes.size(), 1U);
  EXPECT_FALSE(ledger.writes[0].alive);
}

TEST(Ledger, APublisherOlderThanTheStoresMemoryIsNotHeldAgainstAnybody) {
  Books books = agreeing();
  books.managers[0].leaseHeld = false;
  books.ledgers.erase(books.ledgers.begin());
  books.members[1].startedNanoseconds = (startedMs - 5) * 1'000'000;
  const Ledger ledger = balance(books, false);
  ASSERT_EQ(ledger.gone.size(), 1U);
  EXPECT_EQ(ledger.gone[0].published, std::nullopt);
  EXPECT_TRUE(ledger.balanced());
}

TEST(Ledger, ToolsThatWriteAreNoManagers) {
  Books books = agreeing();
  pvss::StoreWriter tool;
  tool.writer = "kelgw.123";
  books.writers.push_back(tool);
  EXPECT_TRUE(balance(books, false).gone.empty());
}

TEST(Ledger, IsQuietWhenNothingMovedFromOneHeartbeatToTheNext) {
  const Books before = agreeing();
  Books now = before;
  EXPECT_FALSE(quiet(before, now)) << "these are the counters of the same heartbeat";
  now.managers[0].lastBeatMs = 2000;
  EXPECT_TRUE(quiet(before, now));
  for (const auto& move : std::vector<std::function<void(Books&)>>{
           [](Books& b) { setCounter(b, "hotLinks", "6"); }, [](Books& b) { ++b.writers[0].attributes; },
           [](Books& b) { ++b.ledgers[0].received[0].counters.held; },
           [](Books& b) { ++b.ledgers[1].sent[0].counters.outgoingPending; },
           [](Books& b) { ++b.kept[0].sequence; }, [](Books& b) { b.ledgers.pop_back(); },
           [](Books& b) { b.managers.clear(); }, [](Books& b) { b.managers[0].leaseHeld = false; }}) {
    Books moved = now;
    move(moved);
    EXPECT_FALSE(quiet(before, moved));
  }
}

}  // namespace
}  // namespace kelgw
