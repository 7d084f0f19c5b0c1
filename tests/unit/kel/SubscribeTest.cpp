#include <gmock/gmock.h>

#include "KelFixture.h"
#include "PayloadBuilder.h"

namespace kel {
namespace {

using namespace std::chrono_literals;
using testing::Handler;
using testing::Journal;
using testing::KelFixture;
using testing::Listener;

/// A publisher "pub" with publication "plant/x" and a subscriber "sub".
struct SubscribeTest : KelFixture {
  void SetUp() override {
    subscriber = factory("sub", "s1");
    publisher = factory("pub", "p1");
    publication = publisher->createPublication("plant/x", &handler);
  }
  void subscribe() {
    subscription = subscriber->createSubscription("plant/x", &listener);
    advance(100ms);  // it has said so, and answers the next probe at once
  }
  /// Records sent so far have been given to the broker.
  void flushed() { ASSERT_TRUE(publisher->flush(30s)); }

  Listener listener;
  Handler handler;
  Factory subscriber;
  Factory publisher;
  KelPublication* publication = nullptr;
  KelSubscription* subscription = nullptr;
};

TEST_F(SubscribeTest, ConnectsBeforeTheFirstRecord) {
  subscribe();
  send(publication, 1);
  send(publication, 2);
  EXPECT_EQ(listener.lines(3), (Journal{"connected", "record 1", "record 2"}));
  EXPECT_STREQ(subscription->getTopicName(), "plant/x");
}

TEST_F(SubscribeTest, CarriesFieldsQualityTimeAndPublisher) {
  KelTimestamp time;
  std::string who;
  double temperature = 0;
  listener.onMessage = [&](KelSubscription*, KelData& data) {
    time = data.getTimestamp();
    who = data.getPublisher();
    temperature = data.extractDouble("temperature");
  };
  subscribe();
  KelData data;
  data.insert(21.5, "temperature");
  publication->send(data, KelTimestamp(-5));
  listener.lines(2);
  EXPECT_EQ(time.timeNanoseconds, -5);
  EXPECT_EQ(who, "pub/p1");
  EXPECT_EQ(temperature, 21.5);
}

TEST_F(SubscribeTest, GetsTheKeptRecordOfALivePublisherWhenItComesLate) {
  send(publication, 7);
  flushed();
  subscribe();
  EXPECT_EQ(listener.lines(2), (Journal{"connected", "record 7"}));
}

TEST_F(SubscribeTest, DoesNotCallASendersChangeItsOwnRecordAfterwards) {
  subscribe();
  KelData data;
  data.insert(1, nullptr);
  publication->send(data, KelTimestamp(1));
  data.insert(2, nullptr);
  publication->send(data, KelTimestamp(2));
  EXPECT_EQ(listener.lines(3), (Journal{"connected", "record 1", "record 2"}));
}

TEST_F(SubscribeTest, HearsAtOnceThatAPublisherHasEnded) {
  subscribe();
  send(publication, 1);
  listener.lines(2);
  publisher.reset();
  EXPECT_EQ(listener.lines(3).back(), "disconnected: publisher pub is gone");
}

TEST_F(SubscribeTest, HearsAtOnceThatAPublisherWasCutOff) {
  subscribe();
  send(publication, 1);
  listener.lines(2);
  broker->setReachable("pub-p1", false);
  broker->cut("pub-p1");
  EXPECT_EQ(listener.lines(3).back(), "disconnected: publisher pub is gone");
}

TEST_F(SubscribeTest, ConnectsAgainWithTheNewestRecordWhenThePublisherIsBack) {
  subscribe();
  send(publication, 1);
  listener.lines(2);
  broker->setReachable("pub-p1", false);
  broker->cut("pub-p1");
  listener.lines(3);
  send(publication, 2);
  broker->setReachable("pub-p1", true);
  EXPECT_EQ(listener.lines(5), (Journal{"connected", "record 1", "disconnected: publisher pub is gone",
                                        "connected", "record 2"}));
}

TEST_F(SubscribeTest, ConnectsAgainWithTheSameRecordWhenNothingWasSentMeanwhile) {
  subscribe();
  send(publication, 1);
  listener.lines(2);
  broker->cut("pub-p1");
  EXPECT_EQ(listener.lines(5), (Journal{"connected", "record 1", "disconnected: publisher pub is gone",
                                        "connected", "record 1"}));
  settle();
  EXPECT_EQ(subscriber->counters().repeated, 0);
}

TEST_F(SubscribeTest, NeverShowsTheRecordOfAPublisherThatIsNotAlive) {
  send(publication, 1);
  flushed();
  publisher.reset();
  subscribe();
  settle();
  EXPECT_EQ(subscriber->counters().held, 1);
  publisher = factory("pub", "p2");
  publication = publisher->createPublication("plant/x", &handler);
  settle();
  send(publication, 2);
  EXPECT_EQ(listener.lines(2), (Journal{"connected", "record 2"}));
}

TEST_F(SubscribeTest, NeverTrustsAPresenceThatWasOnlyKept) {
  // A publisher and its broker died together; what the broker kept on disk says that it is alive.
  send(publication, 1);
  flushed();
  const std::string presence = broker->retained("kel/g/publisher/pub/p1");
  ASSERT_FALSE(presence.empty());
  publisher.reset();
  settle();
  broker->publish("kel/g/publisher/pub/p1", presence, true);
  settle();
  auto late = factory("late", "l1");
  Listener& other = newListener();
  late->createSubscription("plant/x", &other);
  settle();
  advance(4s);
  EXPECT_EQ(late->counters().held, 1);
  EXPECT_EQ(other.lines(1), Journal{"disconnected: publisher pub gives no sign of life"});
}

TEST_F(SubscribeTest, LosesEverythingWithItsOwnLinkAndGetsItBack) {
  subscribe();
  send(publication, 1);
  listener.lines(2);
  broker->cut("sub-s1");
  listener.lines(3);
  advance(100ms);  // the answer to the probe
  EXPECT_EQ(listener.lines(5), (Journal{"connected", "record 1",
                                        "disconnected: the link to the broker is lost: the link was cut",
                                        "connected", "record 1"}));
  EXPECT_EQ(subscriber->counters().reconnects, 1);
}

TEST_F(SubscribeTest, HearsThatAPublicationIsClosed) {
  subscribe();
  send(publication, 1);
  listener.lines(2);
  publisher->destroyPublication(publication);
  EXPECT_EQ(listener.lines(3).back(), "disconnected: the publication is closed");
  EXPECT_EQ(broker->retained("kel/g/data/plant/x"), "");
}

TEST_F(SubscribeTest, ConnectsToAPublicationThatIsOpenedAgain) {
  subscribe();
  send(publication, 1);
  listener.lines(2);
  publisher->destroyPublication(publication);
  publication = publisher->createPublication("plant/x", &handler);
  send(publication, 2);
  EXPECT_EQ(listener.lines(5), (Journal{"connected", "record 1", "disconnected: the publication is closed",
                                        "connected", "record 2"}));
}

TEST_F(SubscribeTest, DropsWhatItHasHadAlready) {
  subscribe();
  send(publication, 1);
  send(publication, 2);
  listener.lines(3);
  broker->cut("pub-p1");
  listener.lines(6);
  // An old record and the last one, once more, as a broker may give them.
  const std::string last = broker->retained("kel/g/data/plant/x");
  broker->publish("kel/g/data/plant/x", last, true);
  settle();
  EXPECT_EQ(subscriber->counters("plant/x").repeated, 1);
  send(publication, 3);
  EXPECT_EQ(listener.lines(7).back(), "record 3");
}

TEST_F(SubscribeTest, CountsTheRecordsThatAreMissing) {
  subscribe();
  send(publication, 1);
  listener.lines(2);
  broker->refuse("kel/g/data/plant/x", "full");
  send(publication, 2);
  send(publication, 3);
  flushed();
  broker->refuse("kel/g/data/plant/x", "");
  send(publication, 4);
  EXPECT_EQ(listener.lines(3).back(), "record 4");
  EXPECT_EQ(subscriber->counters().gaps, 2);
  EXPECT_EQ(publisher->counters().refused, 2);
}

TEST_F(SubscribeTest, DeliversABadRecordWithItsReason) {
  subscribe();
  send(publication, 1, 1);
  listener.lines(2);
  KelTimestamp time;
  listener.onMessage = [&](KelSubscription*, KelData& data) { time = data.getTimestamp(); };
  wallClock = 1'700'000'000'123'456'789;
  publication->declareBad("2 PVSS dpe's set to invalid");
  EXPECT_EQ(listener.lines(3).back(), "record 1 q0 (2 PVSS dpe's set to invalid)");
  EXPECT_EQ(time.timeNanoseconds, 1'700'000'000'123'456'789);
}

TEST_F(SubscribeTest, IsNotConnectedByARecordWithoutValue) {
  subscribe();
  publication->declareBad("nothing yet");
  EXPECT_EQ(listener.lines(1), Journal{"record q-1 (nothing yet)"});
  send(publication, 1);
  EXPECT_EQ(listener.lines(3), (Journal{"record q-1 (nothing yet)", "connected", "record 1"}));
}

TEST_F(SubscribeTest, IsDisconnectedByARecordWithoutValue) {
  subscribe();
  broker->publish("kel/g/data/plant/x", testing::intMetric("_value", 1), true);
  listener.lines(2);
  broker->publish("kel/g/data/plant/x", testing::intMetric("_quality", 0xFFFFFFFFU), true);
  EXPECT_EQ(listener.lines(4),
            (Journal{"connected", "record 1", "disconnected: the publication has no value", "record q-1"}));
}

TEST_F(SubscribeTest, IsConnectedToAForeignPublisherFromItsFirstRecord) {
  subscribe();
  KelTimestamp time;
  listener.onMessage = [&](KelSubscription*, KelData& data) { time = data.getTimestamp(); };
  broker->publish("kel/g/data/plant/x", testing::intMetric("_value", 4), true);
  EXPECT_EQ(listener.lines(2), (Journal{"connected", "record 4"}));
  EXPECT_EQ(time.timeNanoseconds, wallClock.load()) << "who gives no time speaks of now";
  publisher.reset();
  broker->publish("kel/g/data/plant/x", testing::intMetric("_value", 5), true);
  EXPECT_EQ(listener.lines(3).back(), "record 5");
  broker->publish("kel/g/data/plant/x", "", true);
  EXPECT_EQ(listener.lines(4).back(), "disconnected: the publication is closed");
}

TEST_F(SubscribeTest, CountsWhatIsNotARecordAndGoesOn) {
  subscribe();
  broker->publish("kel/g/data/plant/x", "not a record", true);
  broker->publish("kel/g/data/plant/x", "nor is this", true);
  settle();
  EXPECT_EQ(subscriber->counters("plant/x").decodeErrors, 2);
  send(publication, 1);
  EXPECT_EQ(listener.lines(2), (Journal{"connected", "record 1"}));
  EXPECT_TRUE(balanced(subscriber->counters()));
}

TEST_F(SubscribeTest, ReportsWhatIsNotARecordOnceAMinute) {
  subscribe();
  const auto bad = [&] {
    broker->publish("kel/g/data/plant/x", "not a\n record", true);
    settle();
  };
  const auto lines = [](const std::string& text) { return std::count(text.begin(), text.end(), '\n'); };
  ::testing::internal::CaptureStderr();
  for (int i = 0; i < 5; ++i) bad();
  const std::string first = ::testing::internal::GetCapturedStderr();
  ::testing::internal::CaptureStderr();
  advance(59s);
  bad();
  const std::string quiet = ::testing::internal::GetCapturedStderr();
  ::testing::internal::CaptureStderr();
  advance(2s);
  bad();
  const std::string second = ::testing::internal::GetCapturedStderr();
  EXPECT_EQ(lines(first), 1) << first;
  EXPECT_NE(first.find("kel warn not a record on kel/g/data/plant/x: the payload is truncated"),
            std::string::npos);
  EXPECT_EQ(quiet, "");
  EXPECT_EQ(lines(second), 1) << second;
  EXPECT_NE(second.find("(6 since the last report)"), std::string::npos) << second;
}

TEST_F(SubscribeTest, TellsOfANameThatNoPublicationCanHave) {
  subscriber->createSubscription("", &listener);
  EXPECT_EQ(listener.lines(1), Journal{"exception: no publication can be called '': the name is empty"});
}

TEST_F(SubscribeTest, TellsOfASubscriptionThatTheBrokerRefuses) {
  broker->refuse("kel/g/data/secret", "not authorised");
  subscriber->createSubscription("secret", &listener);
  EXPECT_EQ(listener.lines(1),
            Journal{"exception: the broker refused the subscription to secret: not authorised"});
}

TEST_F(SubscribeTest, SubscribesAgainUntilTheBrokerGrantsIt) {
  broker->refuse("kel/g/data/plant/x", "not authorised");
  subscribe();
  listener.lines(1);
  advance(30s);
  const Journal told{"exception: the broker refused the subscription to plant/x: not authorised",
                     "disconnected: the broker refused the subscription: not authorised"};
  EXPECT_EQ(listener.lines(2), told) << "told once, however often it was asked for";
  send(publication, 1);
  broker->refuse("kel/g/data/plant/x", "");
  advance(11s);
  EXPECT_EQ(listener.lines(4)[2], "connected");
}

TEST_F(SubscribeTest, ResendsTheLastRecordInOrderToOneSubscriptionAlone) {
  subscribe();
  Listener& second = newListener();
  KelSubscription* other = subscriber->createSubscription("plant/x", &second);
  send(publication, 1);
  listener.lines(2);
  second.lines(2);
  subscription->requestResend();
  EXPECT_EQ(listener.lines(3), (Journal{"connected", "record 1", "record 1"}));
  send(publication, 2);
  EXPECT_EQ(second.lines(3), (Journal{"connected", "record 1", "record 2"}));
  listener.lines(4);
  other->requestResend();
  EXPECT_EQ(second.lines(4).back(), "record 2");
  EXPECT_TRUE(balanced(subscriber->counters()));
  EXPECT_TRUE(balanced(subscriber->counters("plant/x")));
}

TEST_F(SubscribeTest, ResendsNothingWhileThereIsNothing) {
  subscribe();
  subscription->requestResend();
  send(publication, 1);
  EXPECT_EQ(listener.lines(2), (Journal{"connected", "record 1"}));
  publisher.reset();
  listener.lines(3);
  subscription->requestResend();
  publisher = factory("pub", "p2");
  publication = publisher->createPublication("plant/x", &handler);
  send(publication, 2);
  EXPECT_EQ(listener.lines(5), (Journal{"connected", "record 1", "disconnected: publisher pub is gone",
                                        "connected", "record 2"}));
}

TEST_F(SubscribeTest, IsNotConnectedByWhatItCannotRead) {
  subscribe();
  send(publication, 1);
  listener.lines(2);
  broker->publish("kel/g/data/plant/x", "not a record", true);
  ASSERT_EQ(listener.lines(3).size(), 3U);
  EXPECT_THAT(listener.lines(3)[2],
              ::testing::StartsWith("disconnected: its newest record cannot be read: "));
  broker->publish("kel/g/data/plant/x", "nor is this", true);
  settle();
  send(publication, 2);
  EXPECT_EQ(listener.lines(5),
            (Journal{"connected", "record 1", listener.all()[2], "connected", "record 2"}));
  EXPECT_TRUE(balanced(subscriber->counters()));
}

TEST_F(SubscribeTest, ASecondSubscriptionGetsWhatTheFirstHas) {
  subscribe();
  send(publication, 1);
  listener.lines(2);
  Listener& second = newListener();
  subscriber->createSubscription("plant/x", &second);
  EXPECT_EQ(second.lines(2), (Journal{"connected", "record 1"}));
  EXPECT_EQ(listener.all().size(), 2U);
}

TEST_F(SubscribeTest, GoesOnForTheSecondSubscriptionWhenTheFirstIsReleased) {
  subscribe();
  Listener& second = newListener();
  subscriber->createSubscription("plant/x", &second);
  send(publication, 1);
  listener.lines(2);
  second.lines(2);
  subscriber->releaseSubscription(subscription);
  send(publication, 2);
  EXPECT_EQ(second.lines(3).back(), "record 2");
  EXPECT_EQ(listener.all().size(), 2U);
}

TEST_F(SubscribeTest, TreatsNullAsNoHandle) {
  subscriber->releaseSubscription(nullptr);
  subscriber->destroyPublication(nullptr);
  EXPECT_EQ(subscriber->counters().received, 0);
}

}  // namespace
}  // namespace kel
