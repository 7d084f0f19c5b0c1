// What becomes of a publication whose record a real broker takes for too large.
#include <gmock/gmock.h>
#include <kel/Kel.h>

#include <chrono>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <string>

#include "Mosquitto.h"
#include "MqttClient.h"
#include "ScriptedBroker.h"

namespace kel::testing {
namespace {

using namespace std::chrono_literals;
using ::testing::AllOf;
using ::testing::ContainsRegex;
using ::testing::HasSubstr;
using ::testing::Not;

/// Knows the last record: "5", or "5 q0: why"; "nothing" for a record without the field.
class Last final : public KelSubscriptionListener {
 public:
  void handleMessage(KelSubscription* /*subscription*/, KelData& data) override {
    std::string line = data.getValueType("n") == 4 ? std::to_string(data.extractInt("n")) : "nothing";
    if (data.getQuality() != 1)
      line += " q" + std::to_string(data.getQuality()) + ": " + std::string(data.getReason());
    const std::lock_guard lock(mutex_);
    last_ = line;
    changed_.notify_all();
  }
  void disconnected(KelSubscription* /*subscription*/, char* /*reason*/) override {}
  void connected(KelSubscription* /*subscription*/) override {}
  void handleException(KelSubscription* /*subscription*/, KelException& /*exception*/) override {}

  /// The last record once it begins so; what it is by then if that takes too long.
  std::string waitFor(const std::string& beginning) {
    std::unique_lock lock(mutex_);
    changed_.wait_for(lock, 10s, [&] { return last_.starts_with(beginning); });
    return last_;
  }

 private:
  std::mutex mutex_;
  std::condition_variable changed_;
  std::string last_;
};

class Complaints final : public KelPublicationErrorHandler {
 public:
  void handleException(KelPublication* /*publication*/, KelException& exception) override {
    const std::lock_guard lock(mutex_);
    ++count_;
    last_ = exception.what();
    changed_.notify_all();
  }
  /// Once there is one; they come on a thread of their own.
  int count() {
    std::unique_lock lock(mutex_);
    changed_.wait_for(lock, 10s, [&] { return count_ > 0; });
    return count_;
  }
  std::string last() {
    const std::lock_guard lock(mutex_);
    return last_;
  }

