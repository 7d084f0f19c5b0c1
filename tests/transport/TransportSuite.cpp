#include "TransportSuite.h"

#include <chrono>
#include <future>

#include "transport/MakeTransport.h"

namespace kel::testing {

using namespace std::chrono_literals;
using Lines = std::vector<std::string>;

namespace {

OutgoingMessage messageOf(const std::string& topic, const std::string& payload, bool retain, int qos) {
  OutgoingMessage message;
  message.topic = topic;
  message.payload = std::make_shared<const std::string>(payload);
  message.retain = retain;
  message.qos = qos;
  return message;
}

}  // namespace

SuiteClient::SuiteClient(TransportWorld& world, const std::string& name) : name_(name) {
  std::string error;
  const auto url = KelUrl::parse(world.url("keepAlive=5"), error);
  if (url) transport = makeTransport(*url, error);
  EXPECT_TRUE(transport) << error;
}

SuiteClient::~SuiteClient() {
  if (transport) transport->stop(false);
}

void SuiteClient::start() {
  transport->start(listener, {name_, messageOf("will/" + name_, "gone", false, 1)});
}

bool SuiteClient::up() {
  start();
  return listener.waitFor([](const auto& record) { return record.ups > 0; });
}

void SuiteClient::stop(bool clean) {
  transport->stop(clean);
  transport.reset();
}

bool SuiteClient::subscribe(const std::string& filter) {
  const std::uint64_t token = nextToken_++;
  return transport->subscribe(filter, 1, token) &&
         listener.waitFor([&](const auto& record) { return record.subscribed.contains(token); }) &&
         listener.snapshot().subscribed[token].empty();
}

bool SuiteClient::publish(const std::string& topic, const std::string& payload, bool retain, int qos) {
  const std::uint64_t token = nextToken_++;
  return transport->publish(messageOf(topic, payload, retain, qos), token) &&
         listener.waitFor([&](const auto& record) { return record.published.contains(token); }) &&
         listener.snapshot().published[token].empty();
}

bool SuiteClient::waitForMessages(std::size_t count) {
  return listener.waitFor([&](const auto& record) { return record.messages.size() >= count; });
}

std::vector<std::string> SuiteClient::messages() {
  std::vector<std::string> lines;
  for (const auto& message : listener.snapshot().messages) {
    lines.push_back(message.topic + "=" + message.payload + (message.retained ? "!" : ""));
  }
  return lines;
}

TEST_P(TransportSuite, GivesLiveMessagesAsLiveAndKeptOnesAsKept) {
  SuiteClient early(*world, "early");
  SuiteClient late(*world, "late");
  ASSERT_TRUE(early.up());
  ASSERT_TRUE(late.up());
  ASSERT_TRUE(early.subscribe("t"));
  ASSERT_TRUE(early.publish("t", "1", true));
  ASSERT_TRUE(early.waitForMessages(1));
  ASSERT_TRUE(late.subscribe("t"));
  ASSERT_TRUE(late.waitForMessages(1));
  ASSERT_TRUE(late.publish("t", "2", false));
  ASSERT_TRUE(late.waitForMessages(2));
  ASSERT_TRUE(early.waitForMessages(2));
  EXPECT_EQ(early.messages(), (Lines{"t=1", "t=2"}));
  EXPECT_EQ(late.messages(), (Lines{"t=1!", "t=2"}));
}

TEST_P(TransportSuite, GivesWhatIsKeptAgainForEverySubscription) {
  SuiteClient client(*world, "c");
  ASSERT_TRUE(client.up());
  ASSERT_TRUE(client.publish("t", "1", true));
  ASSERT_TRUE(client.subscribe("t"));
  ASSERT_TRUE(client.waitForMessages(1));
  ASSERT_TRUE(client.subscribe("t"));
  ASSERT_TRUE(client.waitForMessages(2));
  EXPECT_EQ(client.messages(), (Lines{"t=1!", "t=1!"}));
}

TEST_P(TransportSuite, ForgetsWhatIsKeptWhenItIsCleared) {
  SuiteClient client(*world, "c");
  ASSERT_TRUE(client.up());
  ASSERT_TRUE(client.subscribe("t"));
  ASSERT_TRUE(client.publish("t", "1", true));
  ASSERT_TRUE(client.publish("t", "", true));
  ASSERT_TRUE(client.waitForMessages(2));
  EXPECT_EQ(client.messages(), (Lines{"t=1", "t="}));
  SuiteClient late(*world, "late");
  ASSERT_TRUE(late.up());
  ASSERT_TRUE(late.subscribe("t"));
  ASSERT_TRUE(client.publish("t", "end", false));
  ASSERT_TRUE(late.waitForMessages(1));
  EXPECT_EQ(late.messages(), Lines{"t=end"});
}

TEST_P(TransportSuite, ForgetsWhatIsKeptWhenItsTimeIsOver) {
  SuiteClient client(*world, "c");
  ASSERT_TRUE(client.up());
  OutgoingMessage message = messageOf("t", "1", true, 1);
  message.expirySeconds = 1;
  ASSERT_TRUE(client.transport->publish(message, 1000));
  ASSERT_TRUE(client.publish("forever", "1", true));
  // The only way to see that it is gone is to look until it is: the clock is the broker's.
  const auto end = std::chrono::steady_clock::now() + 20s;
  bool gone = false;
  for (int look = 0; !gone && std::chrono::steady_clock::now() < end; ++look) {
    SuiteClient late(*world, "late" + std::to_string(look));
    ASSERT_TRUE(late.up());
    ASSERT_TRUE(late.subscribe("t"));
    ASSERT_TRUE(late.subscribe("forever"));
    ASSERT_TRUE(late.waitForMessages(1));
    ASSERT_TRUE(
        late.listener.waitFor([](const auto& record) { return record.messages.back().topic == "forever"; }));
    gone = late.messages() == Lines{"forever=1!"};
    const auto ticks = late.listener.snapshot().ticks;
    late.listener.waitFor([&](const auto& record) { return record.ticks > ticks + 2; });
  }
  EXPECT_TRUE(gone);
}

TEST_P(TransportSuite, MatchesFilters) {
  SuiteClient client(*world, "c");
  ASSERT_TRUE(client.up());
  ASSERT_TRUE(client.subscribe("a/+/c"));
  ASSERT_TRUE(client.subscribe("x/#"));
  for (const char* topic : {"a/b/c", "a/b/d", "a/c", "a/b/b/c", "x", "x/y", "x/y/z", "y"}) {
    ASSERT_TRUE(client.publish(topic, "", false));
  }
  ASSERT_TRUE(client.waitForMessages(4));
  EXPECT_EQ(client.messages(), (Lines{"a/b/c=", "x=", "x/y=", "x/y/z="}));
}

TEST_P(TransportSuite, StopsGivingWhatIsUnsubscribed) {
  SuiteClient client(*world, "c");
  ASSERT_TRUE(client.up());
  ASSERT_TRUE(client.subscribe("t"));
  ASSERT_TRUE(client.subscribe("u"));
  ASSERT_TRUE(client.transport->unsubscribe("t"));
  ASSERT_TRUE(client.publish("t", "1", false));
  ASSERT_TRUE(client.publish("u", "2", false));
  ASSERT_TRUE(client.waitForMessages(1));
  EXPECT_EQ(client.messages(), Lines{"u=2"});
}

TEST_P(TransportSuite, CarriesMessagesInOrderAndAnswersEachOnce) {
  constexpr std::uint64_t number = 3000;
  SuiteClient from(*world, "from");
  SuiteClient to(*world, "to");
  ASSERT_TRUE(from.up());
  ASSERT_TRUE(to.up());
  ASSERT_TRUE(to.subscribe("t/#"));
  for (std::uint64_t i = 0; i < number; ++i) {
    ASSERT_TRUE(from.transport->publish(messageOf("t/" + std::to_string(i % 7), std::to_string(i), true, 1),
                                        10'000 + i));
  }
  ASSERT_TRUE(to.waitForMessages(number));
  ASSERT_TRUE(from.listener.waitFor([](const auto& record) { return record.published.size() == number; }));
  const auto received = to.listener.snapshot().messages;
  ASSERT_EQ(received.size(), number);
  for (std::uint64_t i = 0; i < number; ++i) ASSERT_EQ(received[i].payload, std::to_string(i));
  EXPECT_EQ(from.listener.snapshot().publishedInOrder.size(), number);
}

TEST_P(TransportSuite, CarriesLargeAndStrangePayloads) {
  SuiteClient client(*world, "c");
  ASSERT_TRUE(client.up());
  ASSERT_TRUE(client.subscribe("t"));
  std::string every;
  for (int i = 0; i < 256; ++i) every.push_back(static_cast<char>(i));
  const std::string large(3'000'000, 'x');
  ASSERT_TRUE(client.publish("t", every, false));
  ASSERT_TRUE(client.publish("t", large, false));
  ASSERT_TRUE(client.publish("t", every, false, 0));
  ASSERT_TRUE(client.waitForMessages(3));
  const auto messages = client.listener.snapshot().messages;
  EXPECT_EQ(messages[0].payload, every);
  EXPECT_EQ(messages[1].payload, large);
  EXPECT_EQ(messages[2].payload, every);
}

TEST_P(TransportSuite, SpeaksTheWillAfterAnAbruptEndAndNotAfterACleanOne) {
  SuiteClient witness(*world, "witness");
  ASSERT_TRUE(witness.up());
  ASSERT_TRUE(witness.subscribe("will/#"));
  SuiteClient clean(*world, "clean");
  ASSERT_TRUE(clean.up());
  clean.stop(true);
  SuiteClient abrupt(*world, "abrupt");
  ASSERT_TRUE(abrupt.up());
  abrupt.stop(false);
  ASSERT_TRUE(witness.waitForMessages(1));
  ASSERT_TRUE(witness.publish("will/end", "", false));
  ASSERT_TRUE(witness.waitForMessages(2));
  EXPECT_EQ(witness.messages(), (Lines{"will/abrupt=gone", "will/end="}));
}

TEST_P(TransportSuite, TakesNothingWhileThereIsNoLink) {
  SuiteClient client(*world, "c");
  EXPECT_FALSE(client.transport->publish(messageOf("t", "", false, 1), 1));
  EXPECT_FALSE(client.transport->subscribe("t", 1, 2));
  EXPECT_FALSE(client.transport->unsubscribe("t"));
  ASSERT_TRUE(client.up());
  client.transport->stop(true);
  EXPECT_FALSE(client.transport->publish(messageOf("t", "", false, 1), 3));
}

TEST_P(TransportSuite, ComesBackAfterALostLinkWithoutSubscriptions) {
  SuiteClient client(*world, "c");
  ASSERT_TRUE(client.up());
  ASSERT_TRUE(client.subscribe("t"));
  world->cutLinks();
  ASSERT_TRUE(client.listener.waitFor([](const auto& record) { return record.ups == 2; }));
  EXPECT_EQ(client.listener.snapshot().downs.size(), 1U);
  ASSERT_TRUE(client.subscribe("u"));
  ASSERT_TRUE(client.publish("t", "1", false));
  ASSERT_TRUE(client.publish("u", "2", false));
  ASSERT_TRUE(client.waitForMessages(1));
  EXPECT_EQ(client.messages(), Lines{"u=2"});
}

TEST_P(TransportSuite, CallsOnOneThreadOneAtATimeAndTellsTheTime) {
  SuiteClient client(*world, "c");
  client.listener.onUp = [&] {
    client.transport->subscribe("t", 1, 500);
    client.transport->publish(messageOf("t", "0", false, 1), 501);
  };
  client.listener.onMessage = [&](const RecordingListener::Message& message) {
    const int next = std::stoi(message.payload) + 1;
    if (next < 50) client.transport->publish(messageOf("t", std::to_string(next), false, 1), 600);
  };
  ASSERT_TRUE(client.up());
  ASSERT_TRUE(client.waitForMessages(50));
  ASSERT_TRUE(client.listener.waitFor([](const auto& record) { return record.ticks >= 5; }));
  client.transport->stop(true);
  const auto record = client.listener.snapshot();
  EXPECT_EQ(record.threads.size(), 1U);
  EXPECT_FALSE(record.threads.contains(std::this_thread::get_id()));
  EXPECT_FALSE(record.overlapped);
}

TEST_P(TransportSuite, CallsNobodyAfterStop) {
  for (int round = 0; round < 10; ++round) {
    SuiteClient noisy(*world, "noisy" + std::to_string(round));
    SuiteClient quiet(*world, "quiet" + std::to_string(round));
    ASSERT_TRUE(noisy.up());
    ASSERT_TRUE(quiet.up());
    ASSERT_TRUE(quiet.subscribe("t"));
    for (std::uint64_t i = 0; i < 200; ++i) noisy.transport->publish(messageOf("t", "x", false, 1), 1000 + i);
    quiet.transport->stop(round % 2 == 0);
    const std::size_t seen = quiet.listener.snapshot().messages.size();
    ASSERT_TRUE(noisy.publish("t", "end", false));
    EXPECT_EQ(quiet.listener.snapshot().messages.size(), seen);
  }
}

}  // namespace kel::testing
