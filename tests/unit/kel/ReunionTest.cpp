// After a lost link: what members say of their subscriptions, and who waits for whom.

#include "KelFixture.h"
#include "ScriptedSession.h"
#include "session/ControlPayload.h"
#include "wire/RecordCodec.h"

namespace kel {
namespace {

using namespace std::chrono_literals;
using testing::Listener;
using testing::ScriptedSession;

struct SubscribingTest : ScriptedSession {
  /// What the presences so far said, in their order.
  std::vector<std::int64_t> said() const {
    std::vector<std::int64_t> numbers;
    for (const auto& [topic, payload] : network->published) {
      if (topic == "kel/g/publisher/me/m1") numbers.push_back(presenceNews(payload).subscribing);
    }
    return numbers;
  }
  void answer(const std::string& publication, const std::string& failure = {}) {
    for (std::size_t i = network->subscribed.size(); i-- > 0;) {
      if (network->subscribed[i].first != "kel/g/data/" + publication) continue;
      network->to->subscribed(network->subscribed[i].second, failure);
      return;
    }
    FAIL() << publication << " is not asked for";
  }
};

using Numbers = std::vector<std::int64_t>;

TEST_F(SubscribingTest, AMemberSaysHowManySubscriptionsAreNotAnsweredAndAtOnceWhenAllAre) {
  for (const char* name : {"x", "y", "z"}) session->createSubscription(name, &listener);
  network->to->tick(t0);
  network->to->up();
  EXPECT_EQ(said(), Numbers{3});
  answer("x");
  answer("y", "not authorised");
  EXPECT_EQ(said(), Numbers{3}) << "two are not all";
  answer("z");
  EXPECT_EQ(said(), (Numbers{3, 0})) << "a refusal is an answer";
}

TEST_F(SubscribingTest, AMemberWithoutSubscriptionsSaysItOnce) {
  network->to->tick(t0);
  network->to->up();
  answerAll();
  EXPECT_EQ(said(), Numbers{0});
}

TEST_F(SubscribingTest, TheFirstSubscriptionIsSaidAtOnce) {
  network->to->tick(t0);
  network->to->up();
  session->createSubscription("x", &listener);
  EXPECT_EQ(said().size(), 1U);
  answer("x");
  EXPECT_EQ(said(), (Numbers{0, 0}));
  EXPECT_EQ(presenceNews(network->published.back().second).subscriptions, 1);
  session->createSubscription("y", &listener);
  answer("y");
  EXPECT_EQ(said().size(), 2U) << "one more is no news";
}

TEST_F(SubscribingTest, EveryLinkBeginsAnew) {
  for (const char* name : {"x", "y"}) session->createSubscription(name, &listener);
  network->to->tick(t0);
  network->to->up();
  answer("x");
  network->to->down("lost");
  network->to->up();
  EXPECT_EQ(said(), (Numbers{2, 2}));
  answer("x");
  answer("y");
  EXPECT_EQ(said(), (Numbers{2, 2, 0}));
}

TEST_F(SubscribingTest, WhatIsReleasedOrMadeMeanwhileCounts) {
  KelSubscription* released = session->createSubscription("x", &listener);
  session->createSubscription("y", &listener);
  network->to->tick(t0);
  network->to->up();
  answer("y");
  session->releaseSubscription(released);
  EXPECT_EQ(said(), (Numbers{2, 0})) << "nothing else is wanted";
  session->createSubscription("z", &listener);
  for (auto at = t0; at <= t0 + 2500ms; at += 100ms) network->to->tick(at);
  EXPECT_EQ(said(), (Numbers{2, 0, 1})) << "the presence of every half keep-alive";
  answer("z");
  EXPECT_EQ(said(), (Numbers{2, 0, 1, 0}));
}

TEST_F(SubscribingTest, WhatIsFetchedAgainDoesNotCount) {
  session->createSubscription("x", &listener);
  network->to->tick(t0);
  network->to->up();
  answer("x");
  network->to->message("kel/g/publisher/me/m1", network->published[0].second, false);
  const std::size_t asked = network->subscribed.size();
  for (auto at = t0; at <= t0 + 33s; at += 100ms) network->to->tick(at);
  ASSERT_GT(network->subscribed.size(), asked) << "it was fetched again";
  const Numbers numbers = said();
  EXPECT_EQ(numbers.front(), 1);
  EXPECT_EQ(std::count(numbers.begin(), numbers.end(), 1), 1);
  answer("x");
  EXPECT_EQ(said().size(), numbers.size());
}

TEST(PresenceNews, ReadsNumbersThatMakeSense) {
  PresencePayload presence;
  presence.publisher = {"a", "a1"};
  presence.keepAlive = 7s;
  presence.subscriptions = 4;
  presence.subscribing = 3;
  EXPECT_EQ(presenceNews(encodePresence(presence, 1)).subscriptions, 4);
  EXPECT_EQ(presenceNews(encodePresence(presence, 1)).keepAlive, 7s);
  EXPECT_EQ(presenceNews(encodePresence(presence, 1)).subscribing, 3);
  presence.keepAlive = 0s;
  presence.subscriptions = -1;
  presence.subscribing = -1;
  EXPECT_EQ(presenceNews(encodePresence(presence, 1)).subscriptions, 0);
  EXPECT_FALSE(presenceNews(encodePresence(presence, 1)).keepAlive);
  EXPECT_EQ(presenceNews(encodePresence(presence, 1)).subscribing, 0);
  EXPECT_EQ(presenceNews("").subscribing, 0);
  EXPECT_EQ(presenceNews("no payload").subscribing, 0);
}

/// The session "me/m1" owns publication "x" and has lost its link; others are names with incarnations.
struct ReunionTest : ScriptedSession {
  ReunionTest() {
    publication = session->createPublication("x", nullptr);
    pass(0ms);
    up();
    send(0);
  }
  ~ReunionTest() override { session->destroyPublication(publication); }

