// What the broker could not hand over is fetched again, and what is fetched again is no news.

#include "session/Refetch.h"

#include "KelFixture.h"
#include "PayloadBuilder.h"
#include "session/InboxTopic.h"

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

struct RefetchTest : KelFixture {
  void SetUp() override {
    subscriber = factory("sub", "s1");
    publisher = factory("pub", "p1");
    publication = publisher->createPublication("x", nullptr);
    subscriber->createSubscription("x", &listener);
    settle();
  }
  /// What `lost` publishes is kept by the broker and never reaches the subscriber.
  void drop(const std::function<void()>& lost) {
    broker->setDeaf("sub", true);
    lost();
    publisher->flush(30s);
    settle();
    broker->setDeaf("sub", false);
  }
  void foreign(int value, bool retain = true, std::uint64_t milliseconds = 0) {
    std::string payload = intMetric("_value", static_cast<std::uint32_t>(value));
    if (milliseconds != 0) payload += number(1, milliseconds);
    broker->publish("kel/g/data/x", payload, retain);
    settle();
  }
  static std::string ghost(int value, std::uint64_t sequence) {
    return intMetric("_value", static_cast<std::uint32_t>(value)) +
           metric("_publisher", 12, delimited(15, "pub/p1")) + metric("_seq", 4, number(11, sequence));
  }

  Listener listener;
  Factory subscriber;
  Factory publisher;
  KelPublication* publication = nullptr;
};

TEST_F(RefetchTest, BringsTheNewestValueThatWasDroppedBeforeASilence) {
  send(publication, 1);
  listener.lines(2);
  drop([&] {
    send(publication, 2);
    send(publication, 3);
  });
  advance(31s);
  EXPECT_EQ(listener.lines(3), (Journal{"connected", "record 1", "record 3"}));
  EXPECT_EQ(subscriber->counters().gaps, 1);
  EXPECT_EQ(subscriber->counters().received, 2);
  EXPECT_TRUE(balanced(subscriber->counters()));
  EXPECT_TRUE(addsUp(*subscriber));
}

TEST_F(RefetchTest, WhatTheKeptRecordHasOvertakenIsSupersededAndNoGap) {
  send(publication, 1);
  listener.lines(2);
  const auto live = [&](int value) {
    broker->publish("kel/g/data/x", ghost(value, static_cast<std::uint64_t>(value)), false);
  };
  drop([&] { broker->publish("kel/g/data/x", ghost(9, 9), true); });
  advance(31s);
  ASSERT_EQ(listener.lines(3).back(), "record 9");
  EXPECT_EQ(subscriber->counters().gaps, 7);
  for (const int value : {2, 3, 4, 6, 7}) live(value);  // as a broker's queue gives them, one dropped
  settle();
  EXPECT_EQ(subscriber->counters().gaps, 2) << "5, and 8 until it comes";
  EXPECT_EQ(subscriber->counters().superseded, 5);
  EXPECT_EQ(subscriber->counters().repeated, 0);
  for (const int value : {5, 6, 9, 8, 8}) live(value);
  settle();
  EXPECT_EQ(subscriber->counters().gaps, 1);
  EXPECT_EQ(subscriber->counters().superseded, 6);
  EXPECT_EQ(subscriber->counters().repeated, 4) << "what came before, and what comes out of its order";
  live(10);
  EXPECT_EQ(listener.lines(4), (Journal{"connected", "record 1", "record 9", "record 10"}));
  EXPECT_TRUE(balanced(subscriber->counters()));
  EXPECT_TRUE(addsUp(*subscriber));
}