 private:
  std::mutex mutex_;
  std::condition_variable changed_;
  int count_ = 0;
  std::string last_;
};

void send(KelPublication* publication, int value, std::size_t size = 10) {
  KelData data;
  data.insert(value, "n");
  data.insert(std::string(size, 'x').c_str(), "text");
  publication->send(data, KelTimestamp(value));
}

std::unique_ptr<KelFactory> member(const Mosquitto& broker, const char* name) {
  KelOptions options;
  options.url = broker.url();
  return std::unique_ptr<KelFactory>(Kel::create(name, options));
}

struct Course {
  std::string said;       ///< on standard error
  std::string complaint;  ///< to the publication's handler
};

/// One record that fits, two that do not, one that does; everything that holds for any broker is checked.
Course refuseTwoOfFour(const std::string& setting) {
  Mosquitto broker({.more = {setting}});
  broker.start();
  ::testing::internal::CaptureStderr();
  Course course;
  {
    Last last;
    Complaints complaints;
    auto watcher = member(broker, "watcher");
    auto publisher = member(broker, "publisher");
    watcher->createSubscription("x", &last);
    KelPublication* publication = publisher->createPublication("x", &complaints);
    send(publication, 1);
    EXPECT_EQ(last.waitFor("1"), "1");
    send(publication, 2, 150'000);
    EXPECT_THAT(last.waitFor("1 q0"), AllOf(HasSubstr("1 q0: "), HasSubstr("a record of 150"),
                                            HasSubstr("too large for the broker")));
    send(publication, 3, 150'000);
    EXPECT_TRUE(publisher->flush(10s));
    send(publication, 4);
    EXPECT_EQ(last.waitFor("4"), "4");
    EXPECT_TRUE(publisher->flush(10s));
    EXPECT_EQ(complaints.count(), 1) << complaints.last();
    course.complaint = complaints.last();
    const KelCounters counters = publisher->counters("x");
    EXPECT_EQ(counters.refused, 2);
    EXPECT_EQ(counters.sends, counters.acknowledged + counters.refused + counters.outgoingSuperseded);
    EXPECT_EQ(publisher->counters().reconnects, 0);
  }
  course.said = ::testing::internal::GetCapturedStderr();
  EXPECT_THAT(course.said, Not(HasSubstr("has this user the right")));
  return course;
}

TEST(MqttOversize, isDeclaredBadWhenTheBrokerAnswersThatAMessageIsTooLarge) {
  const Course course = refuseTwoOfFour("message_size_limit 100000");
  EXPECT_THAT(course.said, ContainsRegex("a record of 150... bytes.*x.*too large for the broker"));
  EXPECT_THAT(course.complaint, HasSubstr("Packet too large"));
}

TEST(MqttOversize, isDeclaredBadWhenTheBrokerHasNamedItsLimit) {
  const Course course = refuseTwoOfFour("max_packet_size 100000");
  EXPECT_THAT(course.said,
              ContainsRegex("a record of 150... bytes.*x.*too large for the broker.*100000 bytes"));
  EXPECT_THAT(course.complaint, HasSubstr("100000 bytes"));
}

TEST(MqttOversize, isReportedWithSizeAndLimitByWhicheverWayTheBrokerRefuses) {
  using TooLarge = RecordingListener::TooLarge;
  for (const auto& [setting, limit] :
       {std::pair("message_size_limit 1000", 0U), std::pair("max_packet_size 1000", 1000U)}) {
    Mosquitto broker({.more = {setting}});
    broker.start();
    Client client(broker.url());
    ASSERT_TRUE(client.startAndWait());
    ASSERT_TRUE(client.transport->publish(message("x", std::string(2000, 'x')), 1));
    ASSERT_TRUE(client.transport->publish(message("x", std::string(900, 'x')), 2));
    ASSERT_TRUE(client.listener.waitFor(
        [](const RecordingListener::Record& record) { return record.published.size() == 2; }));
    auto record = client.listener.snapshot();
    EXPECT_EQ(record.oversized.size(), 1U) << setting;
    EXPECT_EQ(record.oversized[1], (TooLarge{2000, limit, false})) << setting;
    EXPECT_NE(record.published[1], "");
    EXPECT_EQ(record.published[2], "");
    EXPECT_TRUE(record.downs.empty());
  }
}

TEST(MqttOversize, isTheLargestUnderWayWhenTheBrokerEndsTheLinkOverIt) {
  ScriptedBroker broker([](std::string_view packet) -> ScriptedBroker::Answer {
    if (packetType(packet) == 1) return {connack(0), false};
    if (packetType(packet) == 3 && packet.find("third") != std::string_view::npos)
      return {disconnectPacket(0x95), true};
    return {};
  });
  Client client(broker.url());
  // From inside up(), so that all three are on their way together.
  client.listener.onUp = [&] {
    if (client.listener.snapshot().ups > 1) return;
    client.transport->publish(message("first", std::string(100, 'x')), 1);
    client.transport->publish(message("second", std::string(3000, 'x')), 2);
    client.transport->publish(message("third", std::string(200, 'x')), 3);
  };
  client.start();
  ASSERT_TRUE(
      client.listener.waitFor([](const RecordingListener::Record& record) { return !record.downs.empty(); }));
  auto record = client.listener.snapshot();
  ASSERT_EQ(record.oversized.size(), 1U);
  EXPECT_EQ(record.oversized[2], (RecordingListener::TooLarge{3000, 0, true}));
  EXPECT_EQ(record.published.size(), 1U);
}

}  // namespace
}  // namespace kel::testing
