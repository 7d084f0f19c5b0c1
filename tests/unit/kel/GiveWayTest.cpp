// Two process runs under one publisher name: who has nothing but bad records gives way to who has good ones.

#include <algorithm>

#include "KelFixture.h"
#include "PayloadBuilder.h"
#include "ScriptedSession.h"
#include "session/ControlPayload.h"

namespace kel {
namespace {

using namespace std::chrono_literals;
using testing::Handler;
using testing::Journal;
using testing::KelFixture;
using testing::Listener;
using testing::metric;
using testing::number;

struct GiveWayTest : KelFixture {
  GiveWayTest() {
    broker->record("kel/g/publisher/gw/#");
    first = factory("gw", "1");
    x1 = first->createPublication("x", &told);
    send(x1, 1);
    settle();
    watch = factory("watch", "w1");
    watch->createSubscription("x", &listener);
    listener.lines(2);
  }
  /// One who waits for the name, a second after its last sign of life.
  void secondComes() {
    second = factory("gw", "2");
    x2 = second->createPublication("x", nullptr);
    send(x2, 2);
    advance(1s);
  }
  std::string owner(const std::string& publication = "x") {
    const auto claim = decodeClaim(broker->retained("kel/g/claim/" + publication));
    return claim ? claim->publisher.text() : "";
  }
  /// How often a presence was withdrawn.
  std::int64_t withdrawals() {
    const auto all = broker->recorded();
    return std::count_if(all.begin(), all.end(), [](const auto& entry) { return entry.second.empty(); });
  }
  PresenceNews said(const std::string& incarnation) {
    return presenceNews(broker->retained("kel/g/publisher/gw/" + incarnation));
  }
  void presence(const std::string& publisher, const std::string& more) {
    const std::string keepAlive = metric("keepAlive", 4, number(11, 5));
    broker->publish("kel/g/publisher/" + publisher, keepAlive + more, true);
    settle();
  }
  static std::string publishing(std::uint64_t count) { return metric("publishing", 4, number(11, count)); }