  /// Ticks, as the transport does it.
  void pass(std::chrono::milliseconds span) {
    for (const auto end = now + span; now < end; now += 100ms) network->to->tick(now);
    network->to->tick(now);
  }
  /// The link is made, the group is known, the name is owned.
  void up() {
    network->to->up();
    answerAll();
    network->to->message("kel/g/publisher/me/m1", lastOn("kel/g/publisher/me/m1"), false);
    answerAll();
    network->to->message("kel/g/claim/x", lastOn("kel/g/claim/x"), false);
  }
  void down() {
    network->to->down("lost");
    answered = network->subscribed.size();
    before = network->published.size();
  }
  void outage() {
    down();
    up();
  }
  std::string lastOn(const std::string& topic) const {
    std::string last;
    for (const auto& [where, payload] : network->published) {
      if (where == topic) last = payload;
    }
    return last;
  }
  void presence(const std::string& peer, std::int64_t subscribing, bool kept = false) {
    const auto slash = peer.rfind('/');
    PresencePayload said;
    said.publisher = {peer.substr(0, slash), peer.substr(slash + 1)};
    said.subscriptions = subscriptions;
    said.subscribing = subscribing;
    network->to->message("kel/g/publisher/" + peer, encodePresence(said, 1), kept);
  }
  void alive(const std::string& peer) { presence(peer, 0); }
  void withdrawal(const std::string& peer) { network->to->message("kel/g/publisher/" + peer, "", false); }
  void send(int value) {
    KelData data;
    data.insert(value, nullptr);
    publication->send(data, KelTimestamp(1));
  }
  /// What has left on the topic since the link was lost last, by its count; the record 0 has the count 1.
  std::vector<std::int64_t> left() const {
    std::vector<std::int64_t> numbers;
    for (std::size_t i = before; i < network->published.size(); ++i) {
      const auto& [topic, payload] = network->published[i];
      if (topic == "kel/g/data/x") numbers.push_back(decodeRecord(payload).record->sequence);
    }
    return numbers;
  }

