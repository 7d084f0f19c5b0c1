// Each function of the library against a real server, as any client could call it.
#include <gmock/gmock.h>

#include "RedisServer.h"
#include "pvss/StoreAdmin.h"

namespace {

using storetest::RedisServer;
using testing::ElementsAre;
using testing::StartsWith;

std::vector<std::string> lines(const std::string& text) {
  std::vector<std::string> out;
  std::size_t at = 0;
  while (at <= text.size()) {
    const std::size_t end = std::min(text.find('\n', at), text.size());
    out.push_back(text.substr(at, end - at));
    at = end + 1;
  }
  return out;
}

class Functions : public testing::Test {
 protected:
  explicit Functions(RedisServer::Keep keep = RedisServer::Keep::nothing) : server(keep) {
    pvss::StoreAdmin(server.address()).installFunctions();
    call({"dp_put", "0", "t", "A.f", "float", "A.i", "int"});
  }
  std::string call(std::vector<std::string> words) {
    words.insert(words.begin(), "FCALL");
    return server.cli(words);
  }
  std::string set(const std::string& writer, const std::string& number, const std::string& previous,
                  const std::string& time, const std::string& flags, const std::string& name,
                  const std::string& text) {
    return call({"dp_set", "0", writer, "", number, previous, time, flags, name, text});
  }
  std::vector<std::string> hash(const std::string& name) {
    return lines(server.cli({"HMGET", "dp:d:" + name, "v", "i", "1", "2", "t", "ti"}));
  }

