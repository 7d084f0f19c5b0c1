// What a Kel session must do on every transport.

#include <kel/KelBrowser.h>

#include <atomic>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <thread>

#include "TransportSuite.h"

namespace kel::testing {

using namespace std::chrono_literals;
using Lines = std::vector<std::string>;

namespace {

/// Writes down what it is told; "record 5" is an unnamed int.
class Subscriber final : public KelSubscriptionListener {
 public:
  std::function<void(KelData&)> onRecord;

  void handleMessage(KelSubscription* /*subscription*/, KelData& data) override {
    if (onRecord) onRecord(data);
    std::string line = "record";
    if (data.getValueType(nullptr) == 4) line += " " + std::to_string(data.extractInt(nullptr));
    if (data.getQuality() != 1) line += " bad: " + std::string(data.getReason());
    note(line);
  }
  void disconnected(KelSubscription* /*subscription*/, char* /*reason*/) override { note("disconnected"); }
  void connected(KelSubscription* /*subscription*/) override { note("connected"); }
  void handleException(KelSubscription* /*subscription*/, KelException& exception) override {
    note(exception.what());
  }

  bool waitFor(const std::function<bool(const Lines&)>& holds) {
    std::unique_lock lock(mutex_);
    return changed_.wait_for(lock, 30s, [&] { return holds(lines_); });
  }
  bool waitForLast(const std::string& line) {
    return waitFor([&](const Lines& lines) { return !lines.empty() && lines.back() == line; });
  }
  Lines lines() {
    const std::lock_guard lock(mutex_);
    return lines_;
  }