  Listener& listener = newListener();
  Handler& told = newHandler();
  Factory first, second, watch;
  KelPublication* x1 = nullptr;
  KelPublication* x2 = nullptr;
  const Journal untilBad{"connected", "record 1", "record 1 q0 (store away)"};
};

TEST_F(GiveWayTest, TheNameGoesToWhoHasGoodRecordsTwoSecondsAfterTheLastGoodOneOfItsOwner) {
  secondComes();
  ::testing::internal::CaptureStderr();
  x1->declareBad("store away");
  advance(1900ms);
  EXPECT_EQ(listener.lines(3), untilBad);
  EXPECT_EQ(owner(), "gw/1");
  advance(500ms);
  Journal all = untilBad;
  all.insert(all.end(), {"disconnected: publisher gw is gone", "connected", "record 2"});
  EXPECT_EQ(listener.lines(6), all);
  EXPECT_EQ(owner(), "gw/2");
  EXPECT_NE(broker->retained("kel/g/publisher/gw/1"), "") << "it is still there";
  const std::string log = ::testing::internal::GetCapturedStderr();
  EXPECT_NE(log.find("another one publishes good records under the name gw (gw/2)"), std::string::npos)
      << log;
  EXPECT_EQ(told.all(), Journal{});
  send(x2, 4);
  listener.lines(7);
  advance(1min);
  EXPECT_EQ(withdrawals(), 1) << "and that is all";
  EXPECT_EQ(listener.all().size(), 7U);
}

TEST_F(GiveWayTest, NobodyGivesWayToOneThatIsBadAsWell) {
  secondComes();
  ASSERT_EQ(said("2").publishing, 0) << "its first presence came before its first record";
  advance(2s);
  ASSERT_EQ(said("2").publishing, 1) << "what was said last is not what is true now";
  x1->declareBad("store away");
  x2->declareBad("store away");
  advance(1min);
  EXPECT_EQ(owner(), "gw/1");
  EXPECT_EQ(withdrawals(), 0);
  EXPECT_EQ(listener.all(), untilBad);
  send(x2, 3);
  advance(3s);
  EXPECT_EQ(owner(), "gw/2") << "until it is good";
  EXPECT_EQ(listener.lines(6).back(), "record 3");
}

TEST_F(GiveWayTest, OneGoodPublicationKeepsTheName) {
  KelPublication* other = first->createPublication("y", nullptr);
  send(other, 1);
  secondComes();
  x1->declareBad("store away");
  advance(1min);
  EXPECT_EQ(owner(), "gw/1");
  EXPECT_EQ(withdrawals(), 0);
  other->declareBad("store away");
  advance(3s);
  EXPECT_EQ(owner(), "gw/2");
  EXPECT_EQ(owner("y"), "") << "nobody publishes it now";
}

TEST_F(GiveWayTest, AGoodRecordInBetweenBeginsThePatienceAnew) {
  secondComes();
  x1->declareBad("store away");
  advance(1500ms);
  send(x1, 3);
  x1->declareBad("store away");
  advance(1500ms);
  EXPECT_EQ(owner(), "gw/1");
  advance(1s);
  EXPECT_EQ(owner(), "gw/2");
}

TEST_F(GiveWayTest, WhoGaveWayWaitsAlsoWhenItIsGoodAgain) {
  secondComes();
  x1->declareBad("store away");
  advance(3s);
  ASSERT_EQ(owner(), "gw/2");
  for (int i = 3; i <= 6; ++i) send(x1, i);
  advance(1min);
  EXPECT_EQ(owner(), "gw/2");
  EXPECT_EQ(listener.lines(6).back(), "record 2");
  EXPECT_EQ(first->counters().outgoingPending, 1);
  second.reset();
  ASSERT_TRUE(first->flush(30s));
  EXPECT_EQ(listener.lines(9).back(), "record 6");
  EXPECT_EQ(owner(), "gw/1");
  EXPECT_TRUE(balanced(first->counters()));
}

TEST_F(GiveWayTest, WhoseTurnItIsAgainTakesItToo) {
  secondComes();
  x1->declareBad("store away");
  advance(3s);
  ASSERT_EQ(owner(), "gw/2");
  send(x1, 3);
  x2->declareBad("its store, too");
  advance(3s);
  EXPECT_EQ(owner(), "gw/1");
  EXPECT_EQ(listener.lines(10).back(), "record 3");
  advance(1min);
  EXPECT_EQ(withdrawals(), 2);
}

TEST_F(GiveWayTest, WhatNothingWasSaidOfIsNeitherGoodNorBad) {
  first->createPublication("y", nullptr);
  secondComes();
  x1->declareBad("store away");
  advance(3s);
  EXPECT_EQ(owner(), "gw/2");
}

TEST_F(GiveWayTest, WhoHasSaidNothingYetKeepsItsName) {
  first->destroyPublication(x1);
  first->createPublication("x", nullptr);
  secondComes();
  advance(1min);
  EXPECT_EQ(owner(), "gw/1");
  EXPECT_EQ(withdrawals(), 0);
}

TEST_F(GiveWayTest, OnlyALivePresenceOfTheSameNameThatSaysItHasGoodRecordsCounts) {
  x1->declareBad("store away");
  for (int i = 0; i < 30; ++i) {
    advance(500ms);
    presence("gw/silent", "");
    presence("gw/none", publishing(0));
    presence("gw2/other", publishing(7));
  }
  EXPECT_EQ(owner(), "gw/1");
  EXPECT_EQ(withdrawals(), 0);
  presence("gw/good", publishing(1));
  EXPECT_EQ(withdrawals(), 1);
  EXPECT_EQ(owner(), "");
  // Whom it gave way for is not there after all.
  advance(15s);
  EXPECT_EQ(owner(), "gw/1");
}

TEST_F(GiveWayTest, AWithdrawalThatWasDroppedIsKnownByTheNextPresence) {
  secondComes();
  x1->declareBad("store away");
  advance(1900ms);
  broker->setDeaf("gw-2", true);
  advance(2500ms);
  ASSERT_EQ(withdrawals(), 1);
  ASSERT_EQ(owner(), "");
  broker->setDeaf("gw-2", false);
  advance(3s);
  EXPECT_EQ(owner(), "gw/2");
  EXPECT_EQ(listener.lines(6).back(), "record 2");
}

TEST_F(GiveWayTest, TheNextInTurnThatIsBadGivesWayToo) {
  secondComes();
  x2->declareBad("not mine");
  Factory third = factory("gw", "3");
  KelPublication* x3 = third->createPublication("x", nullptr);
  send(x3, 3);
  x1->declareBad("store away");
  advance(10s);
  EXPECT_EQ(owner(), "gw/3");
  EXPECT_EQ(listener.waitFor([](const Journal& all) { return all.back() == "record 3"; }), true);
  advance(1min);
  EXPECT_EQ(withdrawals(), 2) << "once each";
  third.reset();
  advance(1s);
  EXPECT_EQ(owner(), "gw/1") << "in the order in which they came behind it";
}

TEST_F(GiveWayTest, WhatSomebodyElseClaimedMeanwhileIsHis) {
  secondComes();
  x1->declareBad("store away");
  advance(3s);
  ASSERT_EQ(owner(), "gw/2");
  second->destroyPublication(x2);
  Factory other = factory("other", "o");
  send(other->createPublication("x", nullptr), 7);
  settle();
  ASSERT_EQ(owner(), "other/o");
  listener.clear();
  broker->record("kel/g/claim/x");
  const std::size_t before = broker->recorded().size();
  second.reset();
  advance(1s);
  EXPECT_EQ(owner(), "other/o");
  EXPECT_EQ(told.lines(1), Journal{"x: publication x waits: it is published by other"});
  const auto all = broker->recorded();
  for (std::size_t i = before; i < all.size(); ++i) {
    const auto claim = decodeClaim(all[i].second);
    EXPECT_FALSE(claim && claim->publisher.name == "gw" && claim->owner) << "it never took it for its own";
  }
}

/// One that owns its only publication, which is bad; the test is the network and the clock.
struct BadOwnerTest : testing::ScriptedSession {
  BadOwnerTest() {
    KelPublication* publication = session->createPublication("x", nullptr);
    network->to->tick(t0);
    network->to->up();
    answerAll();
    network->to->message(own, network->published.back().second, false);
    answerAll();
    network->to->message("kel/g/claim/x", network->published.back().second, false);
    publication->declareBad("store away");
    network->to->tick(now += 100ms);
  }
  void run(std::chrono::milliseconds span) {
    for (const auto end = now + span; now < end;) network->to->tick(now += 400ms);
  }
  /// Another one of the name says that it has good records.
  void other(bool kept = false) {
    PresencePayload good;
    good.publisher = {"me", "m2"};
    good.publishing = 1;
    network->to->message("kel/g/publisher/me/m2", encodePresence(good, 1), kept);
  }
  bool gaveWay() const {
    return std::any_of(network->published.begin(), network->published.end(),
                       [&](const auto& message) { return message.first == own && message.second.empty(); });
  }