TEST_F(RefetchTest, WhatTwoKeptRecordsHaveOvertakenIsSupersededAndNoGap) {
  send(publication, 1);
  listener.lines(2);
  const auto live = [&](int value) {
    broker->publish("kel/g/data/x", ghost(value, static_cast<std::uint64_t>(value)), false);
  };
  drop([&] { broker->publish("kel/g/data/x", ghost(5, 5), true); });
  advance(31s);
  ASSERT_EQ(listener.lines(3).back(), "record 5");
  live(2);
  settle();
  drop([&] { broker->publish("kel/g/data/x", ghost(9, 9), true); });
  advance(31s);
  ASSERT_EQ(listener.lines(4).back(), "record 9");
  EXPECT_EQ(subscriber->counters().gaps, 5) << "3, 4, and 6 to 8";
  for (const int value : {3, 4, 5, 6, 7, 8, 9}) live(value);
  settle();
  EXPECT_EQ(subscriber->counters().gaps, 0);
  EXPECT_EQ(subscriber->counters().superseded, 6);
  EXPECT_EQ(subscriber->counters().repeated, 2) << "5 and 9, which came as the kept ones";
  EXPECT_TRUE(balanced(subscriber->counters()));
  EXPECT_TRUE(addsUp(*subscriber));
}

TEST_F(RefetchTest, WhatALiveRecordHasOvertakenIsSupersededAndNoGap) {
  const auto live = [&](int value) {
    broker->publish("kel/g/data/x", ghost(value, static_cast<std::uint64_t>(value)), false);
  };
  for (const int value : {1, 6, 7, 2, 10, 3, 4}) live(value);
  EXPECT_EQ(listener.lines(5).back(), "record 10");
  settle();
  EXPECT_EQ(subscriber->counters().gaps, 3) << "5, 8, 9";
  EXPECT_EQ(subscriber->counters().superseded, 3);
  for (const int value : {6, 8, 9, 8, 5}) live(value);
  settle();
  EXPECT_EQ(subscriber->counters().gaps, 1) << "5 comes out of its order";
  EXPECT_EQ(subscriber->counters().superseded, 5);
  EXPECT_EQ(subscriber->counters().repeated, 3) << "6, 8 and 5";
  EXPECT_TRUE(balanced(subscriber->counters()));
  EXPECT_TRUE(addsUp(*subscriber));
}

TEST_F(RefetchTest, WhatComesOverTheNextLinkWasNotOvertaken) {
  send(publication, 1);
  listener.lines(2);
  drop([&] { broker->publish("kel/g/data/x", ghost(9, 9), true); });
  advance(31s);
  ASSERT_EQ(listener.lines(3).back(), "record 9");
  broker->cut("sub-s1");
  settle();
  broker->publish("kel/g/data/x", ghost(2, 2), false);
  settle();
  EXPECT_EQ(subscriber->counters().gaps, 7);
  EXPECT_EQ(subscriber->counters().superseded, 0);
  EXPECT_TRUE(addsUp(*subscriber));
}

TEST_F(RefetchTest, BringsTheFirstValueToo) {
  drop([&] { send(publication, 1); });
  advance(31s);
  EXPECT_EQ(listener.lines(2), (Journal{"connected", "record 1"}));
}

TEST_F(RefetchTest, TellsAndCountsNothingWhenNothingIsNew) {
  send(publication, 1);
  listener.lines(2);
  advance(100s);
  EXPECT_EQ(listener.all(), (Journal{"connected", "record 1"}));
  const KelCounters counters = subscriber->counters();
  EXPECT_EQ(counters.received, 1);
  EXPECT_EQ(counters.repeated, 0);
  EXPECT_GE(counters.refetched, 3);
  EXPECT_LE(counters.refetched, 5);
  EXPECT_EQ(subscriber->counters("x").refetched, counters.refetched);
  EXPECT_TRUE(addsUp(*subscriber));
}

TEST_F(RefetchTest, CountsWhatIsNotARecordOnce) {
  broker->publish("kel/g/data/x", "not a record", true);
  advance(100s);
  EXPECT_EQ(subscriber->counters().decodeErrors, 1);
  EXPECT_EQ(subscriber->counters().received, 1);
}

TEST_F(RefetchTest, DoesNotTellAForeignRecordAgain) {
  foreign(4);
  advance(100s);
  EXPECT_EQ(listener.lines(2), (Journal{"connected", "record 4"}));
  EXPECT_EQ(subscriber->counters().received, 1);
}

TEST_F(RefetchTest, BringsAForeignRecordThatWasDropped) {
  foreign(4);
  advance(31s);
  foreign(5);
  drop([&] { foreign(4); });
  advance(31s);
  EXPECT_EQ(listener.lines(4), (Journal{"connected", "record 4", "record 5", "record 4"}));
}

