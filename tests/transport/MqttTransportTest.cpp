// What only MQTT has: a broker that is absent, dies, freezes, or never answers.
#include <gmock/gmock.h>

#include <algorithm>
#include <chrono>
#include <string>

#include "Mosquitto.h"
#include "MqttClient.h"
#include "ScriptedBroker.h"

namespace {

using namespace std::chrono_literals;
using kel::testing::Client;
using kel::testing::FullBacklog;
using kel::testing::isUp;
using kel::testing::message;
using kel::testing::Mosquitto;
using kel::testing::RecordingListener;
using kel::testing::ScriptedBroker;
using kel::testing::since;
using Clock = std::chrono::steady_clock;
using Record = RecordingListener::Record;
using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;

// Ticks come every 80 ms. A loaded machine may stretch that; a connect or a look-up that blocks takes many
// seconds.
constexpr auto kNotBlocked = 1000ms;

TEST(MqttTransport, findsABrokerThatStartsLater) {
  Mosquitto broker;
  Client client(broker.url());
  ::testing::internal::CaptureStderr();
  client.start();
  ASSERT_TRUE(client.listener.waitFor([](const Record& record) { return record.ticks > 10; }));
  EXPECT_EQ(client.listener.snapshot().ups, 0);
  EXPECT_THAT(client.listener.snapshot().failures, Contains("Connection refused"));
  EXPECT_FALSE(client.transport->publish(message("a", "1"), 1));
  EXPECT_FALSE(client.transport->subscribe("a", 1, 2));
  broker.start();
  EXPECT_TRUE(client.listener.waitFor(isUp));
  client.transport->stop(true);
  const std::string said = ::testing::internal::GetCapturedStderr();
  EXPECT_THAT(said, HasSubstr("127.0.0.1:" + std::to_string(broker.port()) +
                              " cannot be reached: Connection refused"));
  EXPECT_THAT(said, HasSubstr("is back"));
  EXPECT_EQ(std::count(said.begin(), said.end(), '\n'), 2) << said;
  EXPECT_THAT(client.listener.snapshot().downs, IsEmpty());
  EXPECT_THAT(client.listener.snapshot().published, IsEmpty());
}

TEST(MqttTransport, noticesAKilledBrokerAtOnceAndComesBackWithoutItsOldMessages) {
  Mosquitto broker;
  broker.start();
  Client client(broker.url());
  ASSERT_TRUE(client.startAndWait());
  ASSERT_TRUE(client.subscribe("t/#"));

  const auto killed = Clock::now();
  broker.kill();
  ASSERT_TRUE(client.listener.waitFor([](const Record& record) { return record.downs.size() == 1; }));
  EXPECT_LT(since(killed), 1s);
  EXPECT_FALSE(client.transport->publish(message("t/old", "old"), 1));

  broker.start();
  ASSERT_TRUE(client.listener.waitFor([](const Record& record) { return record.ups == 2; }));
  ASSERT_TRUE(client.subscribe("t/#"));
  ASSERT_TRUE(client.transport->publish(message("t/new", "new"), 2));
  ASSERT_TRUE(client.waitForMessages(1));
  client.transport->stop(true);
  const Record record = client.listener.snapshot();
  ASSERT_EQ(record.messages.size(), 1U);
  EXPECT_EQ(record.messages[0].topic, "t/new");
  EXPECT_EQ(record.published.at(2), "");
  EXPECT_FALSE(record.published.contains(1));
}

TEST(MqttTransport, noticesAFrozenBrokerWithinTwiceTheKeepAlive) {
  Mosquitto broker;
  broker.start();
  Client client(broker.url("keepAlive=1"));
  ASSERT_TRUE(client.startAndWait());
  const auto frozen = Clock::now();
  broker.pause();
  EXPECT_TRUE(client.listener.waitFor([](const Record& record) { return record.downs.size() == 1; }));
  EXPECT_GE(since(frozen), 900ms);
  EXPECT_LE(since(frozen), 4s);
  EXPECT_THAT(client.listener.snapshot().downs, ElementsAre(HasSubstr("no sign of life")));
  broker.resume();
  EXPECT_TRUE(client.listener.waitFor(isUp));
}

TEST(MqttTransport, noticesAFrozenBrokerWithTheDefaultKeepAliveAlsoWhileItPublishes) {
  Mosquitto broker;
  broker.start();
  Client client(broker.url());
  ASSERT_EQ(client.transport->keepAlive(), 5s);
  ASSERT_TRUE(client.startAndWait());
  const auto frozen = Clock::now();
  broker.pause();
  std::uint64_t token = 0;
  while (!client.listener.waitFor([](const Record& record) { return record.downs.size() == 1; }, 100ms) &&
         since(frozen) < 20s) {
    client.transport->publish(message("t", "x"), ++token);
  }
  EXPECT_GE(since(frozen), 5s);
  EXPECT_LE(since(frozen), 12s);
  EXPECT_GT(token, 20U);
  EXPECT_THAT(client.listener.snapshot().published, IsEmpty());
}

TEST(MqttTransport, keepsAnIdleLinkForManyKeepAlives) {
  Mosquitto broker;
  broker.start();
  Client client(broker.url("keepAlive=1"));
  ASSERT_TRUE(client.startAndWait());
  const auto ticks = client.listener.snapshot().ticks;
  ASSERT_TRUE(client.listener.waitFor([&](const Record& record) { return record.ticks >= ticks + 60; }));
  EXPECT_THAT(client.listener.snapshot().downs, IsEmpty());
  EXPECT_LE(client.listener.snapshot().longestWithoutTick, kNotBlocked);
}

TEST(MqttTransport, letsTheWillOutOnAnAbruptEndOnly) {
  Mosquitto broker;
  broker.start();
  Client observer(broker.url(), "observer");
  ASSERT_TRUE(observer.startAndWait());
  ASSERT_TRUE(observer.subscribe("will/#"));
  {
    Client clean(broker.url(), "clean");
    ASSERT_TRUE(clean.startAndWait());
    clean.transport->stop(true);
  }
  {
    Client abrupt(broker.url(), "abrupt");
    ASSERT_TRUE(abrupt.startAndWait());
    abrupt.transport->stop(false);
  }
  ASSERT_TRUE(observer.waitForMessages(1));
  EXPECT_EQ(observer.listener.snapshot().messages[0].topic, "will/abrupt");
  EXPECT_EQ(observer.listener.snapshot().messages[0].payload, "gone");
}

TEST(MqttTransport, keepsTheWillInOnACleanStopInTheMiddleOfAFlood) {
  Mosquitto broker;
  broker.start();
  Client observer(broker.url(), "observer");
  ASSERT_TRUE(observer.startAndWait());
  ASSERT_TRUE(observer.subscribe("will/#"));
  Client source(broker.url(), "source");
  ASSERT_TRUE(source.startAndWait());
  for (int round = 0; round < 10; ++round) {
    Client leaving(broker.url(), "leaving");
    ASSERT_TRUE(leaving.startAndWait());
    ASSERT_TRUE(leaving.subscribe("flood/#"));
    for (std::uint64_t i = 0; i < 3000; ++i) {
      ASSERT_TRUE(source.transport->publish(message("flood/x", std::string(1000, 'x'), false, 0), i));
    }
    ASSERT_TRUE(leaving.waitForMessages(100));
    leaving.transport->stop(true);
  }
  Client last(broker.url(), "last");
  ASSERT_TRUE(last.startAndWait());
  last.transport->stop(false);
  ASSERT_TRUE(observer.waitForMessages(1));
  const Record record = observer.listener.snapshot();
  ASSERT_EQ(record.messages.size(), 1U);
  EXPECT_EQ(record.messages[0].topic, "will/last");
}

TEST(MqttTransport, sendsWhatItAcceptedBeforeACleanStop) {
  Mosquitto broker;
  broker.start();
  Client observer(broker.url(), "observer");
  ASSERT_TRUE(observer.startAndWait());
  ASSERT_TRUE(observer.subscribe("t/#"));
  Client client(broker.url());
  ASSERT_TRUE(client.startAndWait());
  for (std::uint64_t i = 0; i < 1000; ++i) {
    ASSERT_TRUE(client.transport->publish(message("t/x", std::to_string(i)), i));
  }
  client.transport->stop(true);
  EXPECT_FALSE(client.transport->publish(message("t/x", "late"), 9999));
  EXPECT_EQ(client.listener.snapshot().published.size(), 1000U);
  ASSERT_TRUE(observer.waitForMessages(1000));
  EXPECT_EQ(observer.listener.snapshot().messages.back().payload, "999");
}

TEST(MqttTransport, carriesTenThousandMessagesInOrderAndWithoutLoss) {
  Mosquitto broker;
  broker.start();
  Client receiver(broker.url(), "receiver");
  ASSERT_TRUE(receiver.startAndWait());
  ASSERT_TRUE(receiver.subscribe("t/#"));
  Client sender(broker.url(), "sender");
  ASSERT_TRUE(sender.startAndWait());
  constexpr std::uint64_t count = 10000;
  for (std::uint64_t i = 0; i < count; ++i) {
    ASSERT_TRUE(sender.transport->publish(message("t/x", std::to_string(i)), i));
  }
  ASSERT_TRUE(receiver.waitForMessages(count, 60s));
  ASSERT_TRUE(sender.listener.waitFor([](const Record& record) { return record.published.size() == count; }));
  const Record received = receiver.listener.snapshot();
  const Record sent = sender.listener.snapshot();
  for (std::uint64_t i = 0; i < count; ++i) {
    ASSERT_EQ(received.messages[i].payload, std::to_string(i));
    ASSERT_EQ(sent.publishedInOrder[i], i);
    ASSERT_EQ(sent.published.at(i), "");
  }
  EXPECT_EQ(received.messages.size(), count);
}

TEST(MqttTransport, carriesMoreMessagesThanTheProtocolHasIdentifiers) {
  Mosquitto broker;
  broker.start();
  Client client(broker.url());
  ASSERT_TRUE(client.startAndWait());
  constexpr std::uint64_t count = 70000;
  for (std::uint64_t i = 0; i < count; ++i) {
    ASSERT_TRUE(client.transport->publish(message("t/x", "x"), i));
  }
  ASSERT_TRUE(
      client.listener.waitFor([](const Record& record) { return record.published.size() == count; }, 60s));
  const Record record = client.listener.snapshot();
  EXPECT_TRUE(std::is_sorted(record.publishedInOrder.begin(), record.publishedInOrder.end()));
}

TEST(MqttTransport, keepsRetainedMessagesUntilTheyExpire) {
  Mosquitto broker;
  broker.start();
  Client sender(broker.url(), "sender");
  ASSERT_TRUE(sender.startAndWait());
  auto shortLived = message("t/short", "1", true);
  shortLived.expirySeconds = 1;
  auto longLived = message("t/long", "2", true);
  longLived.expirySeconds = 3600;
  const auto published = Clock::now();
  ASSERT_TRUE(sender.transport->publish(shortLived, 1));
  ASSERT_TRUE(sender.transport->publish(longLived, 2));
  ASSERT_TRUE(sender.listener.waitFor([](const Record& record) { return record.published.size() == 2; }));

  Client early(broker.url(), "early");
  ASSERT_TRUE(early.startAndWait());
  ASSERT_TRUE(early.subscribe("t/#"));
  ASSERT_TRUE(early.waitForMessages(since(published) < 900ms ? 2 : 1));
  EXPECT_TRUE(early.listener.snapshot().messages[0].retained);
  ASSERT_TRUE(sender.transport->publish(message("t/long", "3", true), 3));
  ASSERT_TRUE(
      early.listener.waitFor([](const Record& record) { return record.messages.back().payload == "3"; }));
  EXPECT_FALSE(early.listener.snapshot().messages.back().retained) << "published now, not kept";

  ASSERT_TRUE(early.listener.waitFor([&](const Record&) { return since(published) > 2500ms; }));
  Client late(broker.url(), "late");
  ASSERT_TRUE(late.startAndWait());
  ASSERT_TRUE(late.subscribe("t/#"));
  ASSERT_TRUE(late.transport->publish(message("t/end", "end"), 1));
  ASSERT_TRUE(late.listener.waitFor([](const Record& record) {
    return !record.messages.empty() && record.messages.back().payload == "end";
  }));
  const Record record = late.listener.snapshot();
  ASSERT_EQ(record.messages.size(), 2U);
  EXPECT_EQ(record.messages[0].topic, "t/long");
}

TEST(MqttTransport, getsEveryRetainedMessageFromABrokerWithTheShippedConfiguration) {
  kel::testing::MosquittoOptions options;
  options.file = KEL_SHIPPED_BROKER_CONF;
  Mosquitto broker(options);
  broker.start();
  Client sender(broker.url(), "sender");
  ASSERT_TRUE(sender.startAndWait());
  constexpr std::uint64_t count = 5000;
  for (std::uint64_t i = 0; i < count; ++i) {
    ASSERT_TRUE(sender.transport->publish(message("t/" + std::to_string(i), std::to_string(i), true), i));
  }
  ASSERT_TRUE(sender.listener.waitFor([](const Record& record) { return record.published.size() == count; }));
  Client late(broker.url(), "late");
  ASSERT_TRUE(late.startAndWait());
  ASSERT_TRUE(late.subscribe("t/#"));
  EXPECT_TRUE(late.waitForMessages(count)) << late.listener.snapshot().messages.size();
}

TEST(MqttTransport, acceptsCallsFromInsideItsCallbacks) {
  Mosquitto broker;
  broker.start();
  Client client(broker.url());
  client.listener.onUp = [&] {
    EXPECT_TRUE(client.transport->subscribe("t/#", 1, 1));
    EXPECT_TRUE(client.transport->publish(message("t/0", "0"), 2));
  };
  client.listener.onMessage = [&](const RecordingListener::Message& got) {
    const int number = std::stoi(got.payload);
    if (number < 100) {
      const int qos = number % 2;
      EXPECT_TRUE(client.transport->publish(message("t/x", std::to_string(number + 1), false, qos),
                                            static_cast<std::uint64_t>(number + 3)));
    }
  };
  ASSERT_TRUE(client.startAndWait());
  ASSERT_TRUE(client.waitForMessages(101));
  ASSERT_TRUE(client.listener.waitFor([](const Record& record) { return record.published.size() == 101; }));
  const Record record = client.listener.snapshot();
  EXPECT_FALSE(record.overlapped);
  EXPECT_EQ(record.threads.size(), 1U);
}

TEST(MqttTransport, isWokenAtOnceByAPublish) {
  Mosquitto broker;
  broker.start();
  Client client(broker.url());
  ASSERT_TRUE(client.startAndWait());
  ASSERT_TRUE(client.subscribe("t/#"));
  std::chrono::nanoseconds total{0};
  std::chrono::nanoseconds worst{0};
  constexpr std::size_t rounds = 500;
  for (std::size_t i = 0; i < rounds; ++i) {
    const auto start = Clock::now();
    ASSERT_TRUE(client.transport->publish(message("t/x", "x"), i));
    ASSERT_TRUE(client.waitForMessages(i + 1));
    const auto took = Clock::now() - start;
    total += took;
    worst = std::max<std::chrono::nanoseconds>(worst, took);
  }
  RecordProperty("averageMicroseconds", static_cast<int>(total.count() / 1000 / static_cast<long>(rounds)));
  RecordProperty("worstMicroseconds", static_cast<int>(worst.count() / 1000));
  // Waiting for the next tick would cost 40 ms on average: far above any load of the machine.
  EXPECT_LT(total / static_cast<long>(rounds), 10ms);
}

TEST(MqttTransport, ticksAndStopsAtOnceWhileAConnectHangs) {
  FullBacklog nobody;
  Client client(nobody.url());
  client.start();
  ASSERT_TRUE(client.listener.waitFor([](const Record& record) { return record.ticks > 10; }));
  const auto start = Clock::now();
  client.transport->stop(true);
  EXPECT_LT(since(start), 1s);
  EXPECT_LE(client.listener.snapshot().longestWithoutTick, kNotBlocked);
}

TEST(MqttTransport, givesUpOnABrokerThatAcceptsAndSaysNothingAndStopsAtOnceMeanwhile) {
  ScriptedBroker silent([](std::string_view) { return ScriptedBroker::Answer{}; });
  Client client(silent.url());
  ::testing::internal::CaptureStderr();
  client.start();
  EXPECT_TRUE(client.listener.waitFor([&](const Record&) { return silent.connections() >= 2; }));
  const auto start = Clock::now();
  client.transport->stop(false);
  EXPECT_LT(since(start), 1s);
  EXPECT_THAT(::testing::internal::GetCapturedStderr(), HasSubstr("no answer within 5 s"));
}

TEST(MqttTransport, stopsAtOnceDuringAPauseAndCallsNobodyAfterwards) {
  Client client("mqtt://127.0.0.1:" + std::to_string(kel::testing::freePort()));
  client.start();
  // Long enough for the pauses to have grown.
  ASSERT_TRUE(client.listener.waitFor([](const Record& record) { return record.ticks > 25; }));
  const auto start = Clock::now();
  client.transport->stop(true);
  EXPECT_LT(since(start), 500ms);
  const auto ticks = client.listener.snapshot().ticks;
  EXPECT_FALSE(client.listener.waitFor([&](const Record& record) { return record.ticks > ticks; }, 200ms));
}

TEST(MqttTransport, namesAHostThatCannotBeFound) {
  Client client("mqtt://no-such-host.invalid");
  ::testing::internal::CaptureStderr();
  client.start();
  ASSERT_TRUE(client.listener.waitFor([](const Record& record) { return record.ticks > 20; }));
  client.transport->stop(true);
  EXPECT_LE(client.listener.snapshot().longestWithoutTick, kNotBlocked);
  EXPECT_THAT(::testing::internal::GetCapturedStderr(), HasSubstr("no-such-host.invalid"));
}

}  // namespace
