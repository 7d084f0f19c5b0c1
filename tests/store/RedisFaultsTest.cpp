// What the Redis store does when servers, functions and rivals do not do what one would wish.
#include <gmock/gmock.h>

#include "RedisProbe.h"
#include "pvss/Manager.h"
#include "store/redis/Functions.h"

namespace {

using pvss::WriteOutcome;
using storetest::countOf;
using storetest::name;
using storetest::prepare;
using storetest::RedisServer;
using storetest::StoreProbe;
using storetest::valueInStore;
using storetest::writeAll;
using testing::ElementsAre;
using testing::HasSubstr;

TEST(RedisFaults, ServerAwayAtStartIsOneLineWithAddressAndReasonAndOneWhenItIsBack) {
  RedisServer server(RedisServer::Keep::nothing, false);
  testing::internal::CaptureStderr();
  StoreProbe probe(server.address(), "7.a");
  probe.during(std::chrono::milliseconds(1500));
  server.start();
  prepare(server);
  const bool up = probe.untilUp();
  const std::string said = testing::internal::GetCapturedStderr();
  EXPECT_TRUE(up);
  EXPECT_EQ(countOf(said, "No such file or directory"), 1U) << said;
  EXPECT_EQ(countOf(said, server.socket()), countOf(said, "\n")) << "every line names the address: " << said;
  EXPECT_EQ(countOf(said, "is back"), 1U) << said;
  EXPECT_TRUE(probe.downs.empty());
}

TEST(RedisFaults, PollWaitsNoLongerThanToldWhileTheServerIsAway) {
  RedisServer server(RedisServer::Keep::nothing, false);
  StoreProbe probe(server.address(), "7.a");
  for (int i = 0; i < 20; ++i) {
    const auto begin = std::chrono::steady_clock::now();
    EXPECT_FALSE(probe.store().poll(std::chrono::milliseconds(5)));
    EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(2));
  }
  EXPECT_FALSE(probe.store().write(probe.batch(1, 1, name, 1)));
}

TEST(RedisFaults, HostNameIsLookedUpWithoutBlocking) {
  StoreProbe probe("redis://no-such-host.invalid:6379", "7.a");
  const auto begin = std::chrono::steady_clock::now();
  probe.store().poll(std::chrono::milliseconds(0));
  EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(1));
  probe.during(std::chrono::milliseconds(100));
  EXPECT_TRUE(probe.greetings.empty());
}

TEST(RedisFaults, HostIsReachedByNumberAndByName) {
  RedisServer server(RedisServer::Keep::nothing, false);
  const std::string port = RedisServer::freePort();
  server.start({"--port", port, "--bind", "127.0.0.1"});
  prepare(server);
  for (const char* host : {"127.0.0.1", "localhost"}) {
    StoreProbe probe("redis://" + std::string(host) + ":" + port, "7.a");
    ASSERT_TRUE(probe.untilUp()) << host;
    EXPECT_EQ(probe.greetings[0].address, "redis://" + std::string(host) + ":" + port);
  }
}

TEST(RedisFaults, ServerThatHangsIsLeftAfterTheLimitAndTakenUpAgainWithoutAGap) {
  RedisServer server;
  prepare(server);
  pvss::redis::RedisStoreOptions options;
  options.logWait = std::chrono::milliseconds(100);
  options.limits.reply = std::chrono::milliseconds(600);
  options.limits.connect = std::chrono::milliseconds(600);
  StoreProbe probe(server.address(), "7.a", options);
  ASSERT_TRUE(probe.untilUp());
  ASSERT_TRUE(writeAll(probe, 1, 10));
  server.hold();
  ASSERT_TRUE(probe.store().write(probe.batch(11, 11, name, 11)));
  ASSERT_TRUE(probe.until([&] { return !probe.downs.empty(); }));
  EXPECT_THAT(probe.downs.at(0), HasSubstr("no answer within 600 ms"));
  server.letGo();
  ASSERT_TRUE(probe.untilUp(2));
  ASSERT_TRUE(writeAll(probe, probe.greetings[1].lastClientSequence + 1, 12));
  EXPECT_EQ(valueInStore(server), "12");
  ASSERT_TRUE(probe.until([&] { return probe.changes.size() == 12; }));
  EXPECT_TRUE(probe.gaps.empty());
}

