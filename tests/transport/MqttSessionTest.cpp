// A Kel session against what a real broker does when it has too little room.
#include <gtest/gtest.h>
#include <kel/Kel.h>

#include <chrono>
#include <condition_variable>
#include <deque>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

#include "KelUrl.h"
#include "Mosquitto.h"
#include "session/Session.h"
#include "transport/MakeTransport.h"

namespace kel::testing {
namespace {

using namespace std::chrono_literals;

/// Knows the last thing that it was told: "record 5", "record 5 bad: why", "disconnected".
class Last final : public KelSubscriptionListener {
 public:
  void handleMessage(KelSubscription* /*subscription*/, KelData& data) override {
    std::string line = "record";
    if (data.getValueType(nullptr) == 4) line += " " + std::to_string(data.extractInt(nullptr));
    if (data.getQuality() != 1) line += " bad: " + std::string(data.getReason());
    note(line);
  }
  void disconnected(KelSubscription* /*subscription*/, char* /*reason*/) override { note("disconnected"); }
  void connected(KelSubscription* /*subscription*/) override {}
  void handleException(KelSubscription* /*subscription*/, KelException& exception) override {
    note(exception.what());
  }

  bool waitFor(const std::string& line, std::chrono::seconds limit = 30s) {
    std::unique_lock lock(mutex_);
    return changed_.wait_for(lock, limit, [&] { return last_ == line; });
  }
  std::string last() {
    const std::lock_guard lock(mutex_);
    return last_;
  }

 private:
  void note(const std::string& line) {
    const std::lock_guard lock(mutex_);
    last_ = line;
    changed_.notify_all();
  }
  std::mutex mutex_;
  std::condition_variable changed_;
  std::string last_;
};

std::unique_ptr<KelFactory> member(const Mosquitto& broker, const char* name) {
  KelOptions options;
  options.url = broker.url();
  return std::unique_ptr<KelFactory>(Kel::create(name, options));
}

void send(KelPublication* publication, int value) {
  KelData data;
  data.insert(value, nullptr);
  publication->send(data, KelTimestamp(value));
}

/// A transport whose thread the test can hold up with a message in its hands.
class HeldTransport final : public KelTransport, private TransportListener {
 public:
  explicit HeldTransport(std::unique_ptr<KelTransport> inner) : inner_(std::move(inner)) {}

  void hold(bool held) {
    const std::lock_guard lock(mutex_);
    held_ = held;
    changed_.notify_all();
  }

  void start(TransportListener& listener, TransportIdentity identity) override {
    listener_ = &listener;
    inner_->start(*this, std::move(identity));
  }
  void stop(bool clean) override { inner_->stop(clean); }
  bool publish(const OutgoingMessage& message, std::uint64_t token) override {
    return inner_->publish(message, token);
  }
  bool subscribe(const std::string& filter, int qos, std::uint64_t token) override {
    return inner_->subscribe(filter, qos, token);
  }
  bool unsubscribe(const std::string& filter) override { return inner_->unsubscribe(filter); }
  [[nodiscard]] std::chrono::seconds keepAlive() const override { return inner_->keepAlive(); }

 private:
  void up() override { listener_->up(); }
  void down(std::string_view reason) override { listener_->down(reason); }
  void message(std::string_view topic, std::string_view payload, bool retained) override {
    {
      std::unique_lock lock(mutex_);
      changed_.wait(lock, [this] { return !held_; });
    }
    listener_->message(topic, payload, retained);
  }
  void published(std::uint64_t token, std::string_view failure) override {
    listener_->published(token, failure);
  }
  void subscribed(std::uint64_t token, std::string_view failure) override {
    listener_->subscribed(token, failure);
  }
  void tick(std::chrono::steady_clock::time_point now) override { listener_->tick(now); }

  const std::unique_ptr<KelTransport> inner_;
  TransportListener* listener_ = nullptr;
  std::mutex mutex_;
  std::condition_variable changed_;
  bool held_ = false;
};

TEST(MqttSession, bringsTheNewestValuesThatTheBrokersFullQueueDropped) {
  constexpr int number = 20;
  constexpr int noise = 600;
  Mosquitto broker({.more = {"max_queued_messages 100"}});
  broker.start();
  std::deque<Last> quiet(number);  // they outlive who calls them
  Last flooded;
  std::string error;
  const auto url = KelUrl::parse(broker.url(), error);
  ASSERT_TRUE(url) << error;
  auto held = std::make_unique<HeldTransport>(makeTransport(*url, error));
  HeldTransport& transport = *held;
  KelOptions options;
  options.wallClockNanoseconds = [] { return std::int64_t{1}; };
  Session watcher("watcher", "w1", *url, options, std::move(held));
  auto publisher = member(broker, "publisher");
  std::deque<KelPublication*> publications;
  for (int i = 0; i < number; ++i) {
    const std::string name = "quiet/" + std::to_string(i);
    watcher.createSubscription(name.c_str(), &quiet[static_cast<std::size_t>(i)]);
    publications.push_back(publisher->createPublication(name.c_str(), nullptr));
  }
  watcher.createSubscription("flood", &flooded);
  KelPublication* flood = publisher->createPublication("flood", nullptr);
  for (int i = 0; i < number; ++i) {
    send(publications[static_cast<std::size_t>(i)], 1);
    ASSERT_TRUE(quiet[static_cast<std::size_t>(i)].waitFor("record 1"));
  }
  // While the watcher does not read, each says one more thing behind the flood, and then nothing any more.
  transport.hold(true);
  for (int k = 0; k < noise; ++k) send(flood, k);
  ASSERT_TRUE(publisher->flush(30s));
  for (KelPublication* publication : publications) send(publication, 2);
  ASSERT_TRUE(publisher->flush(30s));
  std::this_thread::sleep_for(700ms);  // longer than a late tick
  transport.hold(false);
  for (int i = 0; i < number; ++i) {
    EXPECT_TRUE(quiet[static_cast<std::size_t>(i)].waitFor("record 2", 45s)) << i;
  }
  EXPECT_TRUE(flooded.waitFor("record " + std::to_string(noise - 1), 45s));
  const KelCounters counters = watcher.counters();
  EXPECT_GT(counters.gaps, 0) << "the broker's queue was not full";
  EXPECT_EQ(counters.repeated, 0);
  EXPECT_EQ(counters.received + counters.gaps, noise + 2 * number);
}

}  // namespace
}  // namespace kel::testing