  KelPublication* publication = nullptr;
  std::size_t before = 0;
  std::int64_t subscriptions = 3;  ///< that others say they have
  std::chrono::steady_clock::time_point now = t0;
};

TEST_F(ReunionTest, NobodyIsAwaitedAtTheFirstConnect) {
  presence("sub/s1", 3);
  EXPECT_EQ(left(), Numbers{1});
}

TEST_F(ReunionTest, WhoWasAloneWaitsForNobody) {
  outage();
  EXPECT_EQ(left(), Numbers{1});
}

TEST_F(ReunionTest, RecordsWaitUntilTheSubscriberHasSubscribedAgain) {
  alive("sub/s1");
  down();
  for (int i = 1; i <= 5; ++i) send(i);
  up();
  publication->declareBad("meanwhile");
  pass(1s);
  EXPECT_EQ(left(), Numbers{});
  presence("sub/s1", 0, true);
  EXPECT_EQ(left(), Numbers{}) << "what was kept proves nothing";
  presence("sub/s1", 2);
  EXPECT_EQ(left(), Numbers{}) << "it is there and does not hear yet";
  presence("sub/s1", 0);
  EXPECT_EQ(left(), (Numbers{1, 2, 3, 4, 5, 6, 7}));
  send(6);
  EXPECT_EQ(left().back(), 8);
}

TEST_F(ReunionTest, WhoSendsAgainSaysFirstThatItIsAlive) {
  alive("sub/s1");
  outage();
  const std::size_t waited = network->published.size();
  alive("sub/s1");
  ASSERT_EQ(network->published.size() - waited, 2U);
  EXPECT_EQ(network->published[waited].first, "kel/g/publisher/me/m1");
  EXPECT_EQ(network->published[waited + 1].first, "kel/g/data/x");
}

TEST_F(ReunionTest, TheLastRecordWaitsToo) {
  for (const std::uint64_t token : network->tokens) network->to->published(token, "");
  alive("sub/s1");
  outage();
  EXPECT_EQ(left(), Numbers{});
  send(1);
  alive("sub/s1");
  EXPECT_EQ(left(), (Numbers{1, 2})) << "in the order in which they were made";
}

TEST_F(ReunionTest, EverybodyWhoWasAliveIsAwaitedAndNobodyElse) {
  alive("sub/s1");
  alive("view/v1");
  presence("elder/e1", 0, true);
  outage();
  alive("view/v1");
  alive("view/v1");
  EXPECT_EQ(left(), Numbers{});
  alive("sub/s1");
  EXPECT_EQ(left(), Numbers{1}) << "whether the elder lives was not known";
}

TEST_F(ReunionTest, NobodyIsAwaitedForLongerThanTheLimit) {
  alive("sub/s1");
  down();
  pass(60s);  // without a link no time is used up
  up();
  presence("sub/s1", 1);
  ::testing::internal::CaptureStderr();
  pass(2900ms);
  EXPECT_EQ(left(), Numbers{});
  pass(100ms);
  EXPECT_EQ(left(), Numbers{1});
  const std::string said = ::testing::internal::GetCapturedStderr();
  EXPECT_EQ(std::count(said.begin(), said.end(), '\n'), 1) << said;
  EXPECT_NE(said.find("1 of those who were there before the link was lost, as sub/s1"), std::string::npos);
  outage();
  EXPECT_EQ(left(), Numbers{}) << "it is alive";
  alive("sub/s1");
  EXPECT_EQ(left(), Numbers{1});
}

TEST_F(ReunionTest, TimeInWhichThisProcessStoodStillDoesNotCount) {
  alive("sub/s1");
  outage();
  now += 10s;
  pass(2s);
  EXPECT_EQ(left(), Numbers{});
}

TEST_F(ReunionTest, WhoLeavesMeanwhileIsNotAwaited) {
  alive("sub/s1");
  outage();
  withdrawal("sub/s1");
  pass(900ms);
  EXPECT_EQ(left(), Numbers{});
  pass(200ms);
  EXPECT_EQ(left(), Numbers{1});
}

TEST_F(ReunionTest, TheWillOfALostLinkIsNoLeave) {
  alive("sub/s1");
  outage();
  withdrawal("sub/s1");  // the next link of this very member takes the place of the one that was lost
  presence("sub/s1", 2);
  pass(1500ms);
  EXPECT_EQ(left(), Numbers{});
  alive("sub/s1");
  EXPECT_EQ(left(), Numbers{1});
}

TEST_F(ReunionTest, WhoWasWithdrawnByABrokerThatEndsInOrderIsAwaited) {
  alive("gone/g1");
  alive("sub/s1");
  withdrawal("gone/g1");
  pass(1100ms);
  withdrawal("sub/s1");
  withdrawal("never/n1");
  outage();
  EXPECT_EQ(left(), Numbers{});
  alive("sub/s1");
  EXPECT_EQ(left(), Numbers{1}) << "the other one had left before";
}

TEST_F(ReunionTest, AnotherIncarnationOfTheNameCountsForOneThatIsAwaited) {
  alive("a/gw/1");
  alive("a/gw/2");
  outage();
  alive("a/3");
  alive("a/gw/x/3");
  alive("a/gw/1");
  alive("a/gw/1");
  EXPECT_EQ(left(), Numbers{}) << "who is back does not count for another as well";
  presence("a/gw/3", 1);
  presence("a/gw/3", 0, true);
  EXPECT_EQ(left(), Numbers{});
  alive("a/gw/3");
  EXPECT_EQ(left(), Numbers{1});
}

TEST_F(ReunionTest, WhoSubscribesToNothingIsNotAwaited) {
  subscriptions = 0;
  alive("pub/p1");
  outage();
  EXPECT_EQ(left(), Numbers{1});
  subscriptions = 1;
  alive("pub/p1");
  subscriptions = 0;
  alive("pub/p1");
  withdrawal("pub/p1");
  outage();
  EXPECT_EQ(left(), Numbers{1}) << "not any more either";
}

TEST_F(ReunionTest, ANewIncarnationCountsOnceItHasSubscribed) {
  alive("gw/1");
  outage();
  subscriptions = 0;
  alive("gw/2");
  EXPECT_EQ(left(), Numbers{}) << "it has not come to that yet";
  subscriptions = 1;
  alive("gw/2");
  EXPECT_EQ(left(), Numbers{1});
}

TEST_F(ReunionTest, WhoComesBackWithoutSubscriptionsIsBack) {
  alive("gw/1");
  outage();
  subscriptions = 0;
  alive("gw/1");
  EXPECT_EQ(left(), Numbers{1});
}

TEST_F(ReunionTest, OneNewIncarnationDoesNotCountTwice) {
  alive("gw/1");
  alive("gw/2");
  outage();
  alive("gw/3");
  alive("gw/3");
  EXPECT_EQ(left(), Numbers{});
  alive("gw/4");
  EXPECT_EQ(left(), Numbers{1});
}

TEST_F(ReunionTest, WhoIsAwaitedStaysSoWhenTheLinkIsLostAgain) {
  alive("sub/s1");
  alive("view/v1");
  outage();
  alive("view/v1");
  withdrawal("sub/s1");
  outage();
  alive("sub/s1");
  EXPECT_EQ(left(), Numbers{}) << "the other one was there again and is awaited again";
  outage();
  alive("view/v1");
  withdrawal("sub/s1");
  outage();
  alive("view/v1");
  pass(2s);
  EXPECT_EQ(left(), Numbers{}) << "a broker that ends withdraws everybody";
  alive("sub/s1");
  EXPECT_EQ(left(), Numbers{1});
}

TEST_F(ReunionTest, AFlushThatWaitsForOthersEndsAtItsLimit) {
  alive("sub/s1");
  outage();
  EXPECT_FALSE(session->flush(10ms));
  alive("sub/s1");
  for (const std::uint64_t token : network->tokens) network->to->published(token, "");
  EXPECT_TRUE(session->flush(10ms));
}

TEST_F(ReunionTest, APublicationIsClosedAtOnceAndWhatItHeldIsCounted) {
  alive("sub/s1");
  outage();
  send(1);
  KelPublication* closing = std::exchange(publication, nullptr);
  session->destroyPublication(closing);
  const auto& [topic, payload] = network->published[network->published.size() - 2];
  EXPECT_EQ(topic, "kel/g/data/x");
  EXPECT_TRUE(payload.empty());
  EXPECT_EQ(session->counters().outgoingSuperseded, 2);
  EXPECT_EQ(session->counters().outgoingPending, 0);
}

TEST_F(ReunionTest, TheQueueKeepsItsBoundAndTheNewest) {
  alive("sub/s1");
  outage();
  for (int i = 1; i <= 20'100; ++i) send(i);
  EXPECT_EQ(session->counters().outgoingSuperseded, 100);
  EXPECT_EQ(session->counters().outgoingPending, 20'001) << "the bound, and the newest";
  alive("sub/s1");
  EXPECT_EQ(left().front(), 101);
}

/// The same with all there is: members, a broker, and its clock.
struct ReunionGroup : testing::KelFixture {
  void SetUp() override {
    subscriber = factory("sub", "s1");
    subscriber->createSubscription("x", &listener);
    publisher = factory("pub", "p1");
    publication = publisher->createPublication("x", nullptr);
    send(publication, 0);
    listener.lines(2);
    advance(3s);
    listener.clear();
  }
  Listener& listener = newListener();
  Factory subscriber;
  Factory publisher;
  KelPublication* publication = nullptr;
};

TEST_F(ReunionGroup, WhatWaitedForABrokerReachesASubscriberThatComesBackAfterThePublisher) {
  broker->setReachable("pub", false);
  broker->setReachable("sub", false);
  broker->cut("");
  settle();
  for (int i = 1; i <= 50; ++i) send(publication, i);
  listener.lines(1);
  listener.clear();
  broker->setReachable("pub", true);
  advance(1500ms);
  broker->setReachable("sub", true);
  settle();
  advance(200ms);
  ASSERT_TRUE(publisher->flush(30s));
  EXPECT_TRUE(listener.waitFor(
      [](const testing::Journal& said) { return !said.empty() && said.back() == "record 50"; }));
  EXPECT_EQ(subscriber->counters("x").gaps, 0);
  EXPECT_TRUE(balanced(publisher->counters()));
}

TEST_F(ReunionGroup, AnOutageOfTheOwnLinkAloneCostsNoTime) {
  broker->setReachable("pub", false);
  broker->cut("pub");
  settle();
  for (int i = 1; i <= 50; ++i) send(publication, i);
  advance(2s);
  listener.clear();
  broker->setReachable("pub", true);
  settle();  // a probe and its answers; the clock stands still
  ASSERT_TRUE(publisher->flush(0ms));
  EXPECT_TRUE(listener.waitFor(
      [](const testing::Journal& said) { return !said.empty() && said.back() == "record 50"; }));
  EXPECT_EQ(subscriber->counters("x").gaps, 0);
}

}  // namespace
}  // namespace kel
