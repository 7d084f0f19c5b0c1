// What is remembered of each publication has a bound, and what was given up comes from the broker.

#include "KelFixture.h"
#include "PayloadBuilder.h"

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

struct RememberedTest : KelFixture {
  void start(std::size_t rememberedBytes) {
    KelOptions options;
    options.rememberedBytes = rememberedBytes;
    subscriber = factory("sub", "s1", options);
    subscription = subscriber->createSubscription("x", &listener);
    settle();
  }
  void startBoth(std::size_t rememberedBytes) {
    start(rememberedBytes);
    publisher = factory("pub", "p1");
    publication = publisher->createPublication("x", nullptr);
  }
  void sendNow(int value) {
    send(publication, value);
    publisher->flush(30s);
    settle();
  }
  void ghost(int value, std::uint64_t sequence, bool retain) {
    broker->publish("kel/g/data/x",
                    intMetric("_value", static_cast<std::uint32_t>(value)) +
                        metric("_publisher", 12, delimited(15, "pub/p1")) +
                        metric("_seq", 4, number(11, sequence)),
                    retain);
    settle();
  }

  Listener listener;
  Factory subscriber;
  Factory publisher;
  KelSubscription* subscription = nullptr;
  KelPublication* publication = nullptr;
};

TEST_F(RememberedTest, AResendOfWhatWasGivenUpComesFromTheBroker) {
  startBoth(1);
  sendNow(1);
  listener.lines(2);
  EXPECT_EQ(subscriber->counters().givenUp, 1);
  subscription->requestResend();
  settle();
  EXPECT_EQ(listener.lines(3), (Journal{"connected", "record 1", "record 1"}));
  EXPECT_EQ(subscriber->counters().resends, 1);
  subscription->requestResend();
  settle();
  EXPECT_EQ(listener.lines(4).back(), "record 1");
  while (subscriber->counters().pending != 0) std::this_thread::yield();
  EXPECT_TRUE(addsUp(*subscriber));
}

TEST_F(RememberedTest, ASecondSubscriptionIsGivenItToo) {
  startBoth(1);
  sendNow(1);
  Listener& other = newListener();
  subscriber->createSubscription("x", &other);
  settle();
  EXPECT_EQ(other.lines(2), (Journal{"connected", "record 1"}));
  EXPECT_EQ(listener.lines(2).size(), 2U);
}

TEST_F(RememberedTest, TheLargestGoesFirst) {
  startBoth(100'000);
  sendNow(1);
  Listener& other = newListener();
  subscriber->createSubscription("y", &other);
  KelPublication* large = publisher->createPublication("y", nullptr);
  KelData data;
  data.insert(std::string(200'000, 'l').c_str(), nullptr);
  large->send(data, KelTimestamp(1));
  other.lines(2);
  EXPECT_EQ(subscriber->counters("y").givenUp, 1);
  EXPECT_EQ(subscriber->counters("x").givenUp, 0);
}

TEST_F(RememberedTest, WhatCameAgainIsStillKnown) {
  startBoth(1);
  sendNow(1);
  ghost(1, 1, false);
  EXPECT_EQ(subscriber->counters().repeated, 1);
  sendNow(2);
  EXPECT_EQ(listener.lines(3), (Journal{"connected", "record 1", "record 2"}));
}

TEST_F(RememberedTest, NothingOlderIsShownForIt) {
  startBoth(1);
  sendNow(1);
  ghost(9, 9, false);  // the broker keeps the first
  subscription->requestResend();
  settle();
  EXPECT_EQ(listener.lines(3), (Journal{"connected", "record 1", "record 9"}));
  broker->setDeaf("sub", true);
  ghost(10, 10, true);
  broker->setDeaf("sub", false);
  subscription->requestResend();
  advance(31s);
  EXPECT_EQ(listener.lines(4).back(), "record 10") << "the newer one, once";
  advance(31s);
  EXPECT_EQ(listener.all().size(), 4U);
}

TEST_F(RememberedTest, AHeldOneIsAskedForWhenItsPublisherLives) {
  start(1);
  ghost(5, 1, true);
  EXPECT_EQ(subscriber->counters().held, 0);
  EXPECT_EQ(subscriber->counters().discarded, 1);
  publisher = factory("pub", "p1");
  settle();
  EXPECT_EQ(listener.lines(2), (Journal{"connected", "record 5"}));
  EXPECT_TRUE(balanced(subscriber->counters()));
}

TEST_F(RememberedTest, WhatFitsIsNotAskedFor) {
  startBoth(64U << 20U);
  sendNow(1);
  listener.lines(2);
  broker->setDeaf("sub", true);
  subscription->requestResend();
  EXPECT_EQ(listener.lines(3).back(), "record 1");
  EXPECT_EQ(subscriber->counters().givenUp, 0);
  EXPECT_EQ(subscriber->counters().refetched, 0);
}

}  // namespace
}  // namespace kel
