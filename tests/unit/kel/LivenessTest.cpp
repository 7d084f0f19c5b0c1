// Signs of life: presence, probes, and what happens when they fail to come.

#include "KelFixture.h"
#include "PayloadBuilder.h"
#include "ScriptedSession.h"
#include "session/ControlPayload.h"

namespace kel {
namespace {

using namespace std::chrono_literals;
using testing::delimited;
using testing::intMetric;
using testing::Journal;
using testing::KelFixture;
using testing::Listener;
using testing::metric;
using testing::number;
using testing::ScriptedSession;

struct LivenessTest : KelFixture {
  /// A record of a publisher that exists only in this test.
  static std::string record(int value, std::uint64_t sequence) {
    return intMetric("_value", static_cast<std::uint32_t>(value)) +
           metric("_publisher", 12, delimited(15, "ghost/1")) + metric("_seq", 4, number(11, sequence));
  }
  void presence(bool alive = true) {
    broker->publish("kel/g/publisher/ghost/1",
                    alive ? encodePresence({{"ghost", "1"}, "h", 1, 1, keepAlive, {}}, 1) : "", true);
    settle();
  }
  void data(const std::string& payload) {
    broker->publish("kel/g/data/x", payload, true);
    settle();
  }
  std::chrono::seconds keepAlive{5};
  std::size_t said(const std::string& topic) {
    std::size_t count = 0;
    for (const auto& entry : broker->recorded()) count += entry.first == topic ? 1U : 0U;
    return count;
  }
};

TEST_F(LivenessTest, APublisherIsHeardOfTwiceInEveryKeepAlive) {
  broker->record("kel/g/publisher/#");
  auto a = factory("a", "a1");
  const std::size_t before = said("kel/g/publisher/a/a1");
  advance(50s);
  const std::size_t times = said("kel/g/publisher/a/a1") - before;
  EXPECT_GE(times, 19U);
  EXPECT_LE(times, 20U);
}

TEST_F(LivenessTest, AHalfOpenPublisherIsGoneWithinTwoKeepAlivesAndTwoSeconds) {
  Listener& listener = newListener();
  auto subscriber = factory("sub", "s1");
  auto a = factory("a", "a1");
  subscriber->createSubscription("x", &listener);
  settle();
  send(a->createPublication("x", nullptr), 1);
  listener.lines(2);
  broker->freeze("a-a1");
  advance(12s);
  EXPECT_EQ(listener.lines(3)[2], "disconnected: publisher a is gone");
}

TEST_F(LivenessTest, AHalfOpenSubscriberLosesItsConnectionsWithinTwoKeepAlivesAndTwoSeconds) {
  Listener& listener = newListener();
  auto subscriber = factory("sub", "s1");
  auto a = factory("a", "a1");
  subscriber->createSubscription("x", &listener);
  settle();
  send(a->createPublication("x", nullptr), 1);
  listener.lines(2);
  broker->setReachable("none", false);
  broker->freeze("sub-s1");
  advance(12s);
  const Journal journal = listener.lines(5);
  EXPECT_TRUE(journal[2].starts_with("disconnected: ")) << journal[2];
  EXPECT_EQ(journal[3], "connected");
  EXPECT_EQ(journal[4], "record 1");
}

TEST_F(LivenessTest, ARecordWaitsForTheSignOfLifeOfItsPublisher) {
  Listener& listener = newListener();
  auto subscriber = factory("sub", "s1");
  subscriber->createSubscription("x", &listener);
  settle();
  data(record(1, 1));
  data(record(2, 2));
  EXPECT_EQ(subscriber->counters("x").held, 1);
  EXPECT_EQ(subscriber->counters("x").superseded, 1);
  presence();
  EXPECT_EQ(listener.lines(2), (Journal{"connected", "record 2"}));
  EXPECT_TRUE(balanced(subscriber->counters()));
}

TEST_F(LivenessTest, APublisherThatIsNotHeardOfIsGoneAndItsKeptRecordComesBackWithIt) {
  Listener& listener = newListener();
  auto subscriber = factory("sub", "s1");
  subscriber->createSubscription("x", &listener);
  settle();
  presence();
  data(record(1, 1));
  listener.lines(2);
  advance(9900ms);
  EXPECT_EQ(listener.all().size(), 2U);
  advance(200ms);
  EXPECT_EQ(listener.lines(3)[2], "disconnected: publisher ghost was not heard of in time");
  presence();
  EXPECT_EQ(listener.lines(5),
            (Journal{"connected", "record 1", "disconnected: publisher ghost was not heard of in time",
                     "connected", "record 1"}));
}

TEST_F(LivenessTest, APublisherWithALongerKeepAliveHasItsOwnTime) {
  Listener& listener = newListener();
  auto subscriber = factory("sub", "s1");
  subscriber->createSubscription("x", &listener);
  settle();
  keepAlive = 30s;
  presence();
  data(record(1, 1));
  listener.lines(2);
  advance(59s);
  EXPECT_EQ(listener.all().size(), 2U);
  advance(2s);
  EXPECT_EQ(listener.lines(3)[2], "disconnected: publisher ghost was not heard of in time");
}

TEST_F(LivenessTest, ARecordThatIsHeldGoesWhenItsPublisherWithdraws) {
  Listener& listener = newListener();
  auto subscriber = factory("sub", "s1");
  subscriber->createSubscription("x", &listener);
  settle();
  data(record(1, 1));
  presence(false);
  EXPECT_EQ(subscriber->counters("x").discarded, 1);
  presence();
  data(record(2, 2));
  EXPECT_EQ(listener.lines(2), (Journal{"connected", "record 2"}));
}

TEST_F(LivenessTest, ManyProbesGetOneAnswer) {
  auto a = factory("a", "a1");
  advance(1s);
  broker->record("kel/g/publisher/#");
  for (int i = 0; i < 50; ++i) broker->publish("kel/g/probe", "somebody", false);
  settle();
  advance(100ms);
  EXPECT_LE(said("kel/g/publisher/a/a1"), 2U);
  EXPECT_GE(said("kel/g/publisher/a/a1"), 1U);
}

TEST_F(LivenessTest, APresenceThatALateWillTookAwayIsPublishedAgain) {
  auto a = factory("a", "a1");
  broker->publish("kel/g/publisher/a/a1", "", true);
  settle();
  EXPECT_NE(broker->retained("kel/g/publisher/a/a1"), "");
}

TEST_F(LivenessTest, ANewcomerLearnsOfThePublishersWithinAMoment) {
  auto a = factory("a", "a1");
  send(a->createPublication("x", nullptr), 1);
  advance(2s);
  Listener& listener = newListener();
  auto subscriber = factory("sub", "s1");
  subscriber->createSubscription("x", &listener);
  settle();
  advance(200ms);
  EXPECT_EQ(listener.lines(2), (Journal{"connected", "record 1"}));
}

TEST_F(ScriptedSession, AsksForPresenceFirstAndHasItsOwnAsItsWill) {
  network->to->tick(t0);
  network->to->up();
  ASSERT_EQ(network->subscribed.size(), 2U);
  EXPECT_EQ(network->subscribed[0].first, "kel/g/publisher/#");
  EXPECT_EQ(network->subscribed[1].first, "kel/g/probe");
  ASSERT_EQ(network->published.size(), 1U);
  EXPECT_EQ(network->published[0].first, "kel/g/publisher/me/m1");
  EXPECT_EQ(network->expiry, 10U) << "two keep-alives";
  EXPECT_EQ(network->will, "kel/g/publisher/me/m1");
}

TEST_F(ScriptedSession, ClaimsNothingBeforeItsOwnPresenceIsBack) {
  session->createPublication("x", nullptr);
  network->to->tick(t0);
  network->to->up();
  answerAll();
  EXPECT_EQ(network->subscribed.size(), 2U);
  network->to->message("kel/g/publisher/me/m1", network->published[0].second, true);
  EXPECT_EQ(network->subscribed.size(), 2U) << "kept from an earlier link: proves nothing";
  network->to->message("kel/g/publisher/me/m1", network->published[0].second, false);
  ASSERT_EQ(network->subscribed.size(), 3U);
  EXPECT_EQ(network->subscribed[2].first, "kel/g/claim/x");
  answerAll();
  EXPECT_EQ(network->published.back().first, "kel/g/claim/x");
}

TEST_F(ScriptedSession, AsksAgainInRotationForWhatHasComeAndWhatHasNot) {
  Listener silent;
  Listener heard;
  session->createSubscription("silent", &silent);
  session->createSubscription("heard", &heard);
  network->to->tick(t0);
  network->to->up();
  answerAll();
  network->to->message("kel/g/publisher/me/m1", network->published[0].second, false);
  answerAll();
  network->to->message("kel/g/data/heard", LivenessTest::record(1, 1), true);
  const auto asked = [&](const char* topic) {
    return std::count_if(network->subscribed.begin(), network->subscribed.end(),
                         [&](const auto& entry) { return entry.first == topic; });
  };
  auto at = t0;
  const auto run = [&](std::chrono::seconds span) {
    for (const auto end = at + span; at < end; at += 100ms) {
      network->to->tick(at);
      answerAll();
    }
  };
  run(31s);
  EXPECT_EQ(asked("kel/g/data/silent"), 2);
  EXPECT_EQ(asked("kel/g/data/heard"), 2);
  run(30s);
  EXPECT_EQ(asked("kel/g/data/silent"), 3);
  EXPECT_EQ(asked("kel/g/data/heard"), 3);
}

TEST_F(ScriptedSession, AsksForAllAgainAfterItWasStoppedItself) {
  for (int i = 0; i < 100; ++i) session->createSubscription(("x" + std::to_string(i)).c_str(), &listener);
  network->to->tick(t0);
  network->to->up();
  answerAll();
  network->to->message("kel/g/publisher/me/m1", network->published[0].second, false);
  answerAll();
  auto at = t0;
  for (; at < t0 + 20s; at += 100ms) {
    network->to->tick(at);
    answerAll();
  }
  const std::size_t before = network->subscribed.size();
  network->to->tick(at += 5s);
  network->to->tick(at += 80ms);
  EXPECT_EQ(network->subscribed.size() - before, 64U) << "no more than the broker can queue";
  answerAll();
  network->to->tick(at += 80ms);
  EXPECT_GE(network->subscribed.size() - before, 100U);
}

TEST_F(ScriptedSession, SaysThatItsPresenceDoesNotComeBackAndAsksForItAgain) {
  network->to->tick(t0);
  network->to->up();
  answerAll();
  network->to->published(network->tokens[0], "");
  const auto before = network->subscribed.size();
  ::testing::internal::CaptureStderr();
  for (auto at = t0; at < t0 + 30s; at += 100ms) network->to->tick(at);
  const std::string said = ::testing::internal::GetCapturedStderr();
  EXPECT_EQ(std::count(said.begin(), said.end(), '\n'), 1) << said;
  EXPECT_NE(said.find("does not give it back"), std::string::npos);
  EXPECT_GT(network->subscribed.size(), before);
}

TEST_F(ScriptedSession, TellsOfAClaimThatTheBrokerRefuses) {
  KelPublication* publication = session->createPublication("x", &handler);
  network->to->tick(t0);
  network->to->up();
  answerAll();
  network->to->message("kel/g/publisher/me/m1", network->published[0].second, false);
  answerAll();
  ASSERT_EQ(network->published.back().first, "kel/g/claim/x");
  network->to->published(network->tokens.back(), "not authorised");
  EXPECT_EQ(handler.lines(1), Journal{"x: the broker refused the claim on publication x: not authorised"});
  session->destroyPublication(publication);
}

TEST_F(ScriptedSession, DoesNotTakeEverybodyForGoneAfterItWasStoppedItself) {
  session->createSubscription("x", &listener);
  network->to->tick(t0);
  network->to->up();
  network->to->message("kel/g/publisher/ghost/1", "\x08\x01", false);
  network->to->message("kel/g/data/x", LivenessTest::record(1, 1), true);
  listener.lines(2);
  // A minute in which this process did not run; what arrived meanwhile is read after the tick.
  network->to->tick(t0 + 60s);
  network->to->message("kel/g/publisher/ghost/1", "\x08\x01", false);
  for (auto time = 60s; time < 69s; time += 1s) network->to->tick(t0 + time);
  network->to->message("kel/g/data/x", LivenessTest::record(2, 2), false);
  EXPECT_EQ(listener.lines(3), (Journal{"connected", "record 1", "record 2"}));
  network->to->down("over");
  listener.lines(4);
}

TEST_F(ScriptedSession, SubscribesToManyTopicsWithoutFloodingTheBroker) {
  for (int i = 0; i < 500; ++i) session->createSubscription(("x" + std::to_string(i)).c_str(), &listener);
  network->to->tick(t0);
  network->to->up();
  EXPECT_EQ(network->subscribed.size(), 64U);
  for (; answered < network->subscribed.size(); ++answered) {
    network->to->subscribed(network->subscribed[answered].second, "");
    EXPECT_LE(network->subscribed.size() - answered - 1, 64U);
  }
  EXPECT_EQ(network->subscribed.size(), 502U);
}

TEST_F(ScriptedSession, KeepsAtMostTwoHundredRecordsUnderWay) {
  KelPublication* publication = session->createPublication("x", nullptr);
  network->to->tick(t0);
  network->to->up();
  answerAll();
  network->to->message("kel/g/publisher/me/m1", network->published[0].second, false);
  answerAll();
  const std::string claim = network->published.back().second;
  network->to->message("kel/g/claim/x", claim, false);
  const std::size_t before = network->published.size();
  KelData data;
  for (int i = 0; i < 1000; ++i) publication->send(data, KelTimestamp(1));
  EXPECT_EQ(network->published.size() - before, 200U);
  EXPECT_EQ(session->counters().outgoingPending, 1000);
  for (std::size_t i = before; i < network->tokens.size(); ++i)
    network->to->published(network->tokens[i], "");
  EXPECT_EQ(network->published.size() - before, 1000U);
  EXPECT_EQ(session->counters().outgoingPending, 0);
  EXPECT_EQ(session->counters().acknowledged, 1000);
}

}  // namespace
}  // namespace kel
