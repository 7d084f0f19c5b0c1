#include "Times.h"

#include <gtest/gtest.h>

#include "Datum.h"

namespace kelgw {
namespace {

TEST(Times, ShowsUtcWithMilliseconds) {
  EXPECT_EQ(showTimeMs(1'772'366'400'250), "2026-03-01T12:00:00.250Z");
  EXPECT_EQ(showTimeMs(-1), "1969-12-31T23:59:59.999Z");
  EXPECT_EQ(showTimeMs(0), "-");
}

TEST(Times, ShowsAsManyDecimalsOfNanosecondsAsAreNeeded) {
  EXPECT_EQ(showTimeNs(1'772'366'400'250'000'000), "2026-03-01T12:00:00.250Z");
  EXPECT_EQ(showTimeNs(1'772'366'400'250'001'000), "2026-03-01T12:00:00.250001Z");
  EXPECT_EQ(showTimeNs(1'772'366'400'250'001'002), "2026-03-01T12:00:00.250001002Z");
  EXPECT_EQ(showTimeNs(-1), "1969-12-31T23:59:59.999999999Z");
}

TEST(Times, ReadsEveryFormThatTheHelpNames) {
  EXPECT_EQ(parseTimeMs("now", 42), 42);
  EXPECT_EQ(parseTimeMs("1772366400250", 0), 1'772'366'400'250);
  EXPECT_EQ(parseTimeMs("2026-03-01T12:00:00.250Z", 0), 1'772'366'400'250);
  EXPECT_EQ(parseTimeMs("2026-03-01 12:00:00", 0), 1'772'366'400'000);
  EXPECT_EQ(parseTimeMs("2026-03-01", 0), 1'772'323'200'000);
  EXPECT_EQ(parseTimeMs("2026-03-01T12:00:00.1239999Z", 0), 1'772'366'400'123);
}

TEST(Times, RefusesWhatIsNoTime) {
  for (const char* text :
       {"", "yesterday", "2026-13-01", "2026-02-30", "2026-03-01T24:00:00", "2026-03-01T12:00",
        "2026-03-01T12:00:00.", "2026-03-01T12:00:00+01:00", "26-03-01"}) {
    EXPECT_THROW((void)parseTimeMs(text, 0), DatumError) << text;
  }
}

TEST(Times, ReadsWhatItShows) {
  for (const std::int64_t ms : {std::int64_t{1}, std::int64_t{-86'400'001}, std::int64_t{951'782'399'999}}) {
    EXPECT_EQ(parseTimeMs(showTimeMs(ms), 0), ms);
  }
}

TEST(Times, ShowsSpansInTheTwoLargestUnits) {
  EXPECT_EQ(showSpanMs(450), "0.4s");
  EXPECT_EQ(showSpanMs(12'000), "12s");
  EXPECT_EQ(showSpanMs(200'000), "3m 20s");
  EXPECT_EQ(showSpanMs(7'500'000), "2h 5m");
  EXPECT_EQ(showSpanMs(349'200'000), "4d 1h");
}

}  // namespace
}  // namespace kelgw