  const std::string own = "kel/g/publisher/me/m1";
  std::chrono::steady_clock::time_point now = t0;
};

TEST_F(BadOwnerTest, TimeInWhichTheProcessDidNotRunIsNoTimeInWhichItWasBad) {
  ASSERT_EQ(network->published.back().first, "kel/g/data/x");
  network->to->tick(now += 5s);
  other();
  run(400ms);
  EXPECT_FALSE(gaveWay()) << "it could not hear that all is well again";
  run(2s);
  other();
  EXPECT_TRUE(gaveWay());
}

TEST_F(BadOwnerTest, WhatTheBrokerKeptMayBeOfBefore) {
  other();
  run(3s);
  other(true);
  EXPECT_FALSE(gaveWay());
  other();
  EXPECT_TRUE(gaveWay());
}

TEST_F(BadOwnerTest, WhoIsOneTooManyToBeKnownIsNobodyToGiveWayTo) {
  run(3s);
  for (std::size_t i = 0; i < PeerTable::mostPeers; ++i)
    network->to->message("kel/g/publisher/p" + std::to_string(i) + "/1", encodePresence({}, 1), false);
  other();
  EXPECT_FALSE(gaveWay());
}

TEST_F(GiveWayTest, AWaitingOneCountsWhatItWouldPublish) {
  second = factory("gw", "2");
  x2 = second->createPublication("x", nullptr);
  KelPublication* y = second->createPublication("y", nullptr);
  second->createPublication("z", nullptr);
  send(x2, 2);
  send(y, 2);
  advance(3s);
  EXPECT_EQ(said("2").publishing, 2);
  y->declareBad("gone");
  advance(3s);
  EXPECT_EQ(said("2").publishing, 1);
  second->destroyPublication(x2);
  advance(3s);
  EXPECT_EQ(said("2").publishing, 0);
}

}  // namespace
}  // namespace kel
