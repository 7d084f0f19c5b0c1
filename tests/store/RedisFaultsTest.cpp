// What the Redis store does when servers, functions, logs and rivals do not do what one would wish.
#include <gmock/gmock.h>

#include "RedisServer.h"
#include "StoreProbe.h"
#include "pvss/StoreAdmin.h"
#include "pvss/TextVar.h"

namespace {

using pvss::WriteOutcome;
using storetest::RedisServer;
using storetest::StoreProbe;
using testing::ElementsAre;
using testing::HasSubstr;

constexpr const char* name = "A.f";

void prepare(const RedisServer& server, DpElementType type = DPELEMENT_FLOAT) {
  pvss::StoreAdmin admin(server.address());
  admin.installFunctions();
  pvss::StoreElement element;
  element.name = name;
  element.type = type;
  admin.putElements({element});
}

std::string valueInStore(const RedisServer& server) {
  return server.cli({"HGET", std::string("dp:d:") + name, "v"});
}

std::size_t countOf(const std::string& text, const std::string& part) {
  std::size_t count = 0;
  for (std::size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + 1)) ++count;
  return count;
}

/// Writes batches begin..end through the probe as a manager would: kept until confirmed, offered again after
/// a loss. True when all of them were confirmed.
bool writeAll(StoreProbe& probe, std::uint64_t begin, std::uint64_t end,
              const std::function<void(std::uint64_t)>& atConfirmed = {}) {
  std::uint64_t next = begin;
  std::uint64_t confirmed = begin - 1;
  std::size_t downs = probe.downs.size();
  std::size_t ups = probe.greetings.size();
  probe.onConfirmed = [&](const StoreProbe::Confirmation& c) {
    confirmed = c.clientSequence;
    if (atConfirmed) atConfirmed(confirmed);
  };
  const bool done = probe.until(
      [&] {
        if (probe.downs.size() != downs) {
          downs = probe.downs.size();
          next = confirmed + 1;
        }
        if (probe.greetings.size() != ups) {
          ups = probe.greetings.size();
          confirmed = std::max(confirmed, probe.greetings.back().lastClientSequence);
          next = confirmed + 1;
        }
        while (next <= end && probe.store().write(probe.batch(next, static_cast<std::int64_t>(1000 + next),
                                                              name, static_cast<double>(next)))) {
          ++next;
        }
        return confirmed == end;
      },
      std::chrono::seconds(60));
  probe.onConfirmed = nullptr;
  return done;
}

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
  EXPECT_EQ(server.cli({"HGET", "dp:cli", "7.a"}), "6000 6000") << "each applied exactly once";
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

