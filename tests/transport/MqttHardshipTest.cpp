// A link under hardship: a thin line, addresses that swallow everything, and a process that runs out of
// descriptors or memory.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <sys/resource.h>

#include <atomic>
#include <chrono>
#include <new>
#include <string>
#include <vector>

#include "Mosquitto.h"
#include "MqttClient.h"
#include "ScriptedBroker.h"
#include "SlowLink.h"
#include "transport/mqtt/MqttOptions.h"
#include "transport/mqtt/MqttWorker.h"

namespace {

using namespace std::chrono_literals;
using kel::testing::Client;
using kel::testing::FullBacklog;
using kel::testing::isUp;
using kel::testing::message;
using kel::testing::Mosquitto;
using kel::testing::RecordingListener;
using kel::testing::SlowLink;
using Record = RecordingListener::Record;
using ::testing::Contains;
using ::testing::HasSubstr;
using ::testing::IsEmpty;

// Ten keep-alives for one record.
constexpr std::size_t kLineRate = 40'000;
constexpr std::size_t kLarge = 400'000;

TEST(MqttHardship, sendsALargeRecordOverAThinLine) {
  Mosquitto broker;
  broker.start();
  SlowLink line(broker.port(), kLineRate);
  Client far(broker.url(), "far");
  ASSERT_TRUE(far.startAndWait());
  ASSERT_TRUE(far.subscribe("t/#"));
  Client client(line.url("keepAlive=1"));
  ASSERT_TRUE(client.startAndWait());
  ASSERT_TRUE(client.transport->publish(message("t/x", std::string(kLarge, 'x')), 7));
  EXPECT_TRUE(far.waitForMessages(1, 60s));
  EXPECT_TRUE(client.listener.waitFor([](const Record& record) { return record.published.contains(7); }));
  EXPECT_THAT(client.listener.snapshot().downs, IsEmpty());
}

TEST(MqttHardship, receivesALargeRecordOverAThinLine) {
  Mosquitto broker;
  broker.start();
  SlowLink line(broker.port(), kLineRate);
  Client far(broker.url(), "far");
  ASSERT_TRUE(far.startAndWait());
  Client client(line.url("keepAlive=1"));
  ASSERT_TRUE(client.startAndWait());
  ASSERT_TRUE(client.subscribe("t/#"));
  ASSERT_TRUE(far.transport->publish(message("t/x", std::string(kLarge, 'x')), 7));
  EXPECT_TRUE(client.waitForMessages(1, 60s));
  EXPECT_THAT(client.listener.snapshot().downs, IsEmpty());
}

TEST(MqttHardship, keepsAnIdleLinkWithTheDefaultKeepAlive) {
  Mosquitto broker;
  broker.start();
  Client client(broker.url());
  ASSERT_TRUE(client.startAndWait());
  // Mosquitto ends a link of 5 s after 7.5 s without a packet.
  EXPECT_FALSE(client.listener.waitFor([](const Record& record) { return !record.downs.empty(); }, 13s));
}

/// A transport to "broker", which is at these addresses.
struct Named {
  Named(std::uint16_t port, const std::vector<kel::mqtt::Address>& addresses, const std::string& caFile = {},
        const std::string& host = "localhost")
      : transport(options(port, caFile, host), [addresses](const std::string&, std::uint16_t) {
          return kel::mqtt::Resolution{addresses, {}};
        }) {
    transport.start(listener, kel::testing::identity("named"));
  }
  ~Named() { transport.stop(false); }
  Named(const Named&) = delete;
  Named& operator=(const Named&) = delete;

  static kel::mqtt::MqttOptions options(std::uint16_t port, const std::string& caFile,
                                        const std::string& host) {
    kel::mqtt::MqttOptions options;
    options.host = host;
    options.port = port;
    options.tls = !caFile.empty();
    options.caFile = caFile;
    options.display = (options.tls ? "mqtts://" : "mqtt://") + host;
    return options;
  }

