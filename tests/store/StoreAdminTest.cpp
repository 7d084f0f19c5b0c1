// The tools' client against a real server.
#include "pvss/StoreAdmin.h"

#include <gmock/gmock.h>

#include <set>
#include <thread>

#include "RedisServer.h"
#include "StoreProbe.h"
#include "pvss/DynVar.h"
#include "pvss/IntegerVar.h"
#include "pvss/TextVar.h"

namespace {

using pvss::StoreAdmin;
using pvss::StoreChange;
using pvss::StoreElement;
using pvss::StoreError;
using pvss::StoreWrite;
using storetest::RedisServer;
using storetest::StoreProbe;
using testing::HasSubstr;

StoreElement element(const std::string& name, DpElementType type) {
  StoreElement out;
  out.name = name;
  out.type = type;
  return out;
}

StoreWrite valueOf(const std::string& name, double value) {
  StoreWrite out;
  out.name = name;
  out.value = std::make_shared<FloatVar>(value);
  return out;
}

template <class Call>
StoreError::Kind failureOf(Call call, std::string* text = nullptr) {
  try {
    call();
  } catch (const StoreError& error) {
    if (text != nullptr) *text = error.what();
    return error.kind();
  }
  ADD_FAILURE() << "nothing was thrown";
  return StoreError::Kind::usage;
}

class Admin : public testing::Test {
 protected:
  Admin() : admin(server.address()) {
    admin.installFunctions();
    admin.putElements({element("B.f", DPELEMENT_FLOAT), element("A.f", DPELEMENT_FLOAT),
                       element("A.i", DPELEMENT_INT), element("A.list", DPELEMENT_DYNTEXT)});
  }
  [[nodiscard]] std::string writer() const {
    const std::string all = server.cli({"HKEYS", "dp:cli"});
    const std::size_t begin = all.find("kelgw.");
    return begin == std::string::npos ? "" : all.substr(begin, all.find('\n', begin) - begin);
  }
  RedisServer server;
  StoreAdmin admin;
};

TEST_F(Admin, WriterHas128RandomBits) {
  admin.write({valueOf("A.f", 1)});
  EXPECT_THAT(writer(), testing::MatchesRegex("kelgw\\.[0-9a-f]{32}"));
  const std::string first = writer();
  server.cli({"DEL", "dp:cli"});
  StoreAdmin(server.address()).write({valueOf("A.f", 2)});
  // Each of the eight words of 32 bits is drawn for itself.
  std::set<std::string> words;
  for (const std::string& all : {first, writer()}) {
    for (std::size_t at = std::string("kelgw.").size(); at < all.size(); at += 8)
      words.insert(all.substr(at, 8));
  }
  EXPECT_EQ(words.size(), 8U) << first << ' ' << writer();
}

TEST_F(Admin, WriteThatTheStoreTakesForAnotherOnesIsAnErrorAndNoSuccess) {
  admin.write({valueOf("A.f", 1)});
  server.cli({"HSET", "dp:cli", writer(), "9 9 9 0 9 1"});  // as another tool's of the same name
  std::string text;
  EXPECT_EQ(failureOf([&] { admin.write({valueOf("A.f", 2)}); }, &text), StoreError::Kind::refused);
  EXPECT_THAT(text, HasSubstr("nothing was written"));
  EXPECT_EQ(server.cli({"HGET", "dp:d:A.f", "v"}), "1");
}

TEST(StoreAdminAddress, ServerThatIsNotThereIsUnreachable) {
  std::string text;
  EXPECT_EQ(failureOf([] { StoreAdmin admin("redis+unix:///nowhere/at/all"); }, &text),
            StoreError::Kind::unreachable);
  EXPECT_THAT(text, HasSubstr("/nowhere/at/all"));
  EXPECT_THAT(text, HasSubstr("No such file"));
}

TEST(StoreAdminAddress, MemoryStoreAndNonsenseAreUsage) {
  std::string text;
  EXPECT_EQ(failureOf([] { StoreAdmin admin("memory:plant.yaml"); }, &text), StoreError::Kind::usage);
  EXPECT_THAT(text, HasSubstr("lives inside the process"));
  EXPECT_EQ(failureOf([] { StoreAdmin admin("http://x"); }), StoreError::Kind::usage);
}

TEST(StoreAdminAddress, ExitCodesFollowTheKind) {
  EXPECT_EQ(StoreError(StoreError::Kind::unreachable, "").exitCode(), 3);
  EXPECT_EQ(StoreError(StoreError::Kind::refused, "").exitCode(), 1);
  EXPECT_EQ(StoreError(StoreError::Kind::usage, "").exitCode(), 2);
}

TEST(StoreAdminFunctions, AreMissingAtFirstThenInstalledOnce) {
  RedisServer server;
  StoreAdmin admin(server.address());
  EXPECT_EQ(admin.functionsVersion(), "");
  std::string text;
  EXPECT_EQ(failureOf([&] { admin.write({valueOf("A.f", 1)}); }, &text), StoreError::Kind::refused);
  EXPECT_THAT(text, HasSubstr("run kelgw apply"));
  EXPECT_TRUE(admin.readElements({"A.f"}).readings.at(0).type == DPELEMENT_NOELEMENT)
      << "reading needs no functions";
  EXPECT_TRUE(admin.installFunctions());
  EXPECT_FALSE(admin.installFunctions());
  EXPECT_EQ(admin.functionsVersion(), StoreAdmin::ownFunctionsVersion());
}

TEST_F(Admin, CatalogueIsListedByName) {
  const auto all = admin.listElements();
  ASSERT_EQ(all.size(), 4U);
  EXPECT_EQ(all[0].name, "A.f");
  EXPECT_EQ(all[3].name, "B.f");
  admin.removeElements({"B.f", "No.such"});
  EXPECT_EQ(admin.listElements().size(), 3U);
}

TEST_F(Admin, WrittenValueIsReadBackWithItsTimeAndClearsInvalid) {
  const auto sequence = admin.write({valueOf("A.f", 3.5)}, 1700);
  const auto readings = admin.readElements({"A.f", "No.such", "A.i"});
  EXPECT_EQ(readings.sequence, sequence);
  const auto& a = readings.readings.at(0);
  EXPECT_EQ(pvss::valueText(*a.value), "3.5");
  EXPECT_FALSE(a.invalid);
  EXPECT_EQ(a.valueTimeMs, 1700);
  EXPECT_EQ(a.invalidTimeMs, 1700);
  EXPECT_EQ(readings.readings.at(1).type, DPELEMENT_NOELEMENT);
  EXPECT_EQ(readings.readings.at(2).value, nullptr);
  EXPECT_TRUE(readings.readings.at(2).invalid);
}

TEST_F(Admin, FlagsAndBitsAreWrittenAlone) {
  admin.write({valueOf("A.f", 3.5)}, 1700);
  StoreWrite flags;
  flags.name = "A.f";
  flags.invalid = true;
  flags.userBit2 = true;
  admin.write({flags}, 1800);
  const auto a = admin.readElements({"A.f"}).readings.at(0);
  EXPECT_EQ(pvss::valueText(*a.value), "3.5");
  EXPECT_TRUE(a.invalid);
  EXPECT_FALSE(a.userBit1);
  EXPECT_TRUE(a.userBit2);
  EXPECT_EQ(a.valueTimeMs, 1700);
  EXPECT_EQ(a.invalidTimeMs, 1800);
}

TEST_F(Admin, UnknownElementAndWrongTypeAreRefusedBeforeAnythingIsWritten) {
  std::string text;
  EXPECT_EQ(failureOf(
                [&] {
                  admin.write({valueOf("A.f", 1), valueOf("No.such", 1)});
                },
                &text),
            StoreError::Kind::refused);
  EXPECT_THAT(text, HasSubstr("no such element: No.such"));
  EXPECT_EQ(failureOf([&] { admin.write({valueOf("A.i", 1)}); }, &text), StoreError::Kind::refused);
  EXPECT_THAT(text, HasSubstr("of type int"));
  EXPECT_EQ(admin.readElements({"A.f"}).readings.at(0).value, nullptr);
}

TEST(StoreAdminRestart, WriteWaitsForAServerThatIsOnItsWayBack) {
  RedisServer server(RedisServer::Keep::everything);
  StoreAdmin admin(server.address());
  admin.installFunctions();
  admin.putElements({element("A.f", DPELEMENT_FLOAT)});
  server.kill();
  std::thread restart([&] {
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    server.start();
  });
  EXPECT_EQ(admin.write({valueOf("A.f", 2)}, 5), 2U);
  restart.join();
}

TEST(StoreAdminRestart, WatchGivesTheStatesAgainWhenAnotherServerAnswers) {
  RedisServer server(RedisServer::Keep::everything);
  StoreAdmin admin(server.address());
  admin.installFunctions();
  admin.putElements({element("A.f", DPELEMENT_FLOAT)});
  std::atomic<bool> stop{false};
  std::thread restart;
  std::vector<StoreChange::Kind> seen;
  admin.watch(
      {"A.f"},
      [&](const StoreChange& change) {
        seen.push_back(change.kind);
        if (seen.size() == 1) {
          restart = std::thread([&] {
            server.kill();
            server.start();
          });
        }
        return seen.size() < 2;
      },
      stop, std::chrono::seconds(20));
  restart.join();
  EXPECT_THAT(seen, testing::ElementsAre(StoreChange::Kind::current, StoreChange::Kind::current));
}

TEST_F(Admin, PlanIsAppliedEntriesFirstThenValuesThenLists) {
  StoreProbe probe(server.address(), "7.probe");
  ASSERT_TRUE(probe.untilUp());
  pvss::StorePlan plan;
  plan.put = {element("C.f", DPELEMENT_FLOAT)};
  plan.remove = {"B.f"};
  plan.values = {valueOf("C.f", 2)};
  StoreWrite list;
  list.name = "A.list";
  auto names = std::make_shared<DynVar>(TEXT_VAR);
  names->append(TextVar("C.f"));
  list.value = names;
  plan.lists = {list};
  admin.apply(plan);
  ASSERT_TRUE(probe.until([&] { return probe.changes.size() >= 2; }));
  EXPECT_THAT(probe.events,
              testing::ElementsAre("catalogue", "defined C.f", "removed B.f", "change 4", "change 5"));
  EXPECT_EQ(StoreProbe::textOf(probe.changes[1].elements.at(0)), "3:C.f");
}

TEST_F(Admin, WatchGivesTheCurrentStateThenEveryChangeWithItsWriter) {
  admin.write({valueOf("A.f", 1)}, 1000);
  StoreAdmin writer(server.address());
  std::atomic<bool> stop{false};
  std::vector<StoreChange> seen;
  admin.watch(
      {"A.f"},
      [&](const StoreChange& change) {
        seen.push_back(change);
        if (seen.size() == 1) {
          writer.write({valueOf("B.f", 5)}, 1500);
          writer.write({valueOf("A.f", 1)}, 2000);
          writer.putElements({element("A.f", DPELEMENT_INT)});
          writer.removeElements({"A.f"});
        }
        return change.kind != StoreChange::Kind::removed;
      },
      stop, std::chrono::seconds(20));
  ASSERT_EQ(seen.size(), 4U);
  EXPECT_EQ(seen[0].kind, StoreChange::Kind::current);
  EXPECT_EQ(pvss::valueText(*seen[0].reading.value), "1");
  EXPECT_EQ(seen[1].kind, StoreChange::Kind::written);
  EXPECT_EQ(seen[1].timeMs, 2000);
  EXPECT_EQ(seen[1].attributes, "vi");
  EXPECT_THAT(seen[1].writer, testing::StartsWith("kelgw."));
  EXPECT_EQ(seen[2].kind, StoreChange::Kind::defined);
  EXPECT_EQ(seen[2].reading.type, DPELEMENT_INT);
  EXPECT_EQ(seen[2].reading.value, nullptr);
  EXPECT_EQ(seen[3].kind, StoreChange::Kind::removed);
}

TEST_F(Admin, WatchEndsWithItsTimeAndWithItsFlag) {
  std::atomic<bool> stop{false};
  int seen = 0;
  admin.watch(
      {"A.f"}, [&](const StoreChange&) { return ++seen < 100; }, stop, std::chrono::milliseconds(50));
  EXPECT_EQ(seen, 1);
  admin.watch(
      {"A.f"},
      [&](const StoreChange&) {
        stop = true;
        return true;
      },
      stop);
  EXPECT_EQ(failureOf([&] {
              admin.watch(
                  {"No.such"}, [](const StoreChange&) { return true; }, stop);
            }),
            StoreError::Kind::refused);
}

TEST_F(Admin, WatchFollowsValuesThatAreTooLargeForTheLog) {
  admin.putElements({element("A.t", DPELEMENT_TEXT)});
  StoreAdmin writer(server.address());
  std::atomic<bool> stop{false};
  std::string last;
  admin.watch(
      {"A.t"},
      [&](const StoreChange& change) {
        if (!change.reading.value) {
          StoreWrite write;
          write.name = "A.t";
          write.value = std::make_shared<TextVar>(std::string(100000, 'x').c_str());
          writer.write({write}, 1);
          return true;
        }
        last = pvss::valueText(*change.reading.value);
        return false;
      },
      stop, std::chrono::seconds(20));
  EXPECT_EQ(last.size(), 100000U);
}

TEST_F(Admin, ManagersShowBeatLeaseAndCountersInOrder) {
  StoreProbe probe(server.address(), "7.probe");
  ASSERT_TRUE(probe.untilUp());
  probe.store().beat({{"state", "running"}, {"queued", "3"}, {"confirmed", "2"}});
  ASSERT_TRUE(
      probe.until([&] { return !admin.managers().empty() && !admin.managers().at(0).counters.empty(); }));
  const auto manager = admin.managers().at(0);
  EXPECT_EQ(manager.number, 7);
  EXPECT_EQ(manager.kind, "api");
  EXPECT_EQ(manager.writer, "7.probe");
  EXPECT_EQ(manager.host, "here");
  EXPECT_EQ(manager.process, 42);
  EXPECT_EQ(manager.versionText, "probe 1");
  EXPECT_TRUE(manager.alive);
  EXPECT_TRUE(manager.leaseHeld);
  EXPECT_EQ(manager.leaseHolder, "7.probe");
  const std::vector<std::pair<std::string, std::string>> counters{
      {"state", "running"}, {"queued", "3"}, {"confirmed", "2"}};
  EXPECT_EQ(manager.counters, counters);
  probe.end();
  auto later = admin.managers().at(0);
  for (int i = 0; later.leaseHeld && i < 1000; ++i) later = admin.managers().at(0);
  EXPECT_FALSE(later.leaseHeld) << "an orderly end gives the number back";
  EXPECT_EQ(later.counters, counters) << "the last beat stays readable";
}

TEST_F(Admin, StatisticsCountWhatEachWriterHadApplied) {
  admin.write({valueOf("A.f", 1)});
  admin.write({valueOf("A.f", 2)});
  constexpr std::uint64_t bound = std::uint64_t{64} * 1024 * 1024;
  admin.setLogBound(bound);
  const auto all = admin.statistics();
  EXPECT_EQ(all.address, server.address());
  EXPECT_THAT(all.serverVersion, testing::StartsWith("7."));
  EXPECT_EQ(all.runId.size(), 40U);
  EXPECT_EQ(all.functions, StoreAdmin::ownFunctionsVersion());
  EXPECT_EQ(all.elements, 4U);
  EXPECT_GT(all.usedMemoryBytes, 0U);
  EXPECT_EQ(all.log.sequence, 3U);
  EXPECT_EQ(all.log.firstSequence, 1U);
  EXPECT_EQ(all.log.entries, 3U);
  EXPECT_EQ(all.log.boundBytes, bound);
  ASSERT_EQ(all.writers.size(), 1U);
  EXPECT_EQ(all.writers[0].applied, 2U);
  EXPECT_EQ(all.writers[0].attributes, 4U) << "two values and the flags that they clear";
  EXPECT_EQ(all.writers[0].refused, 0U);
  EXPECT_EQ(all.writers[0].values, 2U);
  EXPECT_GT(all.writers[0].sinceMs, 1600000000000);
  EXPECT_EQ(all.writers[0].lastClientSequence, 2U);
  EXPECT_GT(all.writers[0].lastUseMs, 1600000000000);
  EXPECT_EQ(failureOf([&] { admin.setLogBound(1000); }), StoreError::Kind::usage);
}

TEST(StoreAdminSignOn, UserAndPasswordComeFromTheAddressAndItsFile) {
  RedisServer server(RedisServer::Keep::nothing, false);
  server.start({"--user", "kel", "on", ">topsecret", "~*", "&*", "+@all", "--user", "default", "off"});
  const std::string file = server.folder() + "/pw";
  ASSERT_EQ(std::system(("umask 077; printf 'topsecret\\n' > " + file).c_str()), 0);
  EXPECT_NO_THROW(StoreAdmin(server.address() + "?user=kel&passfile=" + file).listElements());
  EXPECT_NO_THROW(StoreAdmin(server.address() + "?user=kel&db=5&passfile=" + file).listElements());
  std::string text;
  EXPECT_EQ(failureOf([&] { StoreAdmin(server.address()).listElements(); }, &text),
            StoreError::Kind::unreachable);
  EXPECT_THAT(text, HasSubstr("password"));
  EXPECT_EQ(failureOf([&] { StoreAdmin(server.address() + "?user=kel&passfile=/none"); }, &text),
            StoreError::Kind::unreachable);
  EXPECT_THAT(text, HasSubstr("password file /none: No such file"));
}

}  // namespace