TEST(RedisFaults, WhatIsNoRedisIsSaid) {
  RedisServer folder(RedisServer::Keep::nothing, false);
  const int listener = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  std::strncpy(address.sun_path, folder.socket().c_str(), sizeof address.sun_path - 1);
  ASSERT_EQ(::bind(listener, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
  ASSERT_EQ(::listen(listener, 4), 0);
  testing::internal::CaptureStderr();
  StoreProbe probe(folder.address(), "7.a");
  probe.store().poll(std::chrono::milliseconds(0));
  const int peer = ::accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
  ASSERT_GE(peer, 0);
  EXPECT_EQ(::send(peer, "HTTP/1.1 400 Bad Request\r\n\r\n", 28, MSG_NOSIGNAL), 28);
  ::close(peer);
  probe.during(std::chrono::milliseconds(30));
  ::close(listener);
  const std::string said = testing::internal::GetCapturedStderr();
  EXPECT_THAT(said, HasSubstr("does not speak the Redis protocol"));
  EXPECT_TRUE(probe.greetings.empty());
}

TEST(RedisFaults, MissingFunctionsAreSaidOnceWithTheRemedyAndTakenUpWhenInstalled) {
  RedisServer server;
  pvss::redis::RedisStoreOptions options;
  options.leaseRetry = std::chrono::milliseconds(50);
  testing::internal::CaptureStderr();
  StoreProbe probe(server.address(), "7.a", options);
  probe.during(std::chrono::milliseconds(400));
  const bool early = !probe.greetings.empty();
  prepare(server);
  const bool up = probe.untilUp();
  const std::string said = testing::internal::GetCapturedStderr();
  EXPECT_FALSE(early);
  EXPECT_TRUE(up);
  EXPECT_EQ(countOf(said, "run kelgw apply"), 1U) << said;
}

TEST(RedisFaults, OtherVersionOfTheFunctionsIsNotUsed) {
  RedisServer server;
  prepare(server);
  server.cli({"FUNCTION", "LOAD", "REPLACE",
              "#!lua name=kelgw\nredis.register_function(\"dp_version\", function() return \"0\" end)"});
  testing::internal::CaptureStderr();
  StoreProbe probe(server.address(), "7.a");
  probe.during(std::chrono::milliseconds(300));
  const std::string said = testing::internal::GetCapturedStderr();
  EXPECT_TRUE(probe.greetings.empty());
  EXPECT_EQ(countOf(said, "function library 0"), 1U) << said;
}

TEST(RedisFaults, GatewayWorksWithNoMoreRightsThanDocumented) {
  RedisServer server;
  prepare(server);
  server.cli({"ACL",         "SETUSER", "kel",      "on",      ">topsecret", "~dp:*",    "+fcall",
              "+xread",      "+ping",   "+info",    "+select", "+@hash",     "+@string", "+@stream",
              "+@sortedset", "+@list",  "+pexpire", "+pttl",   "+del",       "+time"});
  const std::string file = server.folder() + "/pw";
  ASSERT_EQ(std::system(("umask 077; printf topsecret > " + file).c_str()), 0);
  StoreProbe probe(server.address() + "?user=kel&passfile=" + file, "7.a");
  ASSERT_TRUE(probe.untilUp());
  ASSERT_TRUE(writeAll(probe, 1, 10));
  probe.store().beat({{"state", "running"}});
  probe.store().readSnapshot(1, {probe.intern(name)});
  ASSERT_TRUE(probe.until([&] { return probe.answers.size() == 1 && probe.changes.size() == 10; }));
  EXPECT_TRUE(probe.downs.empty());
  EXPECT_EQ(server.cli({"HGET", "dp:mgr:7", "state"}), "running");
  pvss::StoreAdmin tool(server.address() + "?user=kel&passfile=" + file);
  EXPECT_THROW(tool.installFunctions(), pvss::StoreError) << "the gateway's user cannot load code";
}

TEST(RedisFaults, PasswordThatIsMissingIsSaid) {
  RedisServer server(RedisServer::Keep::nothing, false);
  server.start({"--requirepass", "topsecret"});
  testing::internal::CaptureStderr();
  StoreProbe probe(server.address(), "7.a");
  probe.during(std::chrono::milliseconds(500));
  const std::string said = testing::internal::GetCapturedStderr();
  EXPECT_EQ(countOf(said, "NOAUTH"), 1U) << said;
}

TEST(RedisFaults, NothingConfirmedIsLostWhenTheServerIsKilledAndRestarted) {
  RedisServer server(RedisServer::Keep::everything);
  prepare(server);
  StoreProbe probe(server.address(), "7.a");
  ASSERT_TRUE(probe.untilUp());
  std::vector<std::uint64_t> confirmedAtKill;
  ASSERT_TRUE(writeAll(probe, 1, 6000, [&](std::uint64_t sequence) {
    if (sequence == 1500 || sequence == 3500) {
      server.kill();
      server.start();
      const std::string known = server.cli({"HGET", "dp:cli", "7.a"});
      EXPECT_GE(std::stoull(known), sequence) << "confirmed and lost";
      confirmedAtKill.push_back(sequence);
    }
  }));
  EXPECT_EQ(confirmedAtKill.size(), 2U);
  EXPECT_EQ(server.cli({"HGET", "dp:cli", "7.a"}).substr(0, 10), "6000 6000 ") << "each applied exactly once";
  EXPECT_EQ(valueInStore(server), "6000");
  EXPECT_EQ(server.cli({"GET", "dp:seq"}), "6001");
  EXPECT_GE(probe.gaps.size(), 1U) << "another process answers, so everything is read again";
}

TEST(RedisFaults, ResentWriteThatWasAppliedIsADuplicate) {
  RedisServer server;
  prepare(server);
  StoreProbe probe(server.address(), "7.a");
  ASSERT_TRUE(probe.untilUp());
  ASSERT_TRUE(writeAll(probe, 1, 3));
  ASSERT_TRUE(probe.store().write(probe.batch(2, 9999, name, 99)));
  ASSERT_TRUE(probe.until([&] { return probe.confirmations.size() == 4; }));
  EXPECT_EQ(probe.confirmations[2].outcome, WriteOutcome::applied);
  EXPECT_EQ(probe.confirmations[3].outcome, WriteOutcome::duplicate);
  EXPECT_EQ(valueInStore(server), "3");
}

TEST(RedisFaults, WipedStoreIsNoticedAndNewestValuesCanBeRestored) {
  RedisServer server;
  prepare(server);
  StoreProbe probe(server.address(), "7.a");
  ASSERT_TRUE(probe.untilUp());
  ASSERT_TRUE(writeAll(probe, 1, 20));
  ASSERT_TRUE(probe.until([&] { return probe.changes.size() == 20; }));
  server.cli({"FLUSHALL"});
  prepare(server);
  probe.store().beat({});
  ASSERT_TRUE(probe.untilUp(2));
  EXPECT_EQ(probe.greetings[1].lastClientSequence, 0U);
  EXPECT_THAT(probe.gaps, ElementsAre("the sequence of the store went back"));
  pvss::WriteBatch newest = probe.batch(1, 1020, name, 20);
  newest.restore = true;
  ASSERT_TRUE(probe.store().write(newest));
  ASSERT_TRUE(probe.until([&] { return probe.confirmations.size() == 21; }));
  EXPECT_EQ(probe.confirmations.back().outcome, WriteOutcome::applied);
  EXPECT_EQ(valueInStore(server), "20");
  ASSERT_TRUE(probe.until([&] { return probe.changes.size() == 21; }))
      << "the new log is followed from its start";
}

TEST(RedisFaults, WipeUnderWritesOnTheirWayLosesNone) {
  RedisServer server;
  prepare(server);
  StoreProbe probe(server.address(), "7.a");
  ASSERT_TRUE(probe.untilUp());
  bool wiped = false;
  ASSERT_TRUE(writeAll(probe, 1, 3000, [&](std::uint64_t sequence) {
    if (sequence != 1000 || wiped) return;
    wiped = true;
    server.cli({"FLUSHALL"});
    prepare(server);
  }));
  EXPECT_EQ(server.cli({"HGET", "dp:cli", "7.a"}).substr(0, 5), "3000 ");
  EXPECT_EQ(valueInStore(server), "3000");
}

TEST(RedisFaults, SecondManagerWithTheNumberWaitsAndTakesOverAfterTheLease) {
  RedisServer server;
  prepare(server);
  pvss::redis::RedisStoreOptions options;
  options.lease = std::chrono::milliseconds(700);
  options.leaseRetry = std::chrono::milliseconds(50);
  StoreProbe first(server.address(), "7.first", options);
  ASSERT_TRUE(first.untilUp());
  EXPECT_TRUE(first.leases.at(0).first);
  StoreProbe second(server.address(), "7.second", options);
  ASSERT_TRUE(second.until([&] { return !second.leases.empty(); }));
  EXPECT_FALSE(second.leases[0].first);
  EXPECT_THAT(second.leases[0].second, HasSubstr("7.first on here, process 42"));
  first.store().beat({});
  second.during(std::chrono::milliseconds(200));
  first.store().beat({});
  first.during(std::chrono::milliseconds(20));
  EXPECT_EQ(second.leases.size(), 1U) << "told once, not each time it is asked";
  EXPECT_TRUE(second.greetings.empty());
  EXPECT_FALSE(second.store().write(second.batch(1, 1, name, 1)));
  // The first falls silent; its lease runs out on the store's clock.
  ASSERT_TRUE(second.untilUp());
  EXPECT_TRUE(second.leases.back().first);
  // It wakes up with a write: fenced, and the value of the second stays.
  ASSERT_TRUE(second.store().write(second.batch(1, 100, name, 2)));
  ASSERT_TRUE(second.until([&] { return !second.confirmations.empty(); }));
  ASSERT_TRUE(first.store().write(first.batch(1, 200, name, 1)));
  ASSERT_TRUE(first.until([&] { return !first.confirmations.empty(); }));
  EXPECT_EQ(first.confirmations[0].outcome, WriteOutcome::fenced);
  EXPECT_THAT(first.confirmations[0].text, HasSubstr("7.second"));
  EXPECT_FALSE(first.leases.back().first);
  EXPECT_EQ(first.downs.size(), 1U);
  EXPECT_EQ(valueInStore(server), "2");
}

TEST(RedisFaults, OrderlyEndGivesTheNumberBackAtOnce) {
  RedisServer server;
  prepare(server);
  pvss::redis::RedisStoreOptions options;
  options.lease = std::chrono::hours(1);
  StoreProbe first(server.address(), "7.first", options);
  ASSERT_TRUE(first.untilUp());
  first.end();
  StoreProbe second(server.address(), "7.second", options);
  EXPECT_TRUE(second.untilUp());
}

TEST(RedisFaultsDeathTest, EndOfTheProcessGivesTheNumberBackAtOnce) {
  RedisServer server;
  prepare(server);
  EXPECT_EXIT(
      {
        StoreProbe probe(server.address(), "7.first");
        const bool good = probe.untilUp() && writeAll(probe, 1, 3);
        Manager::exit(good ? 0 : 1);
      },
      testing::ExitedWithCode(0), "");
  EXPECT_EQ(server.cli({"EXISTS", "dp:mgr:7:lease"}), "0");
  EXPECT_EQ(server.cli({"HGET", "dp:mgr:7:owner", "writer"}), "");
  EXPECT_EQ(valueInStore(server), "3");
}

/// A server whose dp_set answers with an error that nobody knows, for as long as the element's key `odd`
/// names the number of the write, or all of them.
void makeOdd(const RedisServer& server) {
  std::string library(pvss::redis::functionsText());
  const std::string head = "local function dp_set(_, args)\n";
  const std::size_t at = library.find(head);
  ASSERT_NE(at, std::string::npos);
  library.insert(
      at + head.size(),
      "  local odd = redis.call(\"GET\", \"dp:d:odd\")\n"
      "  if odd == \"all\" or odd == args[3] then return redis.error_reply(\"ERR something odd\") end\n");
  std::replace(library.begin(), library.end(), '\'', '"');
  ASSERT_EQ(server.cli({"FUNCTION", "LOAD", "REPLACE", library}), "kelgw");
}

TEST(RedisFaults, AnErrorThatIsNotKnownThrowsNothingAwayAndIsSaidOnce) {
  RedisServer server;
  prepare(server);
  makeOdd(server);
  StoreProbe probe(server.address(), "7.a");
  ASSERT_TRUE(probe.untilUp());
  server.cli({"SET", "dp:d:odd", "all"});
  testing::internal::CaptureStderr();
  ASSERT_TRUE(probe.store().write(probe.batch(1, 1, name, 1)));
  ASSERT_TRUE(probe.store().write(probe.batch(2, 2, name, 2)));
  ASSERT_TRUE(probe.untilUp(2));
  ASSERT_TRUE(probe.store().write(probe.batch(1, 1, name, 1)));
  const bool again = probe.untilUp(3);
  const std::string said = testing::internal::GetCapturedStderr();
  EXPECT_TRUE(again);
  EXPECT_EQ(countOf(said, "something odd"), 1U) << said;
  EXPECT_EQ(countOf(said, "is back"), 0U) << said;
  EXPECT_TRUE(probe.confirmations.empty());
  server.cli({"DEL", "dp:d:odd"});
  testing::internal::CaptureStderr();
  const bool written = writeAll(probe, 1, 2);
  EXPECT_EQ(countOf(testing::internal::GetCapturedStderr(), "is back"), 1U);
  EXPECT_TRUE(written);
  EXPECT_EQ(valueInStore(server), "2");
}

TEST(RedisFaults, AWriteThatAlwaysEndsInAnErrorThatIsNotKnownIsRefusedInTheEndAndThoseBehindItPass) {
  RedisServer server;
  prepare(server);
  makeOdd(server);
  server.cli({"SET", "dp:d:odd", "2"});
  StoreProbe probe(server.address(), "7.a");
  ASSERT_TRUE(probe.untilUp());
  ASSERT_TRUE(writeAll(probe, 1, 4));
  std::vector<std::uint64_t> refused;
  for (const auto& c : probe.confirmations) {
    if (c.outcome == WriteOutcome::refused) refused.push_back(c.clientSequence);
  }
  EXPECT_THAT(refused, ElementsAre(2U));
  EXPECT_EQ(valueInStore(server), "4");
}

TEST(RedisFaults, ARightTakenAwayWhileRunningIsOneLineAndTheWritesWait) {
  RedisServer server;
  prepare(server);
  StoreProbe probe(server.address(), "7.a");
  ASSERT_TRUE(probe.untilUp());
  server.cli({"ACL", "SETUSER", "default", "resetkeys", "~dp:log*", "~dp:seq", "~dp:cat", "~dp:cfg",
              "~dp:cli*", "~dp:mgr*"});
  testing::internal::CaptureStderr();
  ASSERT_TRUE(probe.store().write(probe.batch(1, 1, name, 1)));
  // As a manager would: what was not confirmed is offered again at each return.
  std::size_t ups = probe.greetings.size();
  probe.until(
      [&] {
        if (probe.greetings.size() != ups) {
          ups = probe.greetings.size();
          probe.store().write(probe.batch(1, 1, name, 1));
        }
        return false;
      },
      std::chrono::seconds(3));
  const std::string said = testing::internal::GetCapturedStderr();
  EXPECT_EQ(countOf(said, "\n"), 1U) << said;
  EXPECT_THAT(said, HasSubstr("user, password or permission"));
  EXPECT_LE(ups, 12U) << "with growing pauses";
  server.cli({"ACL", "SETUSER", "default", "~*"});
  ASSERT_TRUE(writeAll(probe, 1, 2));
  EXPECT_EQ(valueInStore(server), "2");
}

TEST(RedisFaults, ReplicaThatCannotBeWrittenIsLeftAndTriedAgain) {
  RedisServer server;
  prepare(server);
  StoreProbe probe(server.address(), "7.a");
  ASSERT_TRUE(probe.untilUp());
  server.cli({"CONFIG", "SET", "replica-serve-stale-data", "yes"});
  server.cli({"REPLICAOF", "127.0.0.1", "1"});
  ASSERT_TRUE(probe.store().write(probe.batch(1, 1, name, 1)));
  ASSERT_TRUE(probe.until([&] { return !probe.downs.empty(); }));
  EXPECT_TRUE(probe.confirmations.empty());
  server.cli({"REPLICAOF", "NO", "ONE"});
  ASSERT_TRUE(probe.untilUp(2));
  EXPECT_TRUE(writeAll(probe, 1, 1));
}

TEST(RedisFaults, FullMemoryIsWaitedForAndNothingBehindItSlipsThrough) {
  RedisServer server;
  prepare(server);
  StoreProbe probe(server.address(), "7.a");
  ASSERT_TRUE(probe.untilUp());
  server.cli({"CONFIG", "SET", "maxmemory", "1"});
  ASSERT_TRUE(probe.store().write(probe.batch(1, 1, name, 1)));
  ASSERT_TRUE(probe.store().write(probe.batch(2, 2, name, 2)));
  ASSERT_TRUE(probe.until([&] { return !probe.downs.empty(); }));
  EXPECT_TRUE(probe.confirmations.empty());
  server.cli({"CONFIG", "SET", "maxmemory", "0"});
  ASSERT_TRUE(probe.untilUp(2));
  ASSERT_TRUE(writeAll(probe, 1, 2));
  EXPECT_EQ(server.cli({"HGET", "dp:cli", "7.a"}).substr(0, 4), "2 2 ");
}

TEST(RedisFaults, RefusedWriteIsConfirmedAsSuchAndThoseBehindItPass) {
  RedisServer server;
  prepare(server);
  StoreProbe probe(server.address(), "7.a");
  ASSERT_TRUE(probe.untilUp());
  ASSERT_TRUE(probe.store().write(probe.batch(1, 1, "No.such", 1)));
  ASSERT_TRUE(probe.store().write(probe.batch(2, 2, name, 2)));
  ASSERT_TRUE(probe.until([&] { return probe.confirmations.size() == 2; }));
  EXPECT_EQ(probe.confirmations[0].outcome, WriteOutcome::refused);
  EXPECT_EQ(probe.confirmations[0].text, "no such element: No.such");
  EXPECT_EQ(probe.confirmations[1].outcome, WriteOutcome::applied);
  EXPECT_TRUE(probe.downs.empty());
}

}  // namespace