  RecordingListener listener;
  kel::mqtt::MqttWorker transport;
};

TEST(MqttHardship, reachesTheSecondAddressOfANameWithinTheLimitOfOne) {
  Mosquitto broker;
  broker.start();
  const FullBacklog blackhole("127.0.0.2", broker.port());
  const auto began = std::chrono::steady_clock::now();
  Named client(broker.port(), {{"127.0.0.2", false}, {"127.0.0.1", false}});
  EXPECT_TRUE(client.listener.waitFor(isUp));
  EXPECT_LT(std::chrono::steady_clock::now() - began, 5s) << "the whole limit, and not that of each";
}

TEST(MqttHardship, reachesTheSecondAddressOfANameOverTlsAndChecksTheName) {
  kel::testing::MosquittoOptions tls;
  tls.tls = true;
  Mosquitto broker(tls);
  broker.start();
  const std::string authority = (broker.folder().path() / "ca.pem").string();
  const FullBacklog blackhole("127.0.0.2", broker.port());
  {
    Named client(broker.port(), {{"127.0.0.2", false}, {"127.0.0.1", false}}, authority);
    EXPECT_TRUE(client.listener.waitFor(isUp));
  }
  Named other(broker.port(), {{"127.0.0.1", false}}, authority, "elsewhere");
  EXPECT_TRUE(other.listener.waitFor([](const Record& record) { return !record.failures.empty(); }));
  EXPECT_THAT(other.listener.snapshot().failures,
              Contains(HasSubstr("the broker's certificate is not made out to elsewhere")));
  EXPECT_EQ(other.listener.snapshot().ups, 0);
}

TEST(MqttHardship, outlivesAMomentWithoutDescriptors) {
#ifdef __SANITIZE_ADDRESS__
  GTEST_SKIP() << "the sanitizer needs descriptors itself: it looks at an object through a pipe";
#endif
  Mosquitto broker;
  broker.start();
  ::testing::internal::CaptureStderr();
  Client client("mqtt://localhost:" + std::to_string(broker.port()));
  rlimit before = {};
  ASSERT_EQ(::getrlimit(RLIMIT_NOFILE, &before), 0);
  const int next = ::fcntl(0, F_DUPFD_CLOEXEC, 3);
  ::close(next);
  rlimit none = before;
  none.rlim_cur = static_cast<rlim_t>(next);
  ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &none), 0);
  client.start();
  const bool tried =
      client.listener.waitFor([](const Record& record) { return record.failures.size() >= 2; });
  ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &before), 0);
  EXPECT_TRUE(tried);
  EXPECT_TRUE(client.listener.waitFor(isUp));
  client.transport->stop(true);
  const std::string said = ::testing::internal::GetCapturedStderr();
  EXPECT_THAT(said, HasSubstr("cannot be reached: host name localhost: eventfd: Too many open files"));
  EXPECT_EQ(std::count(said.begin(), said.end(), '\n'), 2) << said;
}

struct Hungry : RecordingListener {
  std::atomic<int> meals{0};
  std::atomic<int> hungryDowns{0};
  void message(std::string_view topic, std::string_view payload, bool retained) override {
    if (meals-- > 0) throw std::bad_alloc();
    RecordingListener::message(topic, payload, retained);
  }
  void down(std::string_view reason) override {
    if (hungryDowns-- > 0) throw std::bad_alloc();
    RecordingListener::down(reason);
  }
};

TEST(MqttHardship, outlivesAMomentWithoutMemoryInsideACallback) {
  Mosquitto broker;
  broker.start();
  Hungry listener;
  listener.meals = 1;
  listener.hungryDowns = 3;
  auto transport = kel::testing::transportFor(broker.url());
  ::testing::internal::CaptureStderr();
  transport->start(listener, kel::testing::identity("hungry"));
  ASSERT_TRUE(listener.waitFor(isUp));
  ASSERT_TRUE(transport->subscribe("t/#", 1, 1));
  ASSERT_TRUE(transport->publish(message("t/x", "lost", true), 2));
  ASSERT_TRUE(listener.waitFor([](const Record& record) { return record.ups == 2; }));
  ASSERT_TRUE(transport->subscribe("t/#", 1, 3));
  EXPECT_TRUE(listener.waitFor([](const Record& record) { return record.messages.size() == 1; }));
  EXPECT_THAT(listener.snapshot().downs, ::testing::ElementsAre("this process has no memory left"));
  transport->stop(true);
  EXPECT_THAT(::testing::internal::GetCapturedStderr(), HasSubstr("this process has no memory left"));
}

TEST(MqttHardship, outlivesAMomentWithoutMemoryWhileATickRuns) {
  struct : RecordingListener {
    std::atomic<int> ticks{0};
    void tick(std::chrono::steady_clock::time_point now) override {
      if (++ticks % 3 == 0) throw std::bad_alloc();
      RecordingListener::tick(now);
    }
  } listener;
  Mosquitto broker;
  auto transport = kel::testing::transportFor(broker.url());
  transport->start(listener, kel::testing::identity("hungry"));
  EXPECT_TRUE(listener.waitFor([](const Record& record) { return record.ticks > 5; }));
  broker.start();
  EXPECT_TRUE(listener.waitFor([](const Record& record) { return record.ups > 2; }));
  transport->stop(false);
}

}  // namespace
