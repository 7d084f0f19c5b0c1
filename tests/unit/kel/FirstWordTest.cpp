// A subscription that is not connected is told so once, and late enough for its application to be ready.

#include "KelFixture.h"
#include "PayloadBuilder.h"
#include "session/FirstWord.h"

namespace kel {
namespace {

using namespace std::chrono_literals;
using testing::intMetric;
using testing::Journal;
using testing::KelFixture;
using testing::Listener;

const Journal nobody{"disconnected: nobody publishes it"};

struct FirstWordTest : KelFixture {
  KelSubscription* subscribe(const char* name = "plant/x") {
    return subscriber->createSubscription(name, &listener);
  }
  Listener listener;
  Factory subscriber;
};

TEST_F(FirstWordTest, ComesOnceWhenNobodyPublishes) {
  subscriber = factory("sub", "s1");
  subscribe();
  advance(900ms);
  EXPECT_EQ(listener.all(), Journal{});
  advance(200ms);
  EXPECT_EQ(listener.lines(1), nobody);
  advance(60s);
  EXPECT_EQ(listener.all(), nobody);
}

TEST_F(FirstWordTest, DoesNotComeToWhoIsConnected) {
  subscriber = factory("sub", "s1");
  auto publisher = factory("pub", "p1");
  send(publisher->createPublication("plant/x", nullptr), 1);
  subscribe();
  listener.lines(2);
  advance(20s);
  EXPECT_EQ(listener.all(), (Journal{"connected", "record 1"}));
}

TEST_F(FirstWordTest, ComesForAKeptRecordOfAPublisherThatIsDead) {
  {
    auto publisher = factory("pub", "p1");
    send(publisher->createPublication("plant/x", nullptr), 1);
    ASSERT_TRUE(publisher->flush(30s));
    broker->setReachable("pub-p1", false);
    broker->cut("pub-p1");
    settle();
  }
  ASSERT_NE(broker->retained("kel/g/data/plant/x"), "");
  subscriber = factory("sub", "s1");
  subscribe();
  advance(2s);
  EXPECT_EQ(listener.lines(1), Journal{"disconnected: publisher pub gives no sign of life"});
}

TEST_F(FirstWordTest, ComesWhenTheBrokerIsAwayFromTheBeginning) {
  broker->setReachable("sub", false);
  subscriber = factory("sub", "s1");
  subscribe();
  advance(2s);
  EXPECT_EQ(listener.lines(1), Journal{"disconnected: the link to the broker is down"});
  broker->setReachable("sub", true);
  advance(10s);
  auto publisher = factory("pub", "p1");
  send(publisher->createPublication("plant/x", nullptr), 1);
  EXPECT_EQ(listener.lines(3),
            (Journal{"disconnected: the link to the broker is down", "connected", "record 1"}));
  broker->cut("sub-s1");
  EXPECT_EQ(listener.lines(4)[3], "disconnected: the link to the broker is lost: the link was cut");
}

TEST_F(FirstWordTest, ComesToASubscriptionThatIsMadeMuchLater) {
  subscriber = factory("sub", "s1");
  advance(60s);
  subscribe();
  settle();
  EXPECT_EQ(listener.all(), Journal{});
  advance(1100ms);
  EXPECT_EQ(listener.lines(1), nobody);
}

TEST_F(FirstWordTest, ComesToASecondSubscriptionOfAPublicationThatIsNotThere) {
  subscriber = factory("sub", "s1");
  subscribe();
  advance(2s);
  Listener& second = newListener();
  subscriber->createSubscription("plant/x", &second);
  advance(2s);
  EXPECT_EQ(second.lines(1), nobody);
  EXPECT_EQ(listener.all(), nobody);
}

TEST_F(FirstWordTest, ComesAfterARecordWithoutValue) {
  subscriber = factory("sub", "s1");
  auto publisher = factory("pub", "p1");
  publisher->createPublication("plant/x", nullptr)->declareBad("nothing yet");
  subscribe();
  advance(2s);
  EXPECT_EQ(listener.lines(2),
            (Journal{"record q-1 (nothing yet)", "disconnected: the publication has no value"}));
}

TEST_F(FirstWordTest, ComesWhenTheBrokerRefusesTheSubscription) {
  broker->refuse("kel/g/data/plant/x", "not authorised");
  subscriber = factory("sub", "s1");
  subscribe();
  advance(2s);
  EXPECT_EQ(listener.lines(2),
            (Journal{"exception: the broker refused the subscription to plant/x: not authorised",
                     "disconnected: the broker refused the subscription: not authorised"}));
}

TEST_F(FirstWordTest, ComesToASubscriptionWithAnImpossibleName) {
  subscriber = factory("sub", "s1");
  KelSubscription* released = subscribe("");
  listener.lines(1);
  subscriber->releaseSubscription(released);
  subscribe("");
  advance(2s);
  EXPECT_EQ(listener.lines(3).back(), "disconnected: no publication can have this name");
  advance(20s);
  EXPECT_EQ(listener.all().size(), 3U);
}

TEST_F(FirstWordTest, WaitsAsLongAsTheSubscriptionsTookToMake) {
  subscriber = factory("sub", "s1");
  for (int i = 0; i < 11; ++i) {
    if (i > 0) advance(500ms);
    subscribe(("plant/" + std::to_string(i)).c_str());
  }
  advance(4800ms);
  EXPECT_EQ(listener.all(), Journal{});
  advance(400ms);
  EXPECT_EQ(listener.lines(11).size(), 11U);
}

TEST_F(FirstWordTest, WaitsLikewiseWhileTheBrokerIsAway) {
  broker->setReachable("sub", false);
  subscriber = factory("sub", "s1");
  for (int i = 0; i < 11; ++i) {
    if (i > 0) advance(500ms);
    subscribe(("plant/" + std::to_string(i)).c_str());
  }
  advance(4800ms);
  EXPECT_EQ(listener.all(), Journal{});
  advance(400ms);
  EXPECT_EQ(listener.lines(11).size(), 11U);
}

TEST_F(FirstWordTest, IsNotSaidToWhoWasReleased) {
  subscriber = factory("sub", "s1");
  subscriber->releaseSubscription(subscribe());
  subscribe("plant/y");
  advance(2s);
  EXPECT_EQ(listener.lines(1), nobody);
  advance(2s);
  EXPECT_EQ(listener.all().size(), 1U);
}

TEST_F(FirstWordTest, AForeignRecordConnectsBeforeIt) {
  subscriber = factory("sub", "s1");
  broker->publish("kel/g/data/plant/x", intMetric("_value", 4), true);
  subscribe();
  advance(5s);
  EXPECT_EQ(listener.lines(2), (Journal{"connected", "record 4"}));
}

TEST(FirstWordClock, IsNotRunByAPauseOfTheProcess) {
  const FirstWord::Time t0{1h};
  FirstWord word;
  word.created(t0);
  word.forgive(60s);
  EXPECT_FALSE(word.due(t0 + 60s, t0 + 60s + 999ms));
  EXPECT_TRUE(word.due(t0 + 60s, t0 + 61s));
}

TEST(FirstWordClock, ANewBurstHasATimeOfItsOwn) {
  const FirstWord::Time t0{1h};
  FirstWord word;
  for (auto at = 0ms; at <= 9900ms; at += 900ms) word.created(t0 + at);
  EXPECT_FALSE(word.due(t0, t0 + 19799ms));
  EXPECT_TRUE(word.due(t0, t0 + 19800ms));
  word.created(t0 + 30s);
  EXPECT_TRUE(word.due(t0 + 30s, t0 + 31s));
}

TEST(FirstWordClock, WhoNeverStopsDoesNotSilenceIt) {
  const FirstWord::Time t0{1h};
  FirstWord word;
  auto at = t0;
  for (; at < t0 + 5min; at += 500ms) word.created(at);
  EXPECT_FALSE(word.due(t0, t0 + 5min - 1s));
  EXPECT_TRUE(word.due(t0, t0 + 5min));
  EXPECT_FALSE(word.due(t0 + 1s, t0 + 5min));
}

}  // namespace
}  // namespace kel
