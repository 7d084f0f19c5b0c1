// What a broker refuses, and what we refuse a broker: log-ins, topics, certificates.
#include <gmock/gmock.h>

#include <sys/stat.h>

#include <algorithm>
#include <chrono>
#include <map>
#include <string>

#include "Mosquitto.h"
#include "MqttClient.h"
#include "ScriptedBroker.h"

namespace {

using namespace std::chrono_literals;
using kel::testing::Client;
using kel::testing::isUp;
using kel::testing::message;
using kel::testing::Mosquitto;
using kel::testing::RecordingListener;
using kel::testing::ScriptedBroker;
using Record = RecordingListener::Record;
using ::testing::AllOf;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::Not;

TEST(MqttRefusal, tellsWhyTheBrokerRefusesAPassword) {
  kel::testing::MosquittoOptions options;
  options.users = {{"anna", "right"}};
  Mosquitto broker(options);
  broker.start();
  const std::string file = broker.folder().write("pass", "wrong\n");
  Client client(broker.url("user=anna&passfile=" + file));
  ::testing::internal::CaptureStderr();
  client.start();
  ASSERT_TRUE(client.listener.waitFor([](const Record& record) { return record.ticks > 15; }));
  EXPECT_EQ(client.listener.snapshot().ups, 0);
  static_cast<void>(broker.folder().write("pass", "right\n"));
  EXPECT_TRUE(client.listener.waitFor(isUp));
  client.transport->stop(true);
  const std::string said = ::testing::internal::GetCapturedStderr();
  EXPECT_THAT(said, HasSubstr("cannot be reached: the broker refuses the connection: Not authorized"));
  EXPECT_THAT(said, Not(HasSubstr("wrong")));
  EXPECT_THAT(said, Not(HasSubstr("right")));
}

TEST(MqttRefusal, reportsAPublishThatTheBrokerRefuses) {
  kel::testing::MosquittoOptions options;
  options.acl = "topic readwrite allowed/#\n";
  Mosquitto broker(options);
  broker.start();
  Client client(broker.url());
  ASSERT_TRUE(client.startAndWait());
  ASSERT_TRUE(client.transport->publish(message("forbidden/x", "x"), 1));
  ASSERT_TRUE(client.transport->publish(message("allowed/x", "x"), 2));
  ASSERT_TRUE(client.transport->publish(message("allowed/+", "x"), 3));
  ASSERT_TRUE(client.transport->publish(message("allowed/\x01", "x"), 4));
  ASSERT_TRUE(client.transport->publish(message(std::string("allowed/\0x", 10), "x"), 5));
  ASSERT_TRUE(client.transport->publish(message("allowed/\xff", "x"), 6));
  ASSERT_TRUE(client.transport->publish(message("", "x"), 7));
  ASSERT_TRUE(client.listener.waitFor([](const Record& record) { return record.published.size() == 7; }));
  auto record = client.listener.snapshot();
  EXPECT_THAT(record.published[1], HasSubstr("Not authorized"));
  EXPECT_EQ(record.published[2], "");
  EXPECT_THAT(record.published[3], HasSubstr("wildcards"));
  EXPECT_THAT(record.published[4], HasSubstr("UTF-8"));
  EXPECT_THAT(record.published[5], HasSubstr("UTF-8"));
  EXPECT_THAT(record.published[6], HasSubstr("UTF-8"));
  EXPECT_THAT(record.published[7], HasSubstr("empty"));
  EXPECT_THAT(record.downs, IsEmpty()) << "one bad topic must not cost everybody the link";
}

ScriptedBroker::Answer accepting(std::string_view packet) {
  return {kel::testing::packetType(packet) == 1 ? kel::testing::connack(0) : std::string(), false};
}

TEST(MqttRefusal, reportsASubscriptionThatTheBrokerRefuses) {
  ScriptedBroker broker([](std::string_view packet) {
    if (kel::testing::packetType(packet) != 8) return accepting(packet);
    const bool allowed = packet.find("allowed") != std::string_view::npos;
    return ScriptedBroker::Answer{kel::testing::suback(packet, allowed ? 1 : 0x87), false};
  });
  Client client(broker.url());
  ASSERT_TRUE(client.startAndWait());
  ASSERT_TRUE(client.transport->subscribe("secret/#", 1, 1));
  ASSERT_TRUE(client.transport->subscribe("allowed/#", 1, 2));
  ASSERT_TRUE(client.transport->subscribe("wrong/#/filter", 1, 3));
  ASSERT_TRUE(client.listener.waitFor([](const Record& record) { return record.subscribed.size() == 3; }));
  auto record = client.listener.snapshot();
  EXPECT_THAT(record.subscribed[1], HasSubstr("Not authorized"));
  EXPECT_EQ(record.subscribed[2], "");
  EXPECT_THAT(record.subscribed[3], Not(IsEmpty()));
}

TEST(MqttRefusal, reportsTheBrokersReasonForEachRefusedMessage) {
  ScriptedBroker broker([](std::string_view packet) {
    if (kel::testing::packetType(packet) != 3) return accepting(packet);
    if (packet.find("quota") != std::string_view::npos) {
      return ScriptedBroker::Answer{kel::testing::puback(packet, 0x97, "ten a day"), false};
    }
    if (packet.find("format") != std::string_view::npos) {
      return ScriptedBroker::Answer{kel::testing::puback(packet, 0x99), false};
    }
    return ScriptedBroker::Answer{kel::testing::puback(packet, 0x10), false};
  });
  Client client(broker.url());
  ASSERT_TRUE(client.startAndWait());
  ASSERT_TRUE(client.transport->publish(message("quota", "x"), 1));
  ASSERT_TRUE(client.transport->publish(message("format", "x"), 2));
  ASSERT_TRUE(client.transport->publish(message("nobody/listens", "x"), 3));
  ASSERT_TRUE(client.listener.waitFor([](const Record& record) { return record.published.size() == 3; }));
  auto record = client.listener.snapshot();
  EXPECT_THAT(record.published[1], AllOf(HasSubstr("Quota exceeded"), HasSubstr("ten a day")));
  EXPECT_THAT(record.published[2], HasSubstr("Payload format invalid"));
  EXPECT_EQ(record.published[3], "") << "no subscriber is no failure";
}

TEST(MqttRefusal, tellsWhyTheBrokerEndedTheLink) {
  ScriptedBroker broker([](std::string_view packet) {
    if (kel::testing::packetType(packet) != 3) return accepting(packet);
    return ScriptedBroker::Answer{kel::testing::disconnectPacket(0x8b), true};
  });
  Client client(broker.url());
  ASSERT_TRUE(client.startAndWait());
  ASSERT_TRUE(client.transport->publish(message("t", "x"), 1));
  ASSERT_TRUE(client.listener.waitFor([](const Record& record) { return record.downs.size() == 1; }));
  EXPECT_THAT(client.listener.snapshot().downs, ElementsAre(HasSubstr("Server shutting down")));
  EXPECT_THAT(client.listener.snapshot().published, IsEmpty());
}

TEST(MqttRefusal, tellsWhyTheBrokerRefusesToSpeakAndTriesAgainWithGrowingPauses) {
  ScriptedBroker broker([](std::string_view) {
    return ScriptedBroker::Answer{kel::testing::connack(0x88, "closed on Sundays"), true};
  });
  Client client(broker.url());
  ::testing::internal::CaptureStderr();
  client.start();
  ASSERT_TRUE(client.listener.waitFor([&](const Record&) { return broker.connections() >= 5; }));
  client.transport->stop(true);
  const std::string said = ::testing::internal::GetCapturedStderr();
  EXPECT_THAT(said, AllOf(HasSubstr("Server unavailable"), HasSubstr("closed on Sundays")));
  EXPECT_EQ(std::count(said.begin(), said.end(), '\n'), 1) << said;
  EXPECT_EQ(client.listener.snapshot().ups, 0);
}

TEST(MqttRefusal, namesABrokerThatSpeaksAnOlderProtocol) {
  // CONNACK of MQTT 3.1.1: unacceptable protocol version.
  ScriptedBroker broker([](std::string_view) {
    return ScriptedBroker::Answer{std::string("\x20\x02\x00\x01", 4), true};
  });
  Client client(broker.url());
  ::testing::internal::CaptureStderr();
  client.start();
  ASSERT_TRUE(client.listener.waitFor([&](const Record&) { return broker.connections() >= 2; }));
  client.transport->stop(true);
  EXPECT_THAT(::testing::internal::GetCapturedStderr(), HasSubstr("Unsupported Protocol Version"));
}

TEST(MqttRefusal, refusesAPasswordFileThatOthersCanReadUntilTheyCannot) {
  kel::testing::MosquittoOptions options;
  options.users = {{"anna", "secret"}};
  Mosquitto broker(options);
  broker.start();
  const std::string file = broker.folder().write("pass", "secret\n", 0640);
  Client client(broker.url("user=anna&passfile=" + file));
  ::testing::internal::CaptureStderr();
  client.start();
  ASSERT_TRUE(client.listener.waitFor([](const Record& record) { return record.ticks > 15; }));
  EXPECT_EQ(client.listener.snapshot().ups, 0);
  ASSERT_EQ(::chmod(file.c_str(), 0600), 0);
  EXPECT_TRUE(client.listener.waitFor(isUp));
  client.transport->stop(true);
  EXPECT_THAT(::testing::internal::GetCapturedStderr(),
              AllOf(HasSubstr(file), HasSubstr("0640"), HasSubstr("is back"), Not(HasSubstr("secret"))));
}

TEST(MqttRefusal, saysOnceWhichFileIsNotThereOrOpenToOthers) {
  const kel::testing::TemporaryFolder folder;
  const std::string cert = folder.write("cert", "x", 0644);
  const std::string key = folder.write("key", "x", 0604);
  const std::string ours = "cert=" + cert + "&key=";
  for (const auto& [files, trouble] : std::map<std::string, std::string>{
           {"ca=/nowhere/ca.pem", "option 'ca': /nowhere/ca.pem: No such file"},
           {"cert=/nowhere/c.pem&key=" + key, "option 'cert': /nowhere/c.pem: No such file"},
           {ours + "/nowhere/k.pem", "option 'key': /nowhere/k.pem: No such file"},
           {ours + key, "key file " + key + " is open to others than its owner (mode 0604): chmod 600 it"}}) {
    Client client("mqtts://127.0.0.1:1?" + files);
    ::testing::internal::CaptureStderr();
    client.start();
    EXPECT_TRUE(client.listener.waitFor([](const Record& record) { return record.ticks > 15; }));
    client.transport->stop(true);
    const std::string said = ::testing::internal::GetCapturedStderr();
    EXPECT_THAT(said, HasSubstr(trouble));
    EXPECT_EQ(std::count(said.begin(), said.end(), '\n'), 1) << said;
  }
}

TEST(MqttRefusal, speaksTlsWithABrokerWhoseAuthorityItKnows) {
  kel::testing::MosquittoOptions options;
  options.tls = true;
  Mosquitto broker(options);
  broker.start();
  Client client(broker.url("ca=" + (broker.folder().path() / "ca.pem").string()));
  ASSERT_TRUE(client.startAndWait());
  ASSERT_TRUE(client.subscribe("t/#"));
  const std::string large(300000, 'x');
  for (std::uint64_t i = 0; i < 200; ++i) {
    ASSERT_TRUE(client.transport->publish(message("t/x", i % 10 == 0 ? large : std::to_string(i)), i));
  }
  ASSERT_TRUE(client.waitForMessages(200));
  EXPECT_EQ(client.listener.snapshot().messages[190].payload, large);
  EXPECT_EQ(client.listener.snapshot().messages[199].payload, "199");
}

TEST(MqttRefusal, refusesATlsBrokerThatIsNotTheOneItAskedFor) {
  kel::testing::MosquittoOptions options;
  options.tls = true;
  Mosquitto broker(options);
  broker.start();
  const kel::testing::TemporaryFolder other;
  kel::testing::makeCertificates(other, "localhost");
  const std::string ownAuthority = "?ca=" + (broker.folder().path() / "ca.pem").string();
  const std::string otherAuthority = "?ca=" + (other.path() / "ca.pem").string();
  const std::string port = std::to_string(broker.port());
  const std::string byName = "mqtts://localhost:" + port;
  const std::string byAddress = "mqtts://127.0.0.1:" + port;
  for (const std::string& address : {byName + otherAuthority, byAddress + ownAuthority, byName}) {
    Client client(address);
    ::testing::internal::CaptureStderr();
    client.start();
    EXPECT_TRUE(client.listener.waitFor([](const Record& record) { return record.ticks > 10; }));
    client.transport->stop(true);
    EXPECT_EQ(client.listener.snapshot().ups, 0) << address;
    EXPECT_THAT(::testing::internal::GetCapturedStderr(), HasSubstr("TLS: ")) << address;
  }
}

}  // namespace
