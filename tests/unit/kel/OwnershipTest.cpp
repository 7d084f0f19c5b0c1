// Who may publish under a name, and what the others do.

#include "KelFixture.h"
#include "session/ControlPayload.h"

namespace kel {
namespace {

using namespace std::chrono_literals;
using testing::Handler;
using testing::Journal;
using testing::KelFixture;
using testing::Listener;

struct OwnershipTest : KelFixture {
  /// "name/incarnation" of the claim that the broker keeps.
  std::string keptClaim(const std::string& publication) {
    const auto claim = decodeClaim(broker->retained("kel/g/claim/" + publication));
    return claim ? claim->publisher.text() : "";
  }
  /// "name/incarnation" of the record that the broker keeps, and its value.
  std::string keptRecord(const std::string& publication) {
    Listener& reader = newListener();
    std::string who;
    reader.onMessage = [&](KelSubscription*, KelData& data) { who = data.getPublisher(); };
    auto subscriber = factory("reader", "r" + std::to_string(++readers_));
    subscriber->createSubscription(publication.c_str(), &reader);
    settle();
    reader.lines(2);
    return who + " " + reader.all().back();
  }

 private:
  int readers_ = 0;
};

TEST_F(OwnershipTest, ALivingOwnerKeepsItsName) {
  Handler& first = newHandler();
  Handler& second = newHandler();
  auto a = factory("a", "a1");
  auto b = factory("b", "b1");
  KelPublication* owner = a->createPublication("x", &first);
  settle();
  KelPublication* late = b->createPublication("x", &second);
  send(late, 2);
  EXPECT_EQ(second.lines(1), Journal{"x: publication x waits: it is published by a"});
  send(owner, 1);
  ASSERT_TRUE(a->flush(30s));
  EXPECT_EQ(keptRecord("x"), "a/a1 record 1");
  EXPECT_EQ(keptClaim("x"), "a/a1");
  EXPECT_EQ(first.all(), Journal{});
  EXPECT_EQ(b->counters("x").outgoingPending, 1);
}

TEST_F(OwnershipTest, TheNextOneTakesOverWithItsLastRecordWhenTheOwnerIsGone) {
  Handler& handler = newHandler();
  auto a = factory("a", "a1");
  auto b = factory("b", "b1");
  send(a->createPublication("x", nullptr), 1);
  settle();
  KelPublication* late = b->createPublication("x", &handler);
  for (int i = 2; i <= 5; ++i) send(late, i);
  handler.lines(1);
  a.reset();
  ASSERT_TRUE(b->flush(30s));
  EXPECT_EQ(keptRecord("x"), "b/b1 record 5");
  EXPECT_EQ(b->counters("x").outgoingSuperseded, 3);
  EXPECT_TRUE(balanced(b->counters()));
  EXPECT_EQ(handler.all().size(), 1U);
}

TEST_F(OwnershipTest, TheNextOneTakesOverWhenTheOwnerClosesThePublication) {
  auto a = factory("a", "a1");
  auto b = factory("b", "b1");
  KelPublication* owner = a->createPublication("x", nullptr);
  send(owner, 1);
  settle();
  send(b->createPublication("x", nullptr), 2);
  settle();
  a->destroyPublication(owner);
  ASSERT_TRUE(b->flush(30s));
  EXPECT_EQ(keptRecord("x"), "b/b1 record 2");
  EXPECT_EQ(keptClaim("x"), "b/b1");
}

TEST_F(OwnershipTest, TwoThatClaimAtOnceAgreeOnOne) {
  for (int round = 0; round < 20; ++round) {
    const std::string name = "x" + std::to_string(round);
    Handler& first = newHandler();
    Handler& second = newHandler();
    auto a = factory("a", "a" + std::to_string(round));
    auto b = factory("b", "b" + std::to_string(round));
    std::thread one([&] { send(a->createPublication(name.c_str(), &first), 1); });
    std::thread two([&] { send(b->createPublication(name.c_str(), &second), 2); });
    one.join();
    two.join();
    settle();
    advance(1s);
    const bool aOwns = a->counters(name.c_str()).acknowledged == 1;
    const bool bOwns = b->counters(name.c_str()).acknowledged == 1;
    EXPECT_NE(aOwns, bOwns);
    EXPECT_EQ((aOwns ? second : first).lines(1).size(), 1U);
    EXPECT_EQ((aOwns ? first : second).all(), Journal{});
  }
}

TEST_F(OwnershipTest, OfManyThatWaitExactlyOneTakesOver) {
  auto owner = factory("owner", "o1");
  send(owner->createPublication("x", nullptr), 0);
  settle();
  std::vector<Factory> others;
  for (int i = 0; i < 6; ++i) {
    others.push_back(factory("f" + std::to_string(i), "f" + std::to_string(i)));
    send(others.back()->createPublication("x", nullptr), i);
  }
  settle();
  for (int gone = 0; gone < 5; ++gone) {
    int owners = 0;
    owner.reset();
    settle();
    for (Factory& other : others) {
      if (!other || other->counters("x").acknowledged == 0) continue;
      ++owners;
      owner = std::move(other);
    }
    ASSERT_EQ(owners, 1) << "after " << gone;
  }
}

TEST_F(OwnershipTest, NobodyGoesOnTalkingAboutASettledName) {
  broker->record("kel/g/claim/#");
  auto a = factory("a", "a1");
  auto b = factory("b", "b1");
  auto c = factory("c", "c1");
  for (const Factory* each : {&a, &b, &c}) {
    send((*each)->createPublication("x", nullptr), 1);
    settle();
  }
  advance(20s);
  const std::size_t said = broker->recorded().size();
  EXPECT_LE(said, 12U);
  advance(5min);
  EXPECT_EQ(broker->recorded().size(), said);
}

TEST_F(OwnershipTest, AClaimOfNobodyAliveIsPassedOver) {
  broker->publish("kel/g/claim/x", encodeClaim({{"dead", "d1"}, true, 1}, 0), true);
  auto a = factory("a", "a1");
  send(a->createPublication("x", nullptr), 1);
  ASSERT_TRUE(a->flush(30s));
  EXPECT_EQ(keptClaim("x"), "a/a1");
}

TEST_F(OwnershipTest, AClaimThatIsNoClaimIsPassedOver) {
  broker->publish("kel/g/claim/x", "rubbish", true);
  auto a = factory("a", "a1");
  send(a->createPublication("x", nullptr), 1);
  ASSERT_TRUE(a->flush(30s));
}

TEST_F(OwnershipTest, WhoWasCutOffFindsTheNameTakenAndWaits) {
  Handler& handler = newHandler();
  auto a = factory("a", "a1");
  auto b = factory("b", "b1");
  send(a->createPublication("x", &handler), 1);
  settle();
  send(b->createPublication("x", nullptr), 2);
  settle();
  broker->setReachable("a-a1", false);
  broker->cut("a-a1");
  ASSERT_TRUE(b->flush(30s));
  broker->setReachable("a-a1", true);
  settle();
  advance(200ms);
  EXPECT_EQ(handler.lines(1), Journal{"x: publication x waits: it is published by b"});
  EXPECT_EQ(keptRecord("x"), "b/b1 record 2");
  b.reset();
  settle();
  EXPECT_EQ(keptRecord("x"), "a/a1 record 1");
}

TEST_F(OwnershipTest, OneThatIsOnlyKeptIsAwaitedWithoutAWordUntilItShowsItself) {
  Handler& handler = newHandler();
  auto a = factory("a", "a1");
  send(a->createPublication("x", nullptr), 1);
  settle();
  const std::string presence = broker->retained("kel/g/publisher/a/a1");
  const std::string claim = broker->retained("kel/g/claim/x");
  a.reset();
  settle();
  broker->publish("kel/g/publisher/a/a1", presence, true);
  broker->publish("kel/g/claim/x", claim, true);
  auto b = factory("b", "b1");
  send(b->createPublication("x", &handler), 2);
  settle();
  EXPECT_EQ(b->counters("x").outgoingPending, 1);
  advance(9s);
  EXPECT_EQ(b->counters("x").outgoingPending, 1);
  advance(2s);
  EXPECT_EQ(b->counters("x").outgoingPending, 0);
  EXPECT_EQ(handler.all(), Journal{});
}

TEST_F(OwnershipTest, TwoOwnersAgreeOnOneWhenTheyMeet) {
  Handler& first = newHandler();
  Handler& second = newHandler();
  auto a = factory("a", "a1");
  auto b = factory("b", "b1");
  KelPublication* ofA = a->createPublication("x", &first);
  send(ofA, 1);
  settle();
  KelPublication* ofB = b->createPublication("x", &second);
  send(ofB, 2);
  settle();
  // Everybody is told that a is gone, though it is not.
  broker->publish("kel/g/publisher/a/a1", "", true);
  settle();
  advance(20s);
  send(ofA, 3);
  send(ofB, 4);
  settle();
  const bool aOwns = a->counters("x").outgoingPending == 0;
  const bool bOwns = b->counters("x").outgoingPending == 0;
  EXPECT_NE(aOwns, bOwns);
  EXPECT_EQ(keptRecord("x"), aOwns ? "a/a1 record 3" : "b/b1 record 4");
}

TEST_F(OwnershipTest, ALaterPublisherOfTheSameNameWaitsWithEverything) {
  Handler& handler = newHandler();
  auto first = factory("gw", "1");
  send(first->createPublication("x", nullptr), 1);
  settle();
  auto second = factory("gw", "2");
  send(second->createPublication("x", &handler), 2);
  send(second->createPublication("y", &handler), 3);
  settle();
  EXPECT_EQ(handler.lines(2),
            (Journal{"x: publication x waits: another process publishes under the name gw",
                     "y: publication y waits: another process publishes under the name gw"}));
  EXPECT_EQ(broker->retained("kel/g/data/y"), "");
  first.reset();
  ASSERT_TRUE(second->flush(30s));
  EXPECT_EQ(keptRecord("x"), "gw/2 record 2");
  EXPECT_EQ(keptRecord("y"), "gw/2 record 3");
}

TEST_F(OwnershipTest, OfThreadsUnderOneNameTheEarlierGoesFirst) {
  auto first = factory("gw", "1");
  auto second = factory("gw", "2");
  auto third = factory("gw", "3");
  for (const Factory* each : {&third, &second, &first}) send((*each)->createPublication("x", nullptr), 1);
  settle();
  EXPECT_EQ(first->counters().outgoingPending, 0);
  first.reset();
  settle();
  EXPECT_EQ(second->counters().outgoingPending, 0);
  EXPECT_EQ(third->counters().outgoingPending, 1);
  second.reset();
  settle();
  EXPECT_EQ(third->counters().outgoingPending, 0);
}

TEST_F(OwnershipTest, OneProcessPublishesANameOnce) {
  Handler& handler = newHandler();
  auto a = factory("a", "a1");
  KelPublication* first = a->createPublication("x", nullptr);
  KelPublication* second = a->createPublication("x", &handler);
  send(first, 1);
  send(second, 2);
  EXPECT_EQ(handler.lines(1), Journal{"x: publication x is already published by this process"});
  settle();
  EXPECT_EQ(keptRecord("x"), "a/a1 record 1");
  a->destroyPublication(first);
  ASSERT_TRUE(a->flush(30s));
  EXPECT_EQ(keptRecord("x"), "a/a1 record 2");
  EXPECT_TRUE(balanced(a->counters()));
}

TEST_F(OwnershipTest, AClaimThatTheBrokerRefusesIsTold) {
  Handler& handler = newHandler();
  broker->refuse("kel/g/claim/x", "not authorised");
  auto a = factory("a", "a1");
  send(a->createPublication("x", &handler), 1);
  EXPECT_EQ(handler.lines(1), Journal{"x: the broker refused the claim on publication x: not authorised"});
}

TEST_F(OwnershipTest, AClaimIsMadeAgainUntilTheBrokerGrantsIt) {
  Handler& handler = newHandler();
  broker->refuse("kel/g/claim/x", "not authorised");
  auto a = factory("a", "a1");
  send(a->createPublication("x", &handler), 1);
  advance(30s);
  EXPECT_EQ(broker->retained("kel/g/data/x"), "");
  broker->refuse("kel/g/claim/x", "");
  advance(11s);
  EXPECT_EQ(keptRecord("x"), "a/a1 record 1");
  EXPECT_EQ(handler.lines(1).size(), 1U) << "told once, however often it was asked for";
  EXPECT_EQ(a->counters().refused, 0);
}

}  // namespace
}  // namespace kel
