// How changes, snapshots and writes flow through the Redis store.
#include <gmock/gmock.h>

#include <cstdlib>
#include <fstream>

#include "RedisProbe.h"
#include "pvss/TextVar.h"
#include "store/redis/Functions.h"

namespace {

using storetest::countOf;
using storetest::name;
using storetest::prepare;
using storetest::RedisServer;
using storetest::StoreProbe;
using storetest::writeAll;
using testing::ElementsAre;
using testing::HasSubstr;

TEST(RedisFlow, ConnectionCutWithTheServerAliveGoesOnWithoutAGap) {
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

TEST(RedisFlow, LogTrimmedPastTheReaderIsAGapAndTheRestIsDelivered) {
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

TEST(RedisFlow, WindowIsBoundedAndOpensWithConfirmations) {
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

TEST(RedisFlow, SteadyTrafficIsLookedAtInPacesButWhoAsksIsAnsweredAtOnce) {
  RedisServer server;
  prepare(server);
  pvss::redis::RedisStoreOptions options;
  options.wakeInterval = std::chrono::seconds(30);
  options.wakeBurst = 0;
  StoreProbe probe(server.address(), "7.a", options);
  ASSERT_TRUE(probe.untilUp());
  const auto polled = [&](std::chrono::milliseconds atMost) {
    const auto begin = std::chrono::steady_clock::now();
    EXPECT_TRUE(probe.store().poll(atMost));
    return std::chrono::steady_clock::now() - begin;
  };
  ASSERT_TRUE(probe.store().write(probe.batch(1, 1, name, 1)));
  EXPECT_GE(polled(std::chrono::milliseconds(300)), std::chrono::milliseconds(300));
  EXPECT_EQ(probe.confirmations.size(), 1U) << "what came meanwhile is delivered at the end of the wait";
  probe.store().readSnapshot(1, {probe.intern(name)});
  while (probe.answers.empty()) EXPECT_LT(polled(std::chrono::seconds(20)), std::chrono::seconds(10));
}

TEST(RedisFlow, ValueTooLargeForTheLogArrivesInItsPlace) {
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

TEST(RedisFlow, AChangeOfThousandsOfElementsArrivesWholeAndAsItWasThen) {
  RedisServer server;
  prepare(server);
  constexpr int elements = 3001;
  std::vector<pvss::StoreElement> all(elements);
  for (int i = 0; i < elements; ++i) {
    all[static_cast<std::size_t>(i)].name = "N." + std::to_string(i);
    all[static_cast<std::size_t>(i)].type = DPELEMENT_FLOAT;
  }
  pvss::StoreAdmin(server.address()).putElements(all);
  StoreProbe writer(server.address(), "7.a");
  ASSERT_TRUE(writer.untilUp());
  StoreProbe reader(server.address(), "8.b", {}, 8);
  ASSERT_TRUE(reader.untilUp());

  // All of it is in the store before the reader looks at the first.
  for (int round = 1; round <= 3; ++round) {
    pvss::WriteBatch large = writer.batch(static_cast<std::uint64_t>(round), round, all[0].name, round);
    for (std::size_t i = 1; i < all.size(); ++i) {
      large.elements.push_back(
          writer.batch(0, 0, all[i].name, round + static_cast<double>(i) * 10).elements[0]);
    }
    if (round == 2) large.elements.resize(10);  // an ordinary one between them
    ASSERT_TRUE(writer.until([&] { return writer.store().write(large); }));
  }
  ASSERT_TRUE(writer.until([&] { return writer.confirmations.size() == 3; }));
  EXPECT_EQ(countOf(server.cli({"XRANGE", "dp:log", "-", "+"}), "\nS\n"), 2U);

  ASSERT_TRUE(reader.until([&] { return reader.changes.size() == 3; }));
  EXPECT_TRUE(reader.gaps.empty());
  for (int round = 1; round <= 3; ++round) {
    const pvss::Change& change = reader.changes[static_cast<std::size_t>(round - 1)];
    EXPECT_EQ(change.timeMs, round);
    ASSERT_EQ(change.elements.size(), round == 2 ? 10U : all.size());
    for (std::size_t i = 0; i < change.elements.size(); ++i) {
      ASSERT_EQ(reader.nameOf(change.elements[i].element), all[i].name);
      ASSERT_EQ(StoreProbe::textOf(change.elements[i]),
                std::to_string(static_cast<std::size_t>(round) + 10 * i))
          << all[i].name;
      ASSERT_FALSE(change.elements[i].invalid);
    }
  }
}

TEST(RedisFlow, ALargeChangeWhoseValuesTheLinkTookAlongIsNotLost) {
  RedisServer server;
  prepare(server, DPELEMENT_TEXT);
  // A library that can do everything but give the values of a large change.
  std::string code(pvss::redis::functionsText());
  const std::string whole = code;
  const std::string line = "return redis.call('GET', 'dp:log:v:' .. args[1])";
  ASSERT_NE(code.find(line), std::string::npos);
  code.replace(code.find(line), line.size(), "return redis.error_reply('LOADING not yet')");
  const auto load = [&](const std::string& text) {
    const std::string file = server.folder() + "/functions.lua";
    std::ofstream(file) << text;
    const std::string command =
        "redis-cli -s '" + server.socket() + "' -x FUNCTION LOAD REPLACE < '" + file + "' > /dev/null";
    ASSERT_EQ(std::system(command.c_str()), 0);
  };
  load(code);
  StoreProbe probe(server.address(), "7.a");
  ASSERT_TRUE(probe.untilUp());
  pvss::WriteBatch large = probe.batch(1, 1, name, 0);
  large.elements[0].value = std::make_shared<TextVar>(std::string(200000, 'x').c_str());
  ASSERT_TRUE(probe.store().write(large));
  ASSERT_TRUE(probe.until([&] { return !probe.downs.empty(); }));
  load(whole);
  ASSERT_TRUE(probe.until([&] { return !probe.changes.empty(); }));
  EXPECT_EQ(probe.changes[0].sequence, 2U);
  EXPECT_EQ(StoreProbe::textOf(probe.changes[0].elements.at(0)).size(), 200000U);
}

TEST(RedisFlow, SnapshotInSeveralCallsIsTrueAsOfOneSequence) {
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
  wanted.reserve(all.size());
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

TEST(RedisFlow, CatalogueChangesComeInOrderWithValues) {
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