TEST_F(RefetchTest, DoesNotGoBackToWhatAForeignPublisherOnceLeft) {
  foreign(4);
  broker->cut("sub-s1");
  settle();
  advance(1s);
  foreign(5, false);
  advance(31s);
  foreign(6, false);
  advance(100s);
  EXPECT_EQ(listener.lines(7), (Journal{"connected", "record 4",
                                        "disconnected: the link to the broker is lost: the link was cut",
                                        "connected", "record 4", "record 5", "record 6"}));
  EXPECT_EQ(subscriber->counters().received, 4);
}

TEST_F(RefetchTest, DoesNotGoBackInTheTimeOfAForeignPublisher) {
  foreign(5, true, 5000);
  foreign(6, false, 6000);
  advance(100s);
  EXPECT_EQ(listener.lines(3), (Journal{"connected", "record 5", "record 6"}));
}

TEST_F(RefetchTest, DoesNotGoBackInThePublishersOwnCount) {
  send(publication, 1);
  listener.lines(2);
  broker->publish("kel/g/data/x", ghost(9, 9), false);
  settle();
  // What a publisher that comes back sends again: the older first. Fetched in its midst, time after time;
  // each lasts for one fetch.
  for (int i = 0; i < 3; ++i) {
    drop([&] { broker->publish("kel/g/data/x", ghost(7, 7), true); });
    advance(29s);
    drop([&] { broker->publish("kel/g/data/x", ghost(9, 9), true); });
    advance(29s);
  }
  EXPECT_EQ(listener.lines(3), (Journal{"connected", "record 1", "record 9"}));
  EXPECT_EQ(subscriber->counters().received, 2);
  EXPECT_GE(subscriber->counters().refetched, 5);
  EXPECT_EQ(subscriber->counters().repeated, 0);
  EXPECT_TRUE(addsUp(*subscriber));
}

TEST_F(RefetchTest, DoesNotBringBackARecordOfAPublisherThatHasLeft) {
  send(publication, 1);
  listener.lines(2);
  broker->setReachable("pub-p1", false);
  broker->cut("pub-p1");
  listener.lines(3);
  advance(100s);
  EXPECT_EQ(subscriber->counters().held, 0);
  EXPECT_EQ(listener.all().size(), 3U);
  broker->setReachable("pub-p1", true);
  advance(1s);
  EXPECT_EQ(listener.lines(5), (Journal{"connected", "record 1", "disconnected: publisher pub is gone",
                                        "connected", "record 1"}));
}

TEST_F(RefetchTest, NoticesThatTheEndOfAPublicationWasDropped) {
  send(publication, 1);
  listener.lines(2);
  drop([&] { publisher->destroyPublication(publication); });
  advance(140s);
  EXPECT_EQ(listener.lines(3).back(), "disconnected: the publication is closed");
  publication = publisher->createPublication("x", nullptr);
  send(publication, 2);
  EXPECT_EQ(listener.lines(5).back(), "record 2");
}

TEST_F(RefetchTest, StaysConnectedToAForeignPublisherThatKeepsNothing) {
  foreign(5, false);
  advance(300s);
  EXPECT_EQ(listener.lines(2), (Journal{"connected", "record 5"}));
}

TEST_F(RefetchTest, FetchesAllAfterAFlood) {
  Listener& other = newListener();
  subscriber->createSubscription("flood", &other);
  KelPublication* flood = publisher->createPublication("flood", nullptr);
  send(publication, 1);
  listener.lines(2);
  advance(20s);  // the turn of "x" has just gone by
  const std::int64_t before = subscriber->counters("x").refetched;
  drop([&] { send(publication, 2); });
  for (int i = 0; i < 500; ++i) send(flood, i);
  ASSERT_TRUE(publisher->flush(30s));
  advance(200ms);
  EXPECT_EQ(listener.lines(3).back(), "record 2");
  EXPECT_EQ(subscriber->counters("x").refetched, before);
}

