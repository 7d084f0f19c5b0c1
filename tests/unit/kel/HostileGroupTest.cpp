// What a member of the group can do to others, and what not.

#include <algorithm>

#include "KelFixture.h"
#include "PayloadBuilder.h"
#include "session/AnswerLimit.h"
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

struct HostileGroupTest : KelFixture {
  static std::string record(int value, std::uint64_t sequence) {
    return intMetric("_value", static_cast<std::uint32_t>(value)) +
           metric("_publisher", 12, delimited(15, "ghost/1")) + metric("_seq", 4, number(11, sequence));
  }
  static std::string claimOfGhost() { return encodeClaim({{"ghost", "1"}, true, 1}, 0); }
  std::size_t said(const std::string& topic) {
    std::size_t count = 0;
    for (const auto& entry : broker->recorded()) count += entry.first == topic ? 1U : 0U;
    return count;
  }
};

TEST_F(HostileGroupTest, AClaimRevivesNoDeadPublisher) {
  Listener& listener = newListener();
  broker->publish("kel/g/data/x", record(1, 1), true);
  auto victim = factory("victim", "v1");
  victim->createSubscription("x", &listener);
  victim->createPublication("y", nullptr);
  settle();
  broker->record("kel/g/probe");
  for (int i = 0; i < 100; ++i) {
    broker->publish("kel/g/claim/y", claimOfGhost(), i % 2 == 0);
    advance(100ms);
  }
  for (const std::string& line : listener.all()) EXPECT_TRUE(line.starts_with("disconnected")) << line;
  EXPECT_EQ(victim->counters("x").delivered, 0);
  EXPECT_GE(said("kel/g/probe"), 1U) << "it is asked for, in case that it lives";
  EXPECT_LE(said("kel/g/probe"), 16U);
}

TEST_F(HostileGroupTest, AClaimOfWhoShowsItselfWhenAskedCounts) {
  auto owner = factory("owner", "o1");
  testing::Handler& handler = newHandler();
  KelPublication* publication = owner->createPublication("y", &handler);
  send(publication, 1);
  settle();
  // A smaller incarnation that nobody has heard of for a while.
  broker->publish("kel/g/claim/y", encodeClaim({{"elder", "a0"}, true, 1}, 0), true);
  settle();
  EXPECT_EQ(handler.all(), Journal{});
  broker->publish("kel/g/publisher/elder/a0",
                  encodePresence({{"elder", "a0"}, "h", 1, 1, std::chrono::seconds(5), {}}, 1), true);
  settle();
  EXPECT_EQ(handler.lines(1), Journal{"y: publication y waits: it is published by elder"});
}

TEST_F(HostileGroupTest, AKeptPresenceOfAnHourSilencesNobodyForLong) {
  const PresencePayload hours{{"gw", "dead"}, "h", 1, 1, std::chrono::seconds(3600), {}};
  broker->publish("kel/g/publisher/gw/dead", encodePresence(hours, 1), true);
  auto gateway = factory("gw", "g1");
  send(gateway->createPublication("x", nullptr), 1);
  settle();
  EXPECT_EQ(gateway->counters().outgoingPending, 1) << "it may live";
  advance(11s);
  EXPECT_EQ(gateway->counters().outgoingPending, 0);
}

TEST_F(HostileGroupTest, AFloodOfProbesIsAnsweredOnceASecond) {
  auto a = factory("a", "a1");
  advance(1s);
  broker->record("kel/g/publisher/a/a1");
  for (int i = 0; i < 400; ++i) {
    broker->publish("kel/g/probe", "somebody/1", false);
    advance(50ms);
  }
  const std::size_t answers = said("kel/g/publisher/a/a1");
  EXPECT_LE(answers, 5U + 20U + 8U) << "a few at once, one a second, and those that come anyway";
  EXPECT_GE(answers, 20U);
}

TEST_F(HostileGroupTest, AFloodForLedgersIsAnsweredOnceASecond) {
  auto a = factory("a", "a1");
  advance(1s);
  broker->record("kel/g/ledger/a/a1");
  for (int i = 0; i < 100; ++i) {
    broker->publish("kel/g/probe", "somebody/1 ledger", false);
    advance(200ms);
  }
  const std::size_t answers = said("kel/g/ledger/a/a1");
  EXPECT_LE(answers, 5U + 20U);
  EXPECT_GE(answers, 19U);
}

TEST_F(HostileGroupTest, WhoAsksSeldomIsAnsweredAtOnce) {
  auto a = factory("a", "a1");
  broker->record("kel/g/publisher/a/a1");
  for (std::size_t i = 0; i < 20; ++i) {
    advance(1200ms);
    const std::size_t before = said("kel/g/publisher/a/a1");
    broker->publish("kel/g/probe", "somebody/1", false);
    advance(50ms);
    EXPECT_GE(said("kel/g/publisher/a/a1"), before + 1) << i;
  }
}

TEST_F(HostileGroupTest, ANameThatCannotBeIsSaidOnStandardError) {
  auto a = factory("a", "a1");
  Listener& listener = newListener();
  testing::Handler& handler = newHandler();
  std::string deep = "a";
  for (int i = 0; i < 200; ++i) deep += "/a";
  ::testing::internal::CaptureStderr();
  a->createSubscription(deep.c_str(), &listener);
  a->createPublication(std::string(70'000, 'n').c_str(), &handler);
  a->createSubscription("", &listener);
  const std::string log = ::testing::internal::GetCapturedStderr();
  EXPECT_EQ(std::count(log.begin(), log.end(), '\n'), 3) << log;
  EXPECT_NE(log.find("no publication can be called 'a/a/a"), std::string::npos) << log;
  EXPECT_NE(log.find("it is not subscribed"), std::string::npos) << log;
  EXPECT_NE(log.find("nnn...'"), std::string::npos) << log;
  EXPECT_NE(log.find("it is not published"), std::string::npos) << log;
  EXPECT_NE(log.find("called ''"), std::string::npos) << log;
  EXPECT_LT(log.size(), 2000U);
}

TEST(AnswerLimit, AnswersAFewAtOnceAndThenOneInEachPause) {
  AnswerLimit limit(2, 50ms, 1s);
  const AnswerLimit::Time t0{1h};
  const auto answered = [&](std::chrono::milliseconds at) {
    if (!limit.may(t0 + at)) return false;
    limit.use(t0 + at);
    return true;
  };
  EXPECT_TRUE(answered(0ms));
  EXPECT_FALSE(answered(49ms));
  EXPECT_TRUE(answered(50ms));
  EXPECT_FALSE(answered(999ms));
  EXPECT_TRUE(answered(1000ms));
  EXPECT_FALSE(answered(1999ms));
  EXPECT_TRUE(answered(2000ms));
  EXPECT_TRUE(answered(1h));
  EXPECT_TRUE(answered(1h + 50ms));
  EXPECT_FALSE(answered(1h + 100ms));
}

}  // namespace
}  // namespace kel
