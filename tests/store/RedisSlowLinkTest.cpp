// A store at the end of a slow link: what takes longer than any limit to send arrives all the same, and a
// server that hangs is noticed all the same.
#include <gmock/gmock.h>

#include "Certificates.h"
#include "RedisProbe.h"
#include "SlowLink.h"
#include "pvss/TextVar.h"

namespace {

using pvss::WriteOutcome;
using storetest::Certificates;
using storetest::name;
using storetest::prepare;
using storetest::RedisServer;
using storetest::SlowLink;
using storetest::StoreProbe;
using storetest::valueInStore;

constexpr std::size_t bytesPerSecond = 240000;
constexpr std::size_t large = 1200000;

pvss::redis::RedisStoreOptions impatient() {
  pvss::redis::RedisStoreOptions options;
  options.limits.reply = std::chrono::milliseconds(1500);
  options.logWait = std::chrono::milliseconds(100);
  return options;
}

pvss::WriteBatch text(StoreProbe& probe, std::uint64_t sequence, std::size_t size) {
  pvss::WriteBatch batch = probe.batch(sequence, static_cast<std::int64_t>(sequence), name, 0);
  batch.elements.front().value = std::make_shared<TextVar>(std::string(size, 'x').c_str());
  return batch;
}

void writeLargeAndSmall(StoreProbe& probe, const RedisServer& server) {
  ASSERT_TRUE(probe.untilUp());
  ASSERT_TRUE(probe.store().write(text(probe, 1, large)));
  ASSERT_TRUE(probe.until([&] { return probe.confirmations.size() == 1 || !probe.downs.empty(); }));
  EXPECT_THAT(probe.downs, testing::IsEmpty());
  EXPECT_EQ(valueInStore(server).size(), large);
  ASSERT_TRUE(probe.store().write(text(probe, 2, 10)));
  ASSERT_TRUE(probe.until([&] { return probe.confirmations.size() == 2; }));
  EXPECT_EQ(probe.confirmations.back().outcome, WriteOutcome::applied);
  EXPECT_THAT(probe.downs, testing::IsEmpty());
}

TEST(RedisSlowLink, AWriteThatTakesLongerThanTheLimitToSendArrives) {
  RedisServer server(RedisServer::Keep::nothing, false);
  const std::string port = RedisServer::freePort();
  server.start({"--port", port, "--bind", "127.0.0.1"});
  prepare(server, DPELEMENT_TEXT);
  SlowLink link(port, bytesPerSecond);
  StoreProbe probe("redis://127.0.0.1:" + link.port(), "7.a", impatient());
  writeLargeAndSmall(probe, server);
  EXPECT_EQ(link.connections(), 2U) << "none was given up";
}

TEST(RedisSlowLink, AWriteThatTakesLongerThanTheLimitToSendArrivesOverTlsToo) {
  RedisServer server(RedisServer::Keep::nothing, false);
  const Certificates files(server.folder() + "/tls");
  files.issue("server", "IP:127.0.0.1");
  const std::string port = RedisServer::freePort();
  server.start({"--tls-port", port, "--bind", "127.0.0.1", "--tls-cert-file", files.cert("server"),
                "--tls-key-file", files.key("server"), "--tls-ca-cert-file", files.cert("ca"),
                "--tls-auth-clients", "no"});
  prepare(server, DPELEMENT_TEXT);
  SlowLink link(port, bytesPerSecond);
  StoreProbe probe("rediss://127.0.0.1:" + link.port() + "?ca=" + files.cert("ca"), "7.a", impatient());
  writeLargeAndSmall(probe, server);
  EXPECT_EQ(link.connections(), 2U) << "none was given up";
}

TEST(RedisSlowLink, AServerThatHangsUnderALargeWriteIsLeft) {
  RedisServer server;
  prepare(server, DPELEMENT_TEXT);
  pvss::redis::RedisStoreOptions options = impatient();
  options.limits.reply = std::chrono::milliseconds(600);
  options.limits.slowest = std::size_t{4} * 1024 * 1024;
  StoreProbe probe(server.address(), "7.a", options);
  ASSERT_TRUE(probe.untilUp());
  server.hold();
  ASSERT_TRUE(probe.store().write(text(probe, 1, 4 * large)));
  // Beats go on being sent, as a manager does: bytes that nobody reads are no sign of life.
  std::size_t beats = 0;
  EXPECT_TRUE(probe.until([&] {
    if (++beats % 10 == 0) probe.store().beat({{"state", "running"}});
    return !probe.downs.empty();
  }));
  server.letGo();
  ASSERT_EQ(probe.downs.size(), 1U);
  EXPECT_THAT(probe.downs.front(), testing::HasSubstr("no answer within 600 ms"));
}

}  // namespace