  RedisServer server;
};

TEST_F(Functions, VersionIsTheOneThisProgramBrings) {
  EXPECT_EQ(call({"dp_version", "0"}), pvss::StoreAdmin::ownFunctionsVersion());
}

TEST_F(Functions, SetStoresWhatTheTextSaysAndLogsItUnchanged) {
  EXPECT_EQ(set("w", "1", "0", "1700", "", "A.f", "i01121v3.5"), "2");
  EXPECT_THAT(hash("A.f"), ElementsAre("3.5", "0", "1", "1", "1700", "1700"));
  EXPECT_THAT(lines(server.cli({"XREVRANGE", "dp:log", "+", "-", "COUNT", "1"})),
              ElementsAre("2-0", "s", "1700 w", "A.f", "i01121v3.5"));
}

TEST_F(Functions, SetWithoutAValueLeavesTheTimeOfTheValue) {
  set("w", "1", "0", "1700", "", "A.f", "i0v3.5");
  set("w", "2", "1", "1800", "", "A.f", "i1");
  EXPECT_THAT(hash("A.f"), ElementsAre("3.5", "1", "", "", "1700", "1800"));
}

TEST_F(Functions, TimeOfTheFlagMovesOnlyWhenTheFlagChanges) {
  set("w", "1", "0", "1700", "", "A.f", "i1v1");
  EXPECT_THAT(hash("A.f"), ElementsAre("1", "1", "", "", "1700", ""))
      << "an unwritten element is invalid already";
  set("w", "2", "1", "1800", "", "A.f", "i0v2");
  set("w", "3", "2", "1900", "", "A.f", "i0v3");
  EXPECT_THAT(hash("A.f"), ElementsAre("3", "0", "", "", "1900", "1800"));
}

TEST_F(Functions, OrderOfTheLettersDoesNotMatterBeforeTheValue) {
  set("w", "1", "0", "1700", "", "A.f", "21i0v3");
  EXPECT_THAT(hash("A.f"), ElementsAre("3", "0", "", "1", "1700", "1700"));
}

TEST_F(Functions, SameClientSequenceIsAppliedOnce) {
  EXPECT_EQ(set("w", "5", "0", "1700", "", "A.f", "v1"), "2");
  EXPECT_EQ(set("w", "5", "0", "1700", "", "A.f", "v2"), "0");
  EXPECT_EQ(set("w", "4", "0", "1700", "", "A.f", "v2"), "0");
  EXPECT_EQ(hash("A.f").front(), "1");
  EXPECT_THAT(server.cli({"HGET", "dp:cli", "w"}), StartsWith("5 1 1 0 1 "));
}

TEST_F(Functions, CountsAttributesInTheStepThatAppliesOrRefusesThem) {
  set("w", "1", "0", "1700", "", "A.f", "i01121v1");
  EXPECT_THAT(server.cli({"HGET", "dp:cli", "w"}), StartsWith("1 1 4 0 1 "));
  set("w", "2", "1", "1700", "", "A.f", "i1");
  EXPECT_THAT(server.cli({"HGET", "dp:cli", "w"}), StartsWith("2 2 5 0 1 ")) << "a call without a value";
  call({"dp_set", "0", "w", "", "3", "2", "1700", "", "A.f", "v2", "No.such", "i0v1"});
  EXPECT_THAT(server.cli({"HGET", "dp:cli", "w"}), StartsWith("3 3 6 2 2 ")) << "one of two elements";
  set("w", "4", "3", "1700", "", "No.such", "i0v1");
  EXPECT_THAT(server.cli({"HGET", "dp:cli", "w"}), StartsWith("4 3 6 4 2 ")) << "refused whole";
  set("w", "4", "3", "1700", "", "A.f", "i0v1");
  EXPECT_THAT(server.cli({"HGET", "dp:cli", "w"}), StartsWith("4 3 6 4 2 ")) << "a duplicate";
  set("w", "5", "4", "1800", "r", "A.f", "i0v1");
  EXPECT_THAT(server.cli({"HGET", "dp:cli", "w"}), StartsWith("5 4 6 4 2 ")) << "restored, not new";
}

TEST_F(Functions, CountsOnFromAnEntryOfAnOlderLibrary) {
  server.cli({"HSET", "dp:cli", "w", "7 6"});
  set("w", "8", "7", "1700", "", "A.f", "v1");
  EXPECT_THAT(server.cli({"HGET", "dp:cli", "w"}), StartsWith("8 7 1 0 1 "));
}

TEST_F(Functions, HelloTellsWhatIsCountedOfTheWriter) {
  call({"dp_hello", "0", "7.a", "7", "60000", "api", "host", "1", "v", "A"});
  const std::string fresh = server.cli({"HGET", "dp:cli", "7.a"});
  EXPECT_THAT(fresh, StartsWith("0 0 0 0 0 1"));
  call({"dp_set", "0", "7.a", "7:1", "1", "0", "1700", "", "A.f", "i0v1", "No.such", "v1"});
  const auto hello = lines(call({"dp_hello", "0", "7.a", "7", "60000", "api", "host", "1", "v", "A"}));
  ASSERT_EQ(hello.size(), 7U);
  EXPECT_EQ(hello[1], "1");
  EXPECT_EQ(hello[4], "2");
  EXPECT_EQ(hello[5], "1");
  const std::string since = fresh.substr(fresh.rfind(' '));
  EXPECT_THAT(server.cli({"HGET", "dp:cli", "7.a"}), testing::EndsWith(since)) << "when it came";
}

TEST_F(Functions, ClientSequencesCompareExactlyBeyondWhatADoubleHolds) {
  EXPECT_EQ(set("w", "18446744073709551614", "0", "1", "", "A.f", "v1"), "2");
  EXPECT_EQ(set("w", "18446744073709551614", "0", "1", "", "A.f", "v2"), "0");
  EXPECT_EQ(set("w", "18446744073709551615", "0", "1", "", "A.f", "v3"), "3");
}

TEST_F(Functions, WriteBehindOneThatIsMissingIsNotApplied) {
  set("w", "1", "0", "1700", "", "A.f", "v1");
  EXPECT_THAT(set("w", "3", "2", "1700", "", "A.f", "v3"), StartsWith("ORDER"));
  EXPECT_EQ(hash("A.f").front(), "1");
}

TEST_F(Functions, UnknownElementIsRefusedAndTheSequenceStillCounts) {
  EXPECT_EQ(set("w", "1", "0", "1700", "", "No.such", "v1"), "REFUSED no such element: No.such");
  EXPECT_EQ(server.cli({"EXISTS", "dp:d:No.such"}), "0");
  EXPECT_EQ(set("w", "2", "1", "1700", "", "A.f", "v1"), "2");
}

TEST_F(Functions, UnknownElementAmongOthersIsLeftOutAndNamed) {
  EXPECT_THAT(
      lines(call({"dp_set", "0", "w", "", "1", "0", "1700", "", "A.f", "v1", "No.such", "v2", "A.i", "v3"})),
      ElementsAre("2", "no such element: No.such", "1"));
  EXPECT_THAT(lines(server.cli({"XREVRANGE", "dp:log", "+", "-", "COUNT", "1"})),
              ElementsAre("2-0", "s", "1700 w", "A.f", "v1", "A.i", "v3"));
}

TEST_F(Functions, TextThatIsNoneIsRefusedWhole) {
  EXPECT_THAT(call({"dp_set", "0", "w", "", "1", "0", "1700", "", "A.i", "v1", "A.f", "x1"}),
              StartsWith("REFUSED A.f"));
  EXPECT_EQ(server.cli({"EXISTS", "dp:d:A.i"}), "0");
}

TEST_F(Functions, KeyOfAnotherTypeIsRefusedWhole) {
  server.cli({"SET", "dp:d:A.f", "foreign"});
  EXPECT_THAT(call({"dp_set", "0", "w", "", "1", "0", "1700", "", "A.i", "v1", "A.f", "v1"}),
              StartsWith("REFUSED A.f"));
  EXPECT_EQ(server.cli({"EXISTS", "dp:d:A.i"}), "0");
  EXPECT_EQ(server.cli({"GET", "dp:seq"}), "1");
}

TEST_F(Functions, RestoreGivesWayToWhatIsNewer) {
  set("w", "1", "0", "1700", "", "A.f", "v1");
  EXPECT_EQ(set("x", "1", "0", "1800", "r", "A.f", "v2"), "-1");
  EXPECT_EQ(hash("A.f").front(), "1");
  set("w", "2", "1", "1600", "r", "A.f", "v3");
  EXPECT_EQ(hash("A.f").front(), "3") << "of one writer the order of the calls decides";
}

TEST_F(Functions, WithoutATimeTheStoresClockIsTaken) {
  set("w", "1", "0", "", "", "A.f", "v1");
  EXPECT_EQ(hash("A.f")[4].size(), 13U) << "milliseconds since the epoch";
}

TEST_F(Functions, WriterThatDoesNotHoldTheLeaseIsFenced) {
  call({"dp_hello", "0", "7.a", "7", "60000", "api", "host", "1", "v", "A on host"});
  EXPECT_EQ(call({"dp_set", "0", "7.b", "7:1", "1", "0", "1", "", "A.f", "v1"}), "FENCED A on host");
  EXPECT_EQ(call({"dp_set", "0", "7.a", "7:1", "1", "0", "1", "", "A.f", "v1"}), "2");
}

TEST_F(Functions, WriteTakesAFreeLeaseUpAgain) {
  EXPECT_EQ(call({"dp_set", "0", "7.a", "7:1", "1", "0", "1", "", "A.f", "v1"}), "2");
  EXPECT_EQ(server.cli({"HGET", "dp:mgr:7:lease", "writer"}), "7.a");
  EXPECT_GT(std::stoi(server.cli({"PTTL", "dp:mgr:7:lease"})), 0);
}

TEST_F(Functions, HelloGivesTheNumberToOneAtATime) {
  const auto first =
      lines(call({"dp_hello", "0", "7.a", "7", "60000", "api", "host", "1", "v", "A on host"}));
  EXPECT_THAT(first, ElementsAre("1", "0", "1", testing::SizeIs(40), "0", "0", "1"));
  const auto second =
      lines(call({"dp_hello", "0", "7.b", "7", "60000", "api", "host", "2", "v", "B on host"}));
  ASSERT_EQ(second.size(), 3U);
  EXPECT_EQ(second[0], "0");
  EXPECT_EQ(second[1], "A on host");
  EXPECT_EQ(call({"dp_bye", "0", "7.b", "7"}), "0");
  EXPECT_EQ(call({"dp_bye", "0", "7.a", "7"}), "1");
  EXPECT_EQ(lines(call({"dp_hello", "0", "7.b", "7", "60000", "api", "host", "2", "v", "B"})).front(), "1");
}

TEST_F(Functions, HelloKnowsTheNewestWriteOfTheWriter) {
  call({"dp_set", "0", "7.a", "7:1", "12", "0", "1", "", "A.f", "v1"});
  EXPECT_EQ(lines(call({"dp_hello", "0", "7.a", "7", "60000", "api", "host", "1", "v", "A"}))[1], "12");
}

TEST_F(Functions, BeatRenewsTheLeaseAndShowsTheCounters) {
  call({"dp_hello", "0", "7.a", "7", "1000", "api", "host", "1", "v", "A on host"});
  EXPECT_EQ(lines(call({"dp_beat", "0", "7.a", "7:1", "60000", "state", "running", "queued", "3"})).front(),
            "1");
  EXPECT_GT(std::stoi(server.cli({"PTTL", "dp:mgr:7:lease"})), 1000);
  EXPECT_EQ(server.cli({"HGET", "dp:mgr:7", "queued"}), "3");
  EXPECT_THAT(lines(call({"dp_beat", "0", "7.b", "7:1", "60000"})), ElementsAre("0", "A on host"));
}

TEST_F(Functions, CallerOfAnOlderReleaseLosesNothingAndIsSentToLookAtTheVersion) {
  EXPECT_THAT(call({"dp_set", "0", "7.a", "7", "1", "0", "1", "", "A.f", "v1"}), StartsWith("TRYAGAIN"));
  EXPECT_THAT(call({"dp_beat", "0", "7.a", "7", "60000", "state", "running"}), StartsWith("TRYAGAIN"));
  EXPECT_EQ(hash("A.f").front(), "");
}

TEST_F(Functions, WritersSilentForADayAreForgottenWhenANewOneAppears) {
  set("old", "1", "0", "1", "", "A.f", "v1");
  set("young", "1", "0", "1", "", "A.f", "v1");
  server.cli({"ZADD", "dp:cli:use", "1000", "old"});
  set("old2", "1", "0", "1", "", "A.f", "v1");
  EXPECT_THAT(lines(server.cli({"HKEYS", "dp:cli"})), testing::UnorderedElementsAre("young", "old2"));
}

TEST_F(Functions, SnapGivesStatesAndTheSequenceTheyBelongTo) {
  set("w", "1", "0", "1700", "", "A.f", "i0v3.5");
  EXPECT_THAT(lines(call({"dp_snap", "0", "A.f", "No.such"})),
              ElementsAre("2", "3.5", "0", "", "", "1700", "1700", "", "", "", "", "", ""));
}

TEST_F(Functions, SinceNamesEveryElementThatChangedOnce) {
  set("w", "1", "0", "1", "", "A.f", "v1");
  set("w", "2", "1", "2", "", "A.f", "v2");
  EXPECT_THAT(lines(call({"dp_since", "0", "1"})), ElementsAre("3", "A.f", "2", "", "", "", "2", ""));
  EXPECT_THAT(lines(call({"dp_since", "0", "3"})), ElementsAre("3"));
}

TEST_F(Functions, SinceSaysWhenTheLogDoesNotReachBack) {
  set("w", "1", "0", "1", "", "A.f", "v1");
  set("w", "2", "1", "2", "", "A.f", "v2");
  server.cli({"XTRIM", "dp:log", "MAXLEN", "1"});
  EXPECT_THAT(call({"dp_since", "0", "1"}), StartsWith("TRIMMED"));
}

TEST_F(Functions, PutLogsOnlyWhatIsNewOrOther) {
  EXPECT_EQ(call({"dp_put", "0", "t", "A.f", "float", "A.x", "text"}), "1");
  EXPECT_EQ(call({"dp_put", "0", "t", "A.x", "text"}), "0");
  EXPECT_EQ(server.cli({"GET", "dp:seq"}), "2");
}

TEST_F(Functions, PutOfANewAddressMarksTheElementInvalidInTheSameStep) {
  set("w", "1", "0", "1", "", "A.f", "i0v1.5");
  call({"dp_put", "0", "t", "A.f", "float a1 3:KELp/x"});
  EXPECT_EQ(hash("A.f").at(1), "1");
  EXPECT_EQ(hash("A.f").front(), "1.5");
  EXPECT_EQ(server.cli({"GET", "dp:seq"}), "4");
  EXPECT_EQ(server.cli({"HGET", "dp:d:A.f", "a"}), "3");
  const auto entry = lines(server.cli({"XREVRANGE", "dp:log", "+", "-", "COUNT", "1"}));
  EXPECT_THAT(entry, ElementsAre("4-0", "s", ::testing::EndsWith(" t"), "A.f", "i1"));
  EXPECT_EQ(entry.at(2), server.cli({"HGET", "dp:d:A.f", "ti"}) + " t");
  // Neither a type of attributes switched off nor the same once more is another address; invalid it is
  // already.
  call({"dp_put", "0", "t", "A.f", "float d4 a1 3:KELp/x"});
  call({"dp_put", "0", "t", "A.f", "float a1 3:KELp/y"});
  EXPECT_EQ(server.cli({"GET", "dp:seq"}), "6");
  EXPECT_EQ(server.cli({"HGET", "dp:d:A.f", "a"}), "6");
  set("w", "2", "1", "2", "", "A.f", "i0");
  call({"dp_put", "0", "t", "A.f", "float"});
  EXPECT_EQ(hash("A.f").at(1), "0") << "an address that is taken away marks nothing";
}

TEST_F(Functions, SetLeavesOutElementsThatHaveMovedSinceTheWritersCatalogue) {
  call({"dp_put", "0", "t", "A.x", "int"});
  call({"dp_put", "0", "t", "A.f", "float a1 3:KELp/x"});
  EXPECT_EQ(server.cli({"GET", "dp:log:moved"}), "3");
  const std::string partly =
      call({"dp_set", "0", "w", "", "1", "0", "1", "c2", "A.f", "i0v1", "A.x", "i0v2"});
  EXPECT_THAT(lines(partly), ElementsAre("4", "another type or address since: A.f", "0"));
  EXPECT_EQ(hash("A.f").at(1), "");
  EXPECT_EQ(hash("A.x").front(), "2");
  EXPECT_THAT(set("w", "2", "1", "1", "c2", "A.f", "i0v1"),
              StartsWith("REFUSED another type or address since: A.f"));
  EXPECT_THAT(server.cli({"HGET", "dp:cli", "w"}), StartsWith("2 1 2 4 1 ")) << "counted as refused";
  EXPECT_EQ(set("w", "3", "2", "1", "c3", "A.f", "i0v3"), "5");
  EXPECT_EQ(set("w", "4", "3", "1", "rc3", "A.f", "i0v4"), "6");
  EXPECT_EQ(set("tool", "1", "0", "1", "", "A.f", "i0v5"), "7");
}

TEST_F(Functions, PutOfAnotherTypeDropsTheValueAndAnotherAddressDoesNot) {
  set("w", "1", "0", "1", "", "A.f", "v1.5");
  call({"dp_put", "0", "t", "A.f", "float a1 3:KELp/x"});
  EXPECT_EQ(hash("A.f").front(), "1.5");
  call({"dp_put", "0", "t", "A.f", "int a1 3:KELp/x"});
  EXPECT_EQ(hash("A.f").front(), "");
}

TEST_F(Functions, DeleteRemovesEntryAndValueAndIsLogged) {
  set("w", "1", "0", "1", "", "A.f", "v1.5");
  EXPECT_EQ(call({"dp_del", "0", "t", "A.f", "No.such"}), "1");
  EXPECT_EQ(server.cli({"EXISTS", "dp:d:A.f"}), "0");
  const auto entry = lines(server.cli({"XREVRANGE", "dp:log", "+", "-", "COUNT", "1"}));
  ASSERT_GE(entry.size(), 4U);
  EXPECT_EQ(entry[1], "x");
  EXPECT_EQ(entry[3], "A.f");
}

TEST_F(Functions, LargeChangeIsLoggedByNamesAndWhatItWroteIsKeptBeside) {
  const std::string text = "i01121v" + std::string(70000, '7');
  set("w", "1", "0", "1700", "", "A.f", text);
  EXPECT_EQ(call({"dp_large", "0", "2"}), "3:A.f70007:" + text);
  EXPECT_EQ(call({"dp_large", "0", "1"}), "");
  EXPECT_THAT(lines(server.cli({"XREVRANGE", "dp:log", "+", "-", "COUNT", "1"})),
              ElementsAre("2-0", "S", "1700 w", "names", "i12v A.f"));
  EXPECT_EQ(hash("A.f").front().size(), 70000U);
}

TEST_F(Functions, WhatALargeChangeWroteGoesWithItsEntry) {
  server.cli({"HSET", "dp:cfg", "logBytes", "2097152"});
  const std::string text = "v" + std::string(100000, '7');
  for (int i = 1; i <= 50; ++i) set("w", std::to_string(i), "0", "1700", "", "A.f", text);
  const auto kept = lines(server.cli({"KEYS", "dp:log:v:*"}));
  EXPECT_EQ(kept.size(), std::stoul(server.cli({"XLEN", "dp:log"})));
  EXPECT_GT(kept.size(), 10U);
  EXPECT_LT(kept.size(), 35U);
  EXPECT_EQ(server.cli({"EXISTS", "dp:log:v:51"}), "1");
}

TEST_F(Functions, LogIsCutWhenItPassesItsBoundOfBytes) {
  server.cli({"HSET", "dp:cfg", "logBytes", "2097152"});
  const std::string text = "v" + std::string(60000, '7');
  for (int i = 1; i <= 100; ++i) set("w", std::to_string(i), "0", "1700", "", "A.f", text);
  const auto log = pvss::StoreAdmin(server.address()).logStatistics();
  EXPECT_EQ(log.sequence, 101U);
  EXPECT_EQ(log.boundBytes, 2097152U);
  EXPECT_LE(log.bytes, 2097152U + 1048576U);
  EXPECT_LE(log.entries, 52U);
  EXPECT_GE(log.entries, 15U);
  EXPECT_EQ(log.firstSequence, 101U - log.entries + 1) << "no holes";
}

TEST_F(Functions, LostCounterIsTakenUpWhereTheLogEnds) {
  set("w", "1", "0", "1", "", "A.f", "v1");
  server.cli({"DEL", "dp:seq"});
  EXPECT_EQ(set("w", "2", "1", "1", "", "A.f", "v2"), "3");
  EXPECT_EQ(server.cli({"GET", "dp:seq"}), "3");
}

TEST_F(Functions, ManagersAreListedWithTheirLease) {
  call({"dp_hello", "0", "7.a", "7", "60000", "api", "host", "1", "v", "A on host"});
  const auto out = lines(call({"dp_managers", "0"}));
  EXPECT_EQ(out[1], "7");
  EXPECT_EQ(out.back(), "7.a");
}

TEST_F(Functions, TextsWithEveryByteSurvive) {
  pvss::StoreAdmin admin(server.address());
  pvss::StoreElement element;
  element.name = "A.t";
  element.type = DPELEMENT_TEXT;
  element.addressType = 1;
  element.driver = "KEL";
  element.reference =
      "plant/x\x1A"
      "a 1 3:b";
  admin.putElements({element});
  const auto all = admin.listElements();
  ASSERT_EQ(all.size(), 3U);
  EXPECT_EQ(all[2], element);
}

/// A manager number that goes from one writer to the next.
class Number : public Functions {
 protected:
  Number() : Functions(RedisServer::Keep::everything) {}
  std::vector<std::string> hello(const std::string& writer, const std::string& had = "0") {
    return lines(call({"dp_hello", "0", writer, "7", "60000", "api", "host", "1", "v", writer, had}));
  }
  /// The generation that hello gives, or who has the number.
  std::string generation(const std::string& writer, const std::string& had = "0") {
    const auto answer = hello(writer, had);
    return answer.at(0) == "1" ? answer.at(6) : answer.at(1);
  }
  std::string write(const std::string& writer, const std::string& fence, const std::string& text) {
    const std::string known = server.cli({"HGET", "dp:cli", writer});
    const auto next = known.empty() ? 1 : std::stoull(known) + 1;
    return call({"dp_set", "0", writer, fence, std::to_string(next), "0", "1", "", "A.f", text});
  }
  void leaseRunsOut() { server.cli({"DEL", "dp:mgr:7:lease"}); }
  void beginAnew() {
    server.kill();
    server.start();
  }
};

TEST_F(Number, GenerationRisesWhenItGoesToAnotherAndOnlyThen) {
  EXPECT_EQ(generation("7.a"), "1");
  EXPECT_EQ(generation("7.a", "1"), "1");
  EXPECT_EQ(generation("7.a"), "1") << "its answer had not arrived";
  leaseRunsOut();
  EXPECT_EQ(generation("7.a", "1"), "1") << "it merely hung";
  leaseRunsOut();
  EXPECT_EQ(generation("7.b"), "2");
  call({"dp_bye", "0", "7.b", "7"});
  EXPECT_EQ(generation("7.a"), "3");
}

TEST_F(Number, WriterThatMerelyHungGoesOn) {
  generation("7.a");
  leaseRunsOut();
  EXPECT_EQ(write("7.a", "7:1", "v1"), "2");
  leaseRunsOut();
  EXPECT_EQ(lines(call({"dp_beat", "0", "7.a", "7:1", "60000"})).front(), "1");
  EXPECT_EQ(server.cli({"HGET", "dp:mgr:7:lease", "writer"}), "7.a");
}

TEST_F(Number, WriteOfAnOlderGenerationIsFencedAlsoWhenNobodyHasTheNumberAnyMore) {
  generation("7.a");
  leaseRunsOut();
  generation("7.b");
  write("7.b", "7:2", "v2");
  leaseRunsOut();
  EXPECT_EQ(write("7.a", "7:1", "v1"), "FENCED 7.b");
  EXPECT_THAT(lines(call({"dp_beat", "0", "7.a", "7:1", "60000"})), ElementsAre("0", "7.b"));
  EXPECT_EQ(hello("7.a", "1").at(0), "0") << "who had it once and lost it is told so";
  EXPECT_EQ(hash("A.f").front(), "2");
  EXPECT_EQ(server.cli({"EXISTS", "dp:mgr:7:lease"}), "0");
  EXPECT_EQ(generation("7.c"), "3");
}

TEST_F(Number, WriteOfTheSameWriterInAnOlderGenerationIsFenced) {
  generation("7.a");
  leaseRunsOut();
  generation("7.b");
  leaseRunsOut();
  EXPECT_EQ(generation("7.a"), "3");
  EXPECT_THAT(write("7.a", "7:1", "v1"), StartsWith("FENCED"));
  EXPECT_EQ(write("7.a", "7:3", "v3"), "2");
}

TEST_F(Number, NothingIsTakenFromAWriterThatHasSaidGoodBye) {
  generation("7.a");
  call({"dp_bye", "0", "7.a", "7"});
  EXPECT_THAT(write("7.a", "7:1", "v1"), StartsWith("FENCED"));
  EXPECT_EQ(hash("A.f").front(), "");
}

TEST_F(Number, StoreThatBeganAnewLetsOnlyTheLastHolderInForOneLease) {
  generation("7.a");
  leaseRunsOut();
  beginAnew();
  const auto refused = hello("7.b");
  EXPECT_EQ(refused.at(0), "0");
  EXPECT_EQ(refused.at(1), "7.a");
  EXPECT_GT(std::stoi(refused.at(2)), 50000);
  EXPECT_LE(std::stoi(refused.at(2)), 60000);
  EXPECT_EQ(generation("7.a", "1"), "1");
  leaseRunsOut();
  EXPECT_EQ(generation("7.b"), "2") << "the last holder was there: from now on the lease alone decides";
}

TEST_F(Number, LastHolderThatDoesNotComeBackIsWaitedForOnce) {
  generation("7.a");
  leaseRunsOut();
  beginAnew();
  EXPECT_EQ(hello("7.b").at(0), "0");
  server.cli({"HINCRBY", "dp:mgr:7:owner", "until", "-60001"});  // as if so long had passed
  EXPECT_EQ(generation("7.b"), "2");
  EXPECT_EQ(generation("7.a", "1"), "7.b");
}

TEST_F(Number, ClockThatWentBackDoesNotMakeTheWaitLonger) {
  generation("7.a");
  leaseRunsOut();
  beginAnew();
  hello("7.b");
  server.cli({"HINCRBY", "dp:mgr:7:owner", "until", "86400000"});
  EXPECT_LE(std::stoi(hello("7.b").at(2)), 60000);
}

TEST_F(Number, NobodyIsWaitedForAfterAnOrderlyEnd) {
  generation("7.a");
  call({"dp_bye", "0", "7.a", "7"});
  beginAnew();
  EXPECT_EQ(generation("7.b"), "2");
}

TEST_F(Number, StoreThatLostTheNewestHolderGivesWayToIt) {
  generation("7.a");
  leaseRunsOut();
  generation("7.b");
  // The store comes back as it was before the second had the number, and the first was quicker.
  server.cli({"HSET", "dp:mgr:7:owner", "writer", "7.a", "generation", "1"});
  leaseRunsOut();
  EXPECT_EQ(generation("7.a", "1"), "1");
  EXPECT_EQ(generation("7.b", "2"), "2");
  EXPECT_EQ(write("7.a", "7:1", "v1"), "FENCED 7.b");
}

TEST_F(Number, EmptiedStoreGivesTheNumberToWhomIsThere) {
  generation("7.a");
  server.cli({"FLUSHALL"});
  EXPECT_EQ(lines(call({"dp_beat", "0", "7.a", "7:1", "60000"})).front(), "1")
      << "it finds out by the sequence";
  EXPECT_EQ(generation("7.a", "1"), "1");
}

/// A server that dies and comes back without what had not reached its disk, or as a replica in its place:
/// what is lost is simply never written here.
class Restored : public Functions {
 protected:
  Restored() : Functions(RedisServer::Keep::everything) { hello(); }
  void hello() {
    ASSERT_THAT(call({"dp_hello", "0", "7.w", "7", "60000", "API", "here", "1", "1", "w"}),
                StartsWith("1\n"));
  }
  void comeBack() {
    server.kill();
    server.start();
    hello();
  }
  std::string set(const std::string& writer, const std::string& time, const std::string& flags,
                  const std::string& name, const std::string& text) {
    return call({"dp_set", "0", writer, writer == "7.w" ? "7:1" : "", std::to_string(++number), "0", time,
                 flags, name, text});
  }
  std::string value(const std::string& name, const std::string& field = "v") {
    return server.cli({"HGET", "dp:d:" + name, field});
  }

