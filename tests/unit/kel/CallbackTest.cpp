// What listeners may rely on: which thread, when, and never after the end.

#include <future>

#include "KelFixture.h"

namespace kel {
namespace {

using namespace std::chrono_literals;
using testing::Handler;
using testing::Journal;
using testing::KelFixture;
using testing::Listener;

struct CallbackTest : KelFixture {
  void SetUp() override {
    publisher = factory("pub", "p1");
    publication = publisher->createPublication("x", &handler);
  }
  Handler handler;
  Factory publisher;
  KelPublication* publication = nullptr;
};

TEST_F(CallbackTest, RunOnOneThreadThatIsNotTheApplications) {
  std::mutex mutex;
  std::vector<std::thread::id> threads;
  Listener& first = newListener();
  Listener& second = newListener();
  first.onMessage = second.onMessage = [&](KelSubscription*, KelData&) {
    const std::lock_guard lock(mutex);
    threads.push_back(std::this_thread::get_id());
  };
  auto subscriber = factory("sub", "s1");
  subscriber->createSubscription("x", &first);
  subscriber->createSubscription("x", &second);
  send(publication, 1);
  first.lines(2);
  second.lines(2);
  const std::lock_guard lock(mutex);
  ASSERT_EQ(threads.size(), 2U);
  EXPECT_EQ(threads[0], threads[1]);
  EXPECT_NE(threads[0], std::this_thread::get_id());
}

TEST_F(CallbackTest, ReleaseWaitsForARunningOneAndNoneFollows) {
  std::promise<void> entered;
  std::promise<void> leave;
  auto mayLeave = leave.get_future().share();
  std::atomic<int> inside{0};
  std::atomic<int> calls{0};
  Listener& listener = newListener();
  listener.onMessage = [&](KelSubscription*, KelData&) {
    ++inside;
    if (calls.fetch_add(1) == 0) entered.set_value();
    mayLeave.wait();
    --inside;
  };
  auto subscriber = factory("sub", "s1");
  KelSubscription* subscription = subscriber->createSubscription("x", &listener);
  send(publication, 1);
  send(publication, 2);
  entered.get_future().wait();
  auto released = std::async(std::launch::async, [&] {
    subscriber->releaseSubscription(subscription);
    return std::pair(inside.load(), calls.load());
  });
  leave.set_value();
  const auto [insideThen, callsThen] = released.get();
  EXPECT_EQ(insideThen, 0) << "release came back while a callback was running";
  Listener& other = newListener();
  subscriber->createSubscription("x", &other);
  send(publication, 3);
  EXPECT_TRUE(
      other.waitFor([](const Journal& journal) { return !journal.empty() && journal.back() == "record 3"; }));
  EXPECT_EQ(calls, callsThen);
  EXPECT_TRUE(balanced(subscriber->counters()));
}

TEST_F(CallbackTest, MayReleaseItsOwnSubscription) {
  auto subscriber = factory("sub", "s1");
  Listener& listener = newListener();
  listener.onMessage = [&](KelSubscription* own, KelData&) { subscriber->releaseSubscription(own); };
  subscriber->createSubscription("x", &listener);
  send(publication, 1);
  EXPECT_EQ(listener.lines(2), (Journal{"connected", "record 1"}));
  send(publication, 2);
  ASSERT_TRUE(publisher->flush(30s));
  settle();
  Listener& another = newListener();
  subscriber->createSubscription("x", &another);
  another.lines(2);
  EXPECT_EQ(listener.all().size(), 2U);
}

TEST_F(CallbackTest, MayCallBackIntoTheLibrary) {
  auto subscriber = factory("sub", "s1");
  Listener& other = newListener();
  Listener& listener = newListener();
  listener.onMessage = [&](KelSubscription* own, KelData& data) {
    if (data.extractInt(nullptr) != 1) return;
    own->requestResend();
    subscriber->createSubscription("x", &other);
    KelData changed(data);
    changed.insert(2, nullptr);
    publication->send(changed, data.getTimestamp());
  };
  subscriber->createSubscription("x", &listener);
  send(publication, 1);
  EXPECT_TRUE(
      other.waitFor([](const Journal& journal) { return !journal.empty() && journal.back() == "record 2"; }));
  EXPECT_TRUE(listener.waitFor([](const Journal& journal) { return journal.back() == "record 2"; }));
}

TEST_F(CallbackTest, WhatTheyThrowIsCountedAndTheNextOneComes) {
  Listener& listener = newListener();
  listener.onMessage = [](KelSubscription*, KelData& data) {
    if (data.extractInt(nullptr) == 1) throw std::runtime_error("first");
    if (data.extractInt(nullptr) == 2) throw 2;  // NOLINT(hicpp-exception-baseclass): anything may come
  };
  auto subscriber = factory("sub", "s1");
  subscriber->createSubscription("x", &listener);
  for (int i = 1; i <= 3; ++i) send(publication, i);
  EXPECT_EQ(listener.lines(2), (Journal{"connected", "record 3"}));
  EXPECT_EQ(subscriber->counters().listenerExceptions, 2);
  EXPECT_EQ(subscriber->counters("x").listenerExceptions, 2);
}

TEST_F(CallbackTest, ASlowListenerKeepsTheNewestOfEachPublication) {
  KelOptions options;
  options.handOffRecords = 10;
  KelPublication* quiet = publisher->createPublication("quiet", &handler);
  std::promise<void> entered;
  std::promise<void> leave;
  auto mayLeave = leave.get_future().share();
  Listener& slow = newListener();
  std::atomic<bool> first{true};
  slow.onMessage = [&](KelSubscription*, KelData&) {
    if (first.exchange(false)) entered.set_value();
    mayLeave.wait();
  };
  Listener& other = newListener();
  auto subscriber = factory("sub", "s1", options);
  subscriber->createSubscription("x", &slow);
  subscriber->createSubscription("quiet", &other);
  settle();
  send(publication, 0);
  entered.get_future().wait();
  send(quiet, 1000);
  for (int i = 1; i <= 100; ++i) send(publication, i);
  ASSERT_TRUE(publisher->flush(30s));
  settle();
  const KelCounters while_ = subscriber->counters();
  EXPECT_EQ(while_.received, 102);
  EXPECT_GE(while_.superseded, 89);
  EXPECT_TRUE(balanced(while_));
  leave.set_value();
  EXPECT_TRUE(slow.waitFor([](const Journal& journal) { return journal.back() == "record 100"; }));
  EXPECT_EQ(other.lines(2), (Journal{"connected", "record 1000"}));
  const KelCounters counters = subscriber->counters();
  EXPECT_TRUE(balanced(counters));
  EXPECT_EQ(counters.gaps, 0) << "nothing was missing on the way";
  EXPECT_EQ(subscriber->counters("quiet").superseded, 0);
}

TEST_F(CallbackTest, AListenerThatDoesNotComeBackHearsOfAShortPartOfEndlessFlapping) {
  std::promise<void> leave;
  auto mayLeave = leave.get_future().share();
  std::promise<void> entered;
  std::atomic<bool> first{true};
  Listener& listener = newListener();
  listener.onMessage = [&](KelSubscription*, KelData&) {
    if (first.exchange(false)) {
      entered.set_value();
      mayLeave.wait();
    }
  };
  auto subscriber = factory("sub", "s1");
  subscriber->createSubscription("x", &listener);
  send(publication, 1);
  entered.get_future().wait();
  for (int i = 0; i < 400; ++i) {
    broker->cut("pub-p1");
    advance(1s);  // it publishes again when the subscriber has shown itself
  }
  leave.set_value();
  send(publication, 2);
  EXPECT_TRUE(listener.waitFor(
      [](const Journal& journal) { return !journal.empty() && journal.back() == "record 2"; }));
  const Journal journal = listener.all();
  int connections = 0;
  for (const std::string& line : journal) {
    if (line == "connected") ++connections;
    if (line.starts_with("disconnected")) --connections;
    EXPECT_TRUE(connections == 0 || connections == 1);
  }
  EXPECT_EQ(connections, 1);
  EXPECT_TRUE(balanced(subscriber->counters()));
}

TEST_F(CallbackTest, NoneComesAfterTheFactoryHasEnded) {
  Listener& listener = newListener();
  auto subscriber = factory("sub", "s1");
  subscriber->createSubscription("x", &listener);
  send(publication, 1);
  listener.lines(2);
  subscriber.reset();
  send(publication, 2);
  publisher.reset();
  settle();
  EXPECT_EQ(listener.all(), (Journal{"connected", "record 1"}));
}

}  // namespace
}  // namespace kel
