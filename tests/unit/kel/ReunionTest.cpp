// After a lost link: what members say of their subscriptions, and who waits for whom.

#include "KelFixture.h"
#include "ScriptedSession.h"
#include "session/ControlPayload.h"

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
  Listener listener;
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

TEST(PresenceNews, ReadsTwoNumbersAndNothingElse) {
  PresencePayload presence;
  presence.publisher = {"a", "a1"};
  presence.keepAlive = 7s;
  presence.subscribing = 3;
  EXPECT_EQ(presenceNews(encodePresence(presence, 1)).keepAlive, 7s);
  EXPECT_EQ(presenceNews(encodePresence(presence, 1)).subscribing, 3);
  presence.keepAlive = 0s;
  presence.subscribing = -1;
  EXPECT_FALSE(presenceNews(encodePresence(presence, 1)).keepAlive);
  EXPECT_EQ(presenceNews(encodePresence(presence, 1)).subscribing, 0);
  EXPECT_EQ(presenceNews("").subscribing, 0);
  EXPECT_EQ(presenceNews("no payload").subscribing, 0);
}

}  // namespace
}  // namespace kel
