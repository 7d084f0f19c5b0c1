// Found by looking at what one record can do: whoever may write a publication's topic could end it for good,
// with a single record that bears its publisher's name and the highest number there is. All that the
// publisher sent after that was below the last number, and dropped as a repetition.
#include <limits>

#include "KelFixture.h"
#include "PayloadBuilder.h"

namespace {

using namespace std::chrono_literals;
using namespace kel;
using kel::testing::delimited;
using kel::testing::intMetric;
using kel::testing::Journal;
using kel::testing::KelFixture;
using kel::testing::Listener;
using kel::testing::metric;
using kel::testing::number;

constexpr auto highest = std::uint64_t{std::numeric_limits<std::int64_t>::max()};

struct ForgedNumber : KelFixture {
  void SetUp() override {
    subscriber = factory("sub", "s1");
    publisher = factory("pub", "p1");
    publication = publisher->createPublication("x", nullptr);
    subscriber->createSubscription("x", &listener);
    settle();
  }
  void forge(int value, std::uint64_t sequence, bool retain = false) {
    broker->publish("kel/g/data/x",
                    intMetric("_value", static_cast<std::uint32_t>(value)) +
                        metric("_publisher", 12, delimited(15, "pub/p1")) +
                        metric("_seq", 4, number(11, sequence)),
                    retain);
    settle();
  }
  void sendNow(int value) {
    send(publication, value);
    publisher->flush(30s);
    settle();
  }
  [[nodiscard]] KelReceived row() const { return subscriber->ledger().received.at(0); }

  Listener listener;
  Factory subscriber;
  Factory publisher;
  KelPublication* publication = nullptr;
};

TEST_F(ForgedNumber, DoesNotEndThePublication) {
  sendNow(1);
  forge(666, highest);
  sendNow(2);
  EXPECT_EQ(subscriber->counters().superseded, 1);
  advance(31s);
  advance(31s);
  EXPECT_EQ(listener.lines(4), (Journal{"connected", "record 1", "record 666", "record 2"}));
  sendNow(3);
  sendNow(4);
  EXPECT_EQ(listener.lines(6).back(), "record 4");
  EXPECT_EQ(row().last, 4);
  EXPECT_EQ(row().restarted, 1) << "the forged one";
  EXPECT_EQ(subscriber->counters().gaps, 0);
  EXPECT_TRUE(addsUp(*subscriber));
}

TEST_F(ForgedNumber, IsForgottenSoonWhenTruthGoesOn) {
  sendNow(1);
  forge(666, highest, true);
  for (int i = 2; i <= 13; ++i) {
    sendNow(i);
    advance(1s);
  }
  EXPECT_EQ(listener.lines(5).back(), "record 13");
  EXPECT_TRUE(addsUp(*subscriber));
}

TEST_F(ForgedNumber, MayBeTheFirstAndMayOutliveTheLink) {
  forge(666, highest);
  broker->cut("sub-s1");
  settle();
  sendNow(1);
  advance(1s);
  EXPECT_EQ(listener.lines(3).size(), 3U) << "connected, the forged record, disconnected";
  advance(130s);
  EXPECT_EQ(listener.lines(5).back(), "record 1");
  EXPECT_EQ(row().last, 1);
  EXPECT_EQ(row().before, 0);
  sendNow(2);
  EXPECT_EQ(listener.lines(6).back(), "record 2");
  EXPECT_TRUE(addsUp(*subscriber));
}

TEST_F(ForgedNumber, ManyLeapsAreTakenBack) {
  sendNow(1);
  forge(666, highest - 1);
  Listener& other = newListener();
  subscriber->createSubscription("y", &other);
  KelPublication* second = publisher->createPublication("y", nullptr);
  send(second, 1);
  other.lines(2);
  broker->publish("kel/g/data/y",
                  metric("_publisher", 12, delimited(15, "pub/p1")) + metric("_seq", 4, number(11, highest)),
                  false);
  settle();
  EXPECT_EQ(subscriber->counters().gaps, static_cast<std::int64_t>(highest));
  send(second, 2);
  sendNow(2);
  advance(100s);
  EXPECT_EQ(other.lines(4).back(), "record 2");
  EXPECT_EQ(listener.lines(4).back(), "record 2");
  EXPECT_EQ(subscriber->counters().gaps, 0);
  EXPECT_TRUE(addsUp(*subscriber));
}

TEST_F(ForgedNumber, NumbersThatDidArriveStayInTheBook) {
  for (int i = 1; i <= 5; ++i) sendNow(i);
  broker->setDeaf("sub", true);
  forge(3, 3, true);  // the broker has lost the newest
  broker->setDeaf("sub", false);
  advance(100s);
  EXPECT_EQ(listener.lines(7).back(), "record 3");
  EXPECT_EQ(row().last, 3);
  EXPECT_EQ(row().restarted, 2);
  EXPECT_TRUE(addsUp(*subscriber));
}

TEST_F(ForgedNumber, WhatABrokerLostInAnOutageIsWaitedFor) {
  for (int i = 1; i <= 5; ++i) sendNow(i);
  listener.lines(6);
  broker->setReachable("sub-s1", false);
  broker->cut("sub-s1");
  settle();
  forge(3, 3, true);
  broker->setReachable("sub-s1", true);
  advance(55s);
  EXPECT_EQ(listener.lines(7).size(), 7U) << "disconnected, and nothing old is shown";
  sendNow(6);
  EXPECT_EQ(listener.lines(9).back(), "record 6");
  EXPECT_TRUE(addsUp(*subscriber));
}

}  // namespace