  int number = 0;
};

TEST_F(Restored, WhatTheServerHadBeforeItDiedIsOlderThanWhatItLostWhateverTheClocksSay) {
  set("other", "5000", "", "A.f", "i0v2");
  comeBack();
  EXPECT_EQ(set("7.w", "200", "r", "A.f", "i01021v3"), "3");
  EXPECT_EQ(value("A.f"), "3");
  EXPECT_EQ(value("A.f", "t"), "200");
}

TEST_F(Restored, AFlagOfAnEarlierClockIsRestoredToo) {
  set("other", "5000", "", "A.f", "i0v2");
  comeBack();
  set("7.w", "200", "r", "A.f", "i1");
  EXPECT_EQ(value("A.f", "i"), "1");
  EXPECT_EQ(value("A.f"), "2");
}

TEST_F(Restored, WhatOthersHaveWrittenSinceStaysWhateverTheClocksSay) {
  comeBack();
  set("other", "100", "", "A.f", "i0v2");
  EXPECT_EQ(set("7.w", "5000", "r", "A.f", "i0v3"), "-1");
  EXPECT_EQ(value("A.f"), "2");
  EXPECT_EQ(value("A.f", "t"), "100");
}

TEST_F(Restored, WhatComesBeforeTheFirstManagerIsNewerToo) {
  set("other", "5000", "", "A.i", "i0v2");
  server.kill();
  server.start();
  set("other", "100", "", "A.f", "i0v2");
  hello();
  call(
      {"dp_set", "0", "7.w", "7:1", std::to_string(++number), "0", "200", "r", "A.f", "i0v3", "A.i", "i0v3"});
  EXPECT_EQ(value("A.f"), "2");
  EXPECT_EQ(value("A.i"), "3");
}

TEST_F(Restored, AReplicaThatIsPromotedBeginsAnewThoughItsProcessGoesOn) {
  set("other", "5000", "", "A.f", "i0v2");
  server.cli({"REPLICAOF", "127.0.0.1", "1"});
  server.cli({"REPLICAOF", "NO", "ONE"});
  hello();
  set("7.w", "200", "r", "A.f", "i0v3");
  EXPECT_EQ(value("A.f"), "3");
}

TEST_F(Restored, OnlyTheAttributesThatOthersHaveWrittenStay) {
  comeBack();
  set("other", "100", "", "A.f", "i1");
  EXPECT_EQ(set("7.w", "5000", "r", "A.f", "i011v3"), "3");
  EXPECT_EQ(value("A.f"), "3");
  EXPECT_EQ(value("A.f", "i"), "1");
  EXPECT_EQ(value("A.f", "1"), "1");
  EXPECT_THAT(lines(server.cli({"XREVRANGE", "dp:log", "+", "-", "COUNT", "1"})),
              ElementsAre("3-0", "s", "5000 7.w", "A.f", "11v3"));
}

TEST_F(Restored, EachElementIsLookedAtByItself) {
  comeBack();
  set("other", "100", "", "A.f", "i0v2");
  call({"dp_set", "0", "7.w", "7:1", std::to_string(++number), "0", "50", "r", "A.f", "i0v3", "A.i", "i0v4"});
  EXPECT_EQ(value("A.f"), "2");
  EXPECT_EQ(value("A.i"), "4");
}

TEST_F(Restored, OfTwoWhoRestoreTheLaterTimeStays) {
  comeBack();
  set("one", "300", "r", "A.f", "i0v1");
  set("two", "200", "r", "A.f", "i0v2");
  EXPECT_EQ(value("A.f"), "1");
  set("two", "400", "r", "A.f", "i0v3");
  EXPECT_EQ(value("A.f"), "3");
  set("two", "350", "r", "A.f", "i0v4");
  EXPECT_EQ(value("A.f"), "4") << "its own it may replace";
}

TEST_F(Restored, AWriteAfterARestoreIsNewerThanTheNextRestore) {
  comeBack();
  set("one", "300", "r", "A.f", "i0v1");
  set("other", "100", "", "A.f", "i0v2");
  set("two", "9000", "r", "A.f", "i0v3");
  EXPECT_EQ(value("A.f"), "2");
}

TEST_F(Restored, WrittenOnesWhoseNamesAloneAreInTheLogCountToo) {
  call({"dp_put", "0", "t", "A.t", "text"});
  comeBack();
  set("other", "100", "", "A.t", "i0v" + std::string(70'000, 'x'));
  set("7.w", "5000", "r", "A.t", "i011vy");
  EXPECT_EQ(server.cli({"HSTRLEN", "dp:d:A.t", "v"}), "70000");
  EXPECT_EQ(value("A.t", "1"), "1");
}

TEST_F(Restored, WithoutAWholeLogTheTimesDecide) {
  set("other", "5000", "", "A.f", "i0v2");
  comeBack();
  set("other", "100", "", "A.i", "i0v1");
  server.cli({"XTRIM", "dp:log", "MAXLEN", "0"});
  EXPECT_EQ(set("7.w", "200", "r", "A.f", "i0v3"), "-1");
  set("7.w", "200", "r", "A.i", "i0v3");
  EXPECT_EQ(value("A.f"), "2");
  EXPECT_EQ(value("A.i"), "3");
}

TEST_F(Restored, AStoreThatWasEmptiedHasNothingFromBefore) {
  set("other", "100", "", "A.f", "i0v1");
  server.cli({"FLUSHALL"});
  call({"dp_put", "0", "t", "A.f", "float", "A.i", "int"});
  set("other", "100", "", "A.f", "i0v2");
  hello();
  set("7.w", "5000", "r", "A.f", "i0v3");
  EXPECT_EQ(value("A.f"), "2");
}

}  // namespace