TEST(RedisFaults, ConnectionCutWithTheServerAliveGoesOnWithoutAGap) {
  RedisServer server;
  prepare(server);
  StoreProbe probe(server.address(), "7.a");
  ASSERT_TRUE(probe.untilUp());
  ASSERT_TRUE(writeAll(probe, 1, 50));
  server.cli({"CLIENT", "KILL", "TYPE", "normal"});
  pvss::StoreAdmin other(server.address());
  pvss::StoreWrite write;
  write.name = name;
  write.value = std::make_shared<FloatVar>(77.0);
  other.write({write}, 5);
  ASSERT_TRUE(probe.untilUp(2));
  ASSERT_TRUE(writeAll(probe, 51, 100));
  ASSERT_TRUE(probe.until([&] { return probe.changes.size() >= 101; }));
  EXPECT_TRUE(probe.gaps.empty());
  for (std::size_t i = 0; i < probe.changes.size(); ++i) EXPECT_EQ(probe.changes[i].sequence, i + 2);
  EXPECT_EQ(probe.downs.size(), 1U);
  EXPECT_EQ(probe.greetings[1].lastClientSequence, 50U);
  EXPECT_EQ(probe.greetings[1].runId, probe.greetings[0].runId);
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

TEST(RedisFaults, LogTrimmedPastTheReaderIsAGapAndTheRestIsDelivered) {
  RedisServer server;
  prepare(server);
  StoreProbe probe(server.address(), "7.a");
  ASSERT_TRUE(probe.untilUp());
  server.cli({"CLIENT", "KILL", "TYPE", "normal"});
  pvss::StoreAdmin other(server.address());
  pvss::StoreWrite write;
  write.name = name;
  write.value = std::make_shared<FloatVar>(1.0);
  for (int i = 0; i < 10; ++i) other.write({write}, i + 1);
  server.cli({"XTRIM", "dp:log", "MAXLEN", "3"});
  ASSERT_TRUE(probe.until([&] { return probe.changes.size() >= 3; }));
  EXPECT_EQ(probe.gaps.size(), 1U);
  EXPECT_THAT(probe.gaps.at(0), HasSubstr("2 to 8"));
  EXPECT_EQ(probe.changes.at(0).sequence, 9U);
  EXPECT_THAT(probe.events,
              ElementsAre("catalogue", "catalogue", "gap", "change 9", "change 10", "change 11"));
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
  EXPECT_EQ(server.cli({"HGET", "dp:cli", "7.a"}), "2 2");
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

TEST(RedisFaults, WindowIsBoundedAndOpensWithConfirmations) {
  RedisServer server;
  prepare(server);
  pvss::redis::RedisStoreOptions options;
  options.windowBatches = 10;
  StoreProbe probe(server.address(), "7.a", options);
  ASSERT_TRUE(probe.untilUp());
  std::uint64_t taken = 0;
  while (probe.store().write(probe.batch(taken + 1, 1, name, 1))) ++taken;
  EXPECT_EQ(taken, 10U);
  ASSERT_TRUE(probe.until([&] { return probe.confirmations.size() == 10; }));
  EXPECT_TRUE(probe.store().write(probe.batch(11, 1, name, 1)));
}

TEST(RedisFaults, ValueTooLargeForTheLogArrivesInItsPlace) {
  RedisServer server;
  prepare(server, DPELEMENT_TEXT);
  StoreProbe probe(server.address(), "7.a");
  ASSERT_TRUE(probe.untilUp());
  const auto text = [&](std::uint64_t sequence, std::size_t size) {
    pvss::WriteBatch out = probe.batch(sequence, 1, name, 0);
    out.elements[0].value = std::make_shared<TextVar>(std::string(size, 'x').c_str());
    return out;
  };
  ASSERT_TRUE(probe.store().write(text(1, 10)));
  ASSERT_TRUE(probe.until([&] { return probe.changes.size() == 1; }));
  ASSERT_TRUE(probe.store().write(text(2, 200000)));
  ASSERT_TRUE(probe.store().write(text(3, 20)));
  ASSERT_TRUE(probe.until([&] { return probe.changes.size() == 3; }));
  EXPECT_THAT(probe.events, ElementsAre("catalogue", "change 2", "change 3", "change 4"));
  EXPECT_EQ(probe.changes[1].elements.at(0).mask, pvss::attributeValue | pvss::attributeInvalid);
  EXPECT_NE(probe.changes[1].elements.at(0).value, nullptr);
  EXPECT_EQ(StoreProbe::textOf(probe.changes[2].elements.at(0)).size(), 20U);
  EXPECT_TRUE(probe.gaps.empty());
}

TEST(RedisFaults, SnapshotInSeveralCallsIsTrueAsOfOneSequence) {
  RedisServer server;
  prepare(server);
  constexpr int elements = 300;
  std::vector<pvss::StoreElement> all;
  for (int i = 0; i < elements; ++i) {
    pvss::StoreElement element;
    element.name = "N." + std::to_string(i);
    element.type = DPELEMENT_FLOAT;
    all.push_back(element);
  }
  pvss::StoreAdmin admin(server.address());
  admin.putElements(all);
  pvss::redis::RedisStoreOptions options;
  options.snapshotElements = 7;
  StoreProbe reader(server.address(), "8.reader", options, 8);
  StoreProbe writer(server.address(), "7.writer");
  ASSERT_TRUE(reader.untilUp());
  ASSERT_TRUE(writer.untilUp());
  std::vector<pvss::ElementId> wanted;
  for (const auto& element : all) wanted.push_back(reader.intern(element.name));

  // Batch k writes k to one element after the other, so what is true as of a sequence can be computed.
  const std::uint64_t base = writer.greetings[0].logSequence;
  std::uint64_t written = 0;
  bool differed = false;
  for (std::uint64_t request = 1; request <= 30; ++request) {
    const std::size_t before = reader.answers.size();
    reader.store().readSnapshot(request, wanted);
    ASSERT_TRUE(reader.until([&] {
      for (int i = 0; i < 5; ++i) {
        const std::string target = "N." + std::to_string(written % elements);
        if (!writer.store().write(writer.batch(written + 1, 1, target, static_cast<double>(written + 1))))
          break;
        ++written;
      }
      writer.store().poll(std::chrono::microseconds(0));
      reader.store().poll(std::chrono::microseconds(0));
      return reader.answers.size() > before;
    }));
    const auto& answer = reader.answers.back();
    EXPECT_EQ(answer.request, request);
    ASSERT_EQ(answer.states.size(), static_cast<std::size_t>(elements));
    const std::uint64_t upTo = answer.sequence - base;
    differed = differed || upTo > 0;
    for (std::uint64_t i = 0; i < elements; ++i) {
      std::uint64_t last = 0;  // the newest k <= upTo that wrote element i
      if (upTo > i) last = ((upTo - 1 - i) / elements) * elements + i + 1;
      const std::string expected = last == 0 ? "-" : std::to_string(last);
      ASSERT_EQ(StoreProbe::textOf(answer.states[i].attributes), expected)
          << "element " << i << " as of " << upTo;
    }
  }
  EXPECT_TRUE(differed);
}

TEST(RedisFaults, CatalogueChangesComeInOrderWithValues) {
  RedisServer server;
  prepare(server);
  StoreProbe probe(server.address(), "7.a");
  ASSERT_TRUE(probe.untilUp());
  pvss::StoreAdmin admin(server.address());
  pvss::StoreElement element;
  element.name = "N.x";
  element.type = DPELEMENT_FLOAT;
  pvss::StoreWrite write;
  write.name = "N.x";
  write.value = std::make_shared<FloatVar>(1.0);
  admin.putElements({element});
  admin.write({write}, 1);
  admin.removeElements({"N.x"});
  ASSERT_TRUE(probe.until([&] { return probe.catalogueChanges.size() == 2; }));
  EXPECT_THAT(probe.events, ElementsAre("catalogue", "defined N.x", "change 3", "removed N.x"));
  EXPECT_EQ(StoreProbe::textOf(probe.changes.at(0).elements.at(0)), "1");
}

}  // namespace
