// Records that the broker takes for too large: bad with the reason, counted, and never a link that loops.
#include <gmock/gmock.h>

#include <algorithm>
#include <optional>

#include "KelFixture.h"
#include "wire/RecordCodec.h"

namespace kel {
namespace {

using namespace std::chrono_literals;
using ::testing::ContainsRegex;
using ::testing::ElementsAre;
using testing::Handler;
using ::testing::HasSubstr;
using testing::KelFixture;
using ::testing::Not;

struct OversizeTest : KelFixture {
  static void sendLarge(KelPublication* publication, int value, std::size_t size) {
    KelData data;
    data.insert(value, nullptr);
    data.insert(std::string(size, 'x').c_str(), "text");
    publication->send(data, KelTimestamp(1));
  }

  struct Shown {
    int quality = -9;
    std::string reason;
    std::optional<int> value;
    std::int64_t sequence = 0;
  };
  /// What the broker keeps, which is what everybody sees.
  Shown shown(const std::string& publication = "x") {
    Shown result;
    const DecodedRecord last = decodeRecord(broker->retained("kel/g/data/" + publication));
    if (!last.record) return result;
    result.quality = last.record->quality;
    result.reason = last.record->reason;
    result.sequence = last.record->sequence;
    if (const auto* field = last.record->find("")) result.value = field->value.int32;
    return result;
  }
  /// What the library says when the broker takes everything again and `from` has sent what it has.
  std::string saidWhenAllFits(KelFactory& from) {
    ::testing::internal::CaptureStderr();
    broker->limitSize(0);
    advance(11s);
    EXPECT_TRUE(from.flush(30s));
    return ::testing::internal::GetCapturedStderr();
  }
};

TEST_F(OversizeTest, DeclaresBadWithTheFieldsThatWereTakenLast) {
  Handler& handler = newHandler();
  auto a = factory("a", "a1");
  broker->limitSize(1000);
  KelPublication* publication = a->createPublication("x", &handler);
  send(publication, 5);
  sendLarge(publication, 6, 2000);
  ASSERT_TRUE(a->flush(30s));
  Shown now = shown();
  EXPECT_EQ(now.quality, 0);
  EXPECT_EQ(now.value, 5);
  EXPECT_EQ(now.sequence, 3);
  EXPECT_THAT(now.reason, HasSubstr("a record of 2"));
  EXPECT_THAT(now.reason, HasSubstr("bytes is too large for the broker"));
  sendLarge(publication, 7, 2000);
  ASSERT_TRUE(a->flush(30s));
  EXPECT_EQ(shown().value, 5);
  EXPECT_EQ(a->counters("x").refused, 2);
  EXPECT_EQ(a->counters("x").acknowledged, 3);
  EXPECT_TRUE(addsUp(*a));
  ASSERT_EQ(handler.lines(1).size(), 1U) << "told once";
  EXPECT_THAT(handler.all()[0], HasSubstr("of publication x is too large for the broker"));

  send(publication, 8);
  ASSERT_TRUE(a->flush(30s));
  now = shown();
  EXPECT_EQ(now.quality, 1);
  EXPECT_EQ(now.value, 8);
  EXPECT_EQ(now.reason, "");
  sendLarge(publication, 9, 2000);
  EXPECT_EQ(handler.lines(2).size(), 2U) << "it had fitted meanwhile";
  ASSERT_TRUE(a->flush(30s));
  EXPECT_TRUE(addsUp(*a));
}

TEST_F(OversizeTest, DeclaresBadWithoutFieldsWhereNoneWereTaken) {
  auto a = factory("a", "a1");
  broker->limitSize(1000);
  sendLarge(a->createPublication("x", nullptr), 6, 2000);
  ASSERT_TRUE(a->flush(30s));
  EXPECT_EQ(shown().quality, 0);
  EXPECT_EQ(shown().value, std::nullopt);
  EXPECT_TRUE(addsUp(*a));
}

TEST_F(OversizeTest, LeavesTheFieldsOutWhenTheBrokerTakesLessThanBefore) {
  auto a = factory("a", "a1");
  KelPublication* publication = a->createPublication("x", nullptr);
  sendLarge(publication, 5, 2000);
  ASSERT_TRUE(a->flush(30s));
  broker->limitSize(1000);
  sendLarge(publication, 6, 3000);
  ASSERT_TRUE(a->flush(30s));
  EXPECT_EQ(shown().quality, 0);
  EXPECT_EQ(shown().value, std::nullopt);
  EXPECT_THAT(shown().reason, HasSubstr("a record of 3"));
  EXPECT_EQ(a->counters("x").refused, 2);
  EXPECT_TRUE(addsUp(*a));
}

TEST_F(OversizeTest, GivesUpWhenNotEvenABadRecordFits) {
  auto a = factory("a", "a1");
  KelPublication* publication = a->createPublication("x", nullptr);
  ::testing::internal::CaptureStderr();
  broker->record("kel/g/data/#");
  send(publication, 1);
  ASSERT_TRUE(a->flush(30s));
  broker->limitSize(20);
  send(publication, 2);
  ASSERT_TRUE(a->flush(30s));
  EXPECT_EQ(broker->recorded().size(), 1U);
  EXPECT_TRUE(addsUp(*a));
  EXPECT_THAT(::testing::internal::GetCapturedStderr(), HasSubstr("x cannot even be declared bad"));
}

TEST_F(OversizeTest, LeavesANewerRecordThatFitsAlone) {
  auto a = factory("a", "a1");
  KelPublication* publication = a->createPublication("x", nullptr);
  send(publication, 1);
  ASSERT_TRUE(a->flush(30s));
  broker->setReachable("a-a1", false);
  broker->cut("a-a1");
  settle();
  broker->limitSize(1000);
  sendLarge(publication, 2, 2000);
  send(publication, 3);
  broker->setReachable("a-a1", true);
  ASSERT_TRUE(a->flush(30s));
  EXPECT_EQ(shown().quality, 1);
  EXPECT_EQ(shown().value, 3);
  EXPECT_EQ(a->counters("x").sends, 3) << "nothing was declared bad";
  EXPECT_TRUE(addsUp(*a));
}

TEST_F(OversizeTest, SaysTheSizeInOneLineAndAsksForNoRight) {
  auto a = factory("a", "a1");
  broker->limitSize(1000);
  ::testing::internal::CaptureStderr();
  KelPublication* publication = a->createPublication("x", nullptr);
  for (int i = 0; i < 5; ++i) sendLarge(publication, i, 2000);
  ASSERT_TRUE(a->flush(30s));
  advance(20s);
  const std::string said = ::testing::internal::GetCapturedStderr();
  EXPECT_THAT(said, HasSubstr("of publication x is too large for the broker"));
  EXPECT_THAT(said, Not(HasSubstr("right")));
  EXPECT_EQ(std::count(said.begin(), said.end(), '\n'), 1) << said;
}

TEST_F(OversizeTest, OfAClaimIsSaidWithItsSizeAndAsksForNoRight) {
  Handler& handler = newHandler();
  auto a = factory("a", "a1");
  broker->limitSize(20);
  ::testing::internal::CaptureStderr();
  KelPublication* publication = a->createPublication("x", &handler);
  send(publication, 1);
  advance(2s);  // before the presence is due again
  std::string said = ::testing::internal::GetCapturedStderr();
  EXPECT_THAT(said,
              ContainsRegex("the claim of [0-9]+ bytes on publication x is too large for the broker, which "
                            "does not say how much it takes: too large; asking again every 10 s"));
  EXPECT_THAT(said, Not(HasSubstr("right")));
  EXPECT_EQ(std::count(said.begin(), said.end(), '\n'), 1) << said;
  EXPECT_THAT(handler.lines(1),
              ElementsAre(ContainsRegex("^x: the claim of [0-9]+ bytes on publication x is too")));
  EXPECT_EQ(broker->retained("kel/g/data/x"), "") << "nothing may be published yet";

  said = saidWhenAllFits(*a);
  EXPECT_EQ(shown().value, 1);
  EXPECT_THAT(said, HasSubstr("the broker grants the claims that it refused"));
}

TEST_F(OversizeTest, OfAPresenceIsSaidWithItsSizeAndAsksForNoRight) {
  broker->limitSize(20);
  ::testing::internal::CaptureStderr();
  auto a = factory("a", "a1");
  KelPublication* publication = a->createPublication("x", nullptr);
  send(publication, 1);
  advance(15s);
  std::string said = ::testing::internal::GetCapturedStderr();
  EXPECT_THAT(
      said, ContainsRegex("the presence of [0-9]+ bytes of this publisher is too large for the broker, which "
                          "does not say how much it takes: too large; without it nothing can be published; "
                          "asking again every 10 s"));
  EXPECT_THAT(said, Not(HasSubstr("right")));
  EXPECT_EQ(broker->retained("kel/g/data/x"), "");

  said = saidWhenAllFits(*a);
  EXPECT_EQ(shown().value, 1);
  EXPECT_THAT(said, HasSubstr("the broker lets this process take part in its group"));
}

TEST_F(OversizeTest, EndsTheLoopOfALinkThatTheBrokerClosesOverARecord) {
  auto a = factory("a", "a1");
  KelPublication* publication = a->createPublication("x", nullptr);
  KelPublication* other = a->createPublication("other", nullptr);
  send(publication, 5);
  send(other, 1);
  ASSERT_TRUE(a->flush(30s));
  broker->endLinksOverSize(30'000, 1'000'000);
  sendLarge(publication, 6, 40'000);
  send(other, 2);
  ASSERT_TRUE(a->flush(30s)) << "the link is made again and again";
  settle();
  EXPECT_EQ(a->counters().reconnects, 3);
  EXPECT_EQ(shown().quality, 0);
  EXPECT_EQ(shown().value, 5);
  EXPECT_THAT(shown().reason, HasSubstr("a record of 40"));
  EXPECT_EQ(shown("other").value, 2);

  sendLarge(publication, 7, 40'000);
  ASSERT_TRUE(a->flush(30s));
  EXPECT_EQ(a->counters().reconnects, 3) << "no second record of that size is tried";
  EXPECT_EQ(shown().quality, 0);
  EXPECT_EQ(shown().sequence, 5);
  sendLarge(publication, 8, 20'000);
  ASSERT_TRUE(a->flush(30s));
  EXPECT_EQ(shown().value, 8);
  EXPECT_TRUE(addsUp(*a));

  broker->limitSize(0);
  advance(11min);
  sendLarge(publication, 9, 40'000);
  ASSERT_TRUE(a->flush(30s));
  EXPECT_EQ(shown().value, 9) << "it is tried again some time";
  EXPECT_TRUE(addsUp(*a));
}

TEST_F(OversizeTest, BlamesNoRecordThatTheBrokerTakesBetweenLostLinks) {
  auto a = factory("a", "a1");
  KelPublication* publication = a->createPublication("x", nullptr);
  sendLarge(publication, 5, 40'000);
  ASSERT_TRUE(a->flush(30s));
  for (int i = 0; i < 6; ++i) {
    broker->cut("a-a1");
    settle();
    ASSERT_TRUE(a->flush(30s));
  }
  for (int i = 0; i < 3; ++i) {
    broker->endLinksOverSize(30'000, 2);
    broker->cut("a-a1");
    settle();
    ASSERT_TRUE(a->flush(30s));
  }
  EXPECT_EQ(a->counters().reconnects, 6 + 3 * 3);
  EXPECT_EQ(shown().quality, 1);
  EXPECT_EQ(shown().value, 5);
  EXPECT_EQ(a->counters("x").refused, 0);
}

}  // namespace
}  // namespace kel