 private:
  void note(const std::string& line) {
    const std::lock_guard lock(mutex_);
    lines_.push_back(line);
    changed_.notify_all();
  }
  std::mutex mutex_;
  std::condition_variable changed_;
  Lines lines_;
};

std::unique_ptr<KelFactory> member(TransportWorld& world, const char* name) {
  KelOptions options;
  options.url = world.url("group=suite");
  return std::unique_ptr<KelFactory>(Kel::create(name, options));
}

void send(KelPublication* publication, int value) {
  KelData data;
  data.insert(value, nullptr);
  publication->send(data, KelTimestamp(value));
}

}  // namespace

TEST_P(SessionSuite, CarriesEveryTypeUnchanged) {
  Subscriber subscriber;
  std::atomic<bool> same{false};
  const bool booleans[] = {true, false, true};
  const int ints[] = {-1, 0, 1};
  const std::string texts[] = {"", "gr\xC3\xBC\xC3\x9F", "\xFF"};
  subscriber.onRecord = [&](KelData& data) {
    int count = 0;
    const char* const* got = data.extractCStringArray(count, "texts");
    same = data.size() == 8 && data.extractBool("bool") && data.extractByte("byte") == 200 &&
           data.extractLong("long") == -5 && data.extractDouble("double") == 0.1 &&
           std::string(data.extractCString("text")) == "\xFE\xFF" && count == 3 && got[1] == texts[1] &&
           data.extractIntArray(count, "ints")[0] == -1 && count == 3 &&
           data.extractBoolArray(count, "booleans")[2] && data.getTimestamp().timeNanoseconds == -7;
  };
  auto a = member(*world, "a");
  auto b = member(*world, "b");
  b->createSubscription("plant/x y%", &subscriber);
  ASSERT_TRUE(subscriber.waitForLast("disconnected"));  // nobody is there yet
  KelData data;
  data.insert(true, "bool");
  data.insert(static_cast<unsigned char>(200), "byte");
  data.insert(std::int64_t{-5}, "long");
  data.insert(0.1, "double");
  data.insert("\xFE\xFF", "text");
  data.insert(texts, 3, "texts");
  data.insert(ints, 3, "ints");
  data.insert(booleans, 3, "booleans");
  a->createPublication("plant/x y%", nullptr)->send(data, KelTimestamp(-7));
  ASSERT_TRUE(subscriber.waitForLast("record"));
  EXPECT_EQ(subscriber.lines(), (Lines{"disconnected", "connected", "record"}));
  EXPECT_TRUE(same);
}

TEST_P(SessionSuite, FollowsAPublisherThroughItsLife) {
  Subscriber subscriber;
  auto watcher = member(*world, "watcher");
  watcher->createSubscription("x", &subscriber);
  ASSERT_TRUE(subscriber.waitForLast("disconnected"));  // nobody is there yet
  auto a = member(*world, "a");
  KelPublication* publication = a->createPublication("x", nullptr);
  publication->declareBad("not yet");
  ASSERT_TRUE(subscriber.waitForLast("record bad: not yet"));
  send(publication, 1);
  publication->declareBad("broken");
  ASSERT_TRUE(subscriber.waitForLast("record 1 bad: broken"));
  a.reset();
  ASSERT_TRUE(subscriber.waitForLast("disconnected"));
  a = member(*world, "a");
  publication = a->createPublication("x", nullptr);
  send(publication, 2);
  ASSERT_TRUE(subscriber.waitForLast("record 2"));
  a->destroyPublication(publication);
  ASSERT_TRUE(subscriber.waitForLast("disconnected"));
  EXPECT_EQ(subscriber.lines(),
            (Lines{"disconnected", "record bad: not yet", "connected", "record 1", "record 1 bad: broken",
                   "disconnected", "connected", "record 2", "disconnected"}));
}

TEST_P(SessionSuite, ComesBackWithTheNewestRecordsAfterALostLink) {
  Subscriber subscriber;
  auto watcher = member(*world, "watcher");
  watcher->createSubscription("x", &subscriber);
  ASSERT_TRUE(subscriber.waitForLast("disconnected"));  // nobody is there yet
  auto a = member(*world, "a");
  KelPublication* publication = a->createPublication("x", nullptr);
  send(publication, 1);
  ASSERT_TRUE(subscriber.waitForLast("record 1"));
  for (int round = 2; round <= 4; ++round) {
    world->cutLinks();
    send(publication, round);
    const std::string wanted = "record " + std::to_string(round);
    ASSERT_TRUE(subscriber.waitForLast(wanted)) << wanted;
    ASSERT_TRUE(a->flush(30s));
  }
  // Whatever was told on the way, it was told in a possible order.
  bool connected = false;
  int last = 0;
  Lines lines = subscriber.lines();
  lines.erase(lines.begin());  // that nobody was there
  for (const std::string& line : lines) {
    if (line == "connected") {
      EXPECT_FALSE(connected);
      connected = true;
    } else if (line == "disconnected") {
      EXPECT_TRUE(connected);
      connected = false;
    } else {
      EXPECT_TRUE(connected);
      const int value = std::stoi(line.substr(7));
      EXPECT_GE(value, last);
      last = value;
    }
  }
}

TEST_P(SessionSuite, LosesNothingAndKeepsTheOrderOfFourPublishers) {
  constexpr int records = 5000;
  struct Ordered {
    Subscriber subscriber;
    std::atomic<int> next{1};
    std::atomic<int> wrong{0};
  };
  Ordered ordered[4];
  std::vector<std::unique_ptr<KelFactory>> publishers;
  std::vector<KelPublication*> publications;
  auto watcher = member(*world, "watcher");
  for (int p = 0; p < 4; ++p) {
    Ordered& here = ordered[p];
    here.subscriber.onRecord = [&here](KelData& data) {
      if (data.extractInt(nullptr) != here.next++) ++here.wrong;
    };
    const std::string name = "p" + std::to_string(p);
    watcher->createSubscription(name.c_str(), &here.subscriber);
    publishers.push_back(member(*world, name.c_str()));
    publications.push_back(publishers.back()->createPublication(name.c_str(), nullptr));
  }
  // The first record of each is awaited, so that all links stand.
  for (int p = 0; p < 4; ++p) send(publications[static_cast<std::size_t>(p)], 1);
  for (Ordered& here : ordered) ASSERT_TRUE(here.subscriber.waitForLast("record 1"));
  std::vector<std::thread> threads;
  threads.reserve(publications.size());
  for (KelPublication* publication : publications) {
    threads.emplace_back([publication] {
      for (int i = 2; i <= records; ++i) send(publication, i);
    });
  }
  for (std::thread& thread : threads) thread.join();
  for (Ordered& here : ordered) {
    ASSERT_TRUE(here.subscriber.waitForLast("record " + std::to_string(records)));
    EXPECT_EQ(here.wrong, 0);
  }
  const KelCounters counters = watcher->counters();
  EXPECT_EQ(counters.received, 4 * records);
  EXPECT_EQ(counters.gaps, 0);
  EXPECT_EQ(counters.repeated, 0);
  EXPECT_EQ(counters.superseded, 0);
  for (const auto& publisher : publishers) {
    EXPECT_TRUE(publisher->flush(30s));
    EXPECT_EQ(publisher->counters().acknowledged, records);
  }
}

TEST_P(SessionSuite, ConnectsManySubscriptions) {
  constexpr int number = 600;
  auto a = member(*world, "a");
  for (int i = 0; i < number; ++i) {
    send(a->createPublication(("many/" + std::to_string(i)).c_str(), nullptr), i);
  }
  ASSERT_TRUE(a->flush(30s));
  std::vector<Subscriber> subscribers(number);
  auto watcher = member(*world, "watcher");
  for (int i = 0; i < number; ++i) {
    watcher->createSubscription(("many/" + std::to_string(i)).c_str(),
                                &subscribers[static_cast<std::size_t>(i)]);
  }
  for (int i = 0; i < number; ++i) {
    ASSERT_TRUE(subscribers[static_cast<std::size_t>(i)].waitForLast("record " + std::to_string(i))) << i;
  }
  KelBrowser browser(world->url("group=suite"));
  ASSERT_TRUE(browser.look(30s)) << browser.error();
  EXPECT_EQ(browser.publications().size(), static_cast<std::size_t>(number));
  EXPECT_EQ(browser.publishers().size(), 2U);
}

TEST_P(SessionSuite, GivesANameToOnePublisherAtATime) {
  Subscriber subscriber;
  auto watcher = member(*world, "watcher");
  watcher->createSubscription("x", &subscriber);
  ASSERT_TRUE(subscriber.waitForLast("disconnected"));  // nobody is there yet
  auto a = member(*world, "a");
  auto b = member(*world, "b");
  send(a->createPublication("x", nullptr), 1);
  ASSERT_TRUE(a->flush(30s));
  KelPublication* late = b->createPublication("x", nullptr);
  send(late, 2);
  send(late, 3);
  ASSERT_TRUE(subscriber.waitForLast("record 1"));
  EXPECT_FALSE(b->flush(50ms));
  a.reset();
  ASSERT_TRUE(subscriber.waitForLast("record 3"));
  EXPECT_EQ(subscriber.lines(),
            (Lines{"disconnected", "connected", "record 1", "disconnected", "connected", "record 3"}));
}

TEST_P(SessionSuite, ResendsOnRequest) {
  Subscriber subscriber;
  auto watcher = member(*world, "watcher");
  KelSubscription* subscription = watcher->createSubscription("x", &subscriber);
  ASSERT_TRUE(subscriber.waitForLast("disconnected"));  // nobody is there yet
  auto a = member(*world, "a");
  send(a->createPublication("x", nullptr), 1);
  ASSERT_TRUE(subscriber.waitForLast("record 1"));
  subscription->requestResend();
  ASSERT_TRUE(subscriber.waitFor([](const Lines& lines) { return lines.size() == 4; }));
  EXPECT_EQ(subscriber.lines().back(), "record 1");
}

TEST_P(SessionSuite, TellsOnceThatThePublisherOfAKeptRecordIsGone) {
  auto a = member(*world, "a");
  send(a->createPublication("x", nullptr), 1);
  ASSERT_TRUE(a->flush(30s));
  a.reset();
  Subscriber subscriber;
  auto watcher = member(*world, "watcher");
  watcher->createSubscription("x", &subscriber);
  ASSERT_TRUE(subscriber.waitForLast("disconnected"));
  Subscriber second;
  watcher->createSubscription("x", &second);
  ASSERT_TRUE(second.waitForLast("disconnected"));
  EXPECT_EQ(subscriber.lines(), Lines{"disconnected"});
  a = member(*world, "a");
  send(a->createPublication("x", nullptr), 2);
  ASSERT_TRUE(subscriber.waitForLast("record 2"));
  ASSERT_TRUE(second.waitForLast("record 2"));
  EXPECT_EQ(subscriber.lines(), (Lines{"disconnected", "connected", "record 2"}));
  EXPECT_EQ(second.lines(), (Lines{"disconnected", "connected", "record 2"}));
}

}  // namespace kel::testing