/// The plan alone.
struct RefetchPlan : ::testing::Test {
  void topics(std::size_t number, std::size_t bytes = 100) {
    for (std::size_t i = 0; i < number; ++i) {
      auto& topic = *all.emplace_back(std::make_unique<InboxTopic>(dispatcher));
      topic.keptBytes = bytes;
      topic.place = plan.add(topic);
    }
    plan.linkUp(t0);
  }
  std::size_t fetch(Refetch::Time from, Refetch::Time until, std::size_t livePerTick = 0) {
    std::size_t number = 0;
    for (; from < until; from += 80ms) {
      for (std::size_t i = 0; i < livePerTick; ++i) plan.live();
      plan.tick(from);
      while (plan.next(from) != nullptr) ++number;
    }
    return number;
  }
  Dispatcher dispatcher{10, 10};
  Refetch plan;
  std::vector<std::unique_ptr<InboxTopic>> all;
  const Refetch::Time t0{1h};
};

TEST_F(RefetchPlan, ThirtySecondsUpToThreeThousand) {
  topics(300);
  const std::size_t number = fetch(t0 + 1s, t0 + 1s + 5min);
  EXPECT_GE(number, 3000U - 10);
  EXPECT_LE(number, 3000U + 10);
}

TEST_F(RefetchPlan, AHundredASecondBeyond) {
  topics(10000);
  const std::size_t number = fetch(t0 + 1s, t0 + 1s + 5min);
  EXPECT_GE(number, 29000U);
  EXPECT_LE(number, 30100U);
}

TEST_F(RefetchPlan, AMebibyteASecondOfLargeRecords) {
  topics(300, 2U << 20U);
  const std::size_t number = fetch(t0 + 1s, t0 + 1s + 5min);
  EXPECT_GE(number, 148U);
  EXPECT_LE(number, 152U);
}

TEST_F(RefetchPlan, EachInItsTurn) {
  topics(3);
  std::vector<const InboxTopic*> seen;
  for (auto at = t0 + 1s; at < t0 + 31s; at += 80ms) {
    plan.tick(at);
    while (const InboxTopic* topic = plan.next(at)) seen.push_back(topic);
  }
  ASSERT_EQ(seen.size(), 3U);
  for (std::size_t i = 0; i < 3; ++i) EXPECT_EQ(seen[i], all[i].get());
  plan.remove(all[0]->place);
  EXPECT_EQ(fetch(t0 + 31s, t0 + 61s), 2U);
}

TEST_F(RefetchPlan, AllAtOnceAfterABurstAndNotInItsMidst) {
  topics(1000);
  fetch(t0, t0 + 20s);
  EXPECT_LE(fetch(t0 + 20s, t0 + 22s, 300), 70U) << "the rotation alone";
  EXPECT_GE(fetch(t0 + 22s, t0 + 22s + 100ms), 1000U);
  EXPECT_LE(fetch(t0 + 23s, t0 + 31s), 280U) << "one round";
}

TEST_F(RefetchPlan, NowAndThenWhileABurstDoesNotEnd) {
  topics(1000);
  fetch(t0, t0 + 20s);
  const std::size_t number = fetch(t0 + 20s, t0 + 80s, 300);
  EXPECT_GE(number, 5U * 1000U);
  EXPECT_LE(number, 6U * 1000U + 2100U);
}

TEST_F(RefetchPlan, AllAfterAStall) {
  topics(1000);
  fetch(t0, t0 + 20s);
  plan.stalled();
  EXPECT_GE(fetch(t0 + 20s, t0 + 20s + 200ms), 1000U);
}

TEST_F(RefetchPlan, ManyStallsAreFewRounds) {
  topics(1000);
  fetch(t0, t0 + 20s);
  std::size_t number = 0;
  for (auto at = 20s; at < 80s; at += 1s) {
    plan.stalled();
    number += fetch(t0 + at, t0 + at + 1s);
  }
  EXPECT_LE(number, 6U * 1000U + 2100U);
}

TEST_F(RefetchPlan, NobodySubscribesToNothing) {
  plan.linkUp(t0);
  EXPECT_EQ(fetch(t0, t0 + 100s, 300), 0U);
}

}  // namespace
}  // namespace kel
