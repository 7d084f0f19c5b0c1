#include <gtest/gtest.h>
#include <kel/KelData.h>

#include <cmath>
#include <limits>
#include <vector>

#include "Hex.h"
#include "PayloadBuilder.h"
#include "data/RecordAccess.h"
#include "wire/RecordCodec.h"

namespace kel {
namespace {

using testing::delimited;
using testing::fixed;
using testing::intMetric;
using testing::metric;
using testing::number;

KelData decoded(const std::string& payload) {
  DecodedRecord result = decodeRecord(payload);
  EXPECT_TRUE(result.record) << result.error;
  return result.record ? RecordAccess::fromRecord(result.record) : KelData();
}
std::string errorOf(const std::string& payload) {
  const DecodedRecord result = decodeRecord(payload);
  EXPECT_FALSE(result.record) << testing::hex(payload);
  return result.error;
}
std::string throughTheWire(const KelData& data) {
  std::string bytes = encodeRecord(RecordAccess::record(data), {1, KelTimestamp(1), "gw/01", {}}).bytes;
  appendSequence(bytes, 1);
  return bytes;
}

TEST(RecordDecode, GivesBackEveryEdgeOfEveryType) {
  KelData data;
  data.insert(true, "b1");
  data.insert(static_cast<unsigned char>(255), "y");
  data.insert(std::numeric_limits<short>::min(), "s");
  data.insert(std::numeric_limits<int>::min(), "i");
  data.insert(std::numeric_limits<std::int64_t>::min(), "l");
  data.insert(std::numeric_limits<float>::denorm_min(), "f");
  data.insert(std::numeric_limits<double>::infinity(), "d");
  data.insert(std::nan(""), "n");
  data.insert("gr\xC3\xBC\xC3\x9F \xF0\x9F\x8C\xA1", "t");
  data.insert("\xFF\xFE", "latin");
  data.insert("", "e");
  data.insert(42, nullptr);
  data.insert(1, "_under");
  const KelData got = decoded(throughTheWire(data));
  EXPECT_EQ(got.size(), 13U);
  EXPECT_TRUE(got.extractBool("b1"));
  EXPECT_EQ(got.extractByte("y"), 255);
  EXPECT_EQ(got.extractShort("s"), std::numeric_limits<short>::min());
  EXPECT_EQ(got.extractInt("i"), std::numeric_limits<int>::min());
  EXPECT_EQ(got.extractLong("l"), std::numeric_limits<std::int64_t>::min());
  EXPECT_EQ(got.extractFloat("f"), std::numeric_limits<float>::denorm_min());
  EXPECT_EQ(got.extractDouble("d"), std::numeric_limits<double>::infinity());
  EXPECT_TRUE(std::isnan(got.extractDouble("n")));
  EXPECT_STREQ(got.extractCString("t"), "gr\xC3\xBC\xC3\x9F \xF0\x9F\x8C\xA1");
  EXPECT_STREQ(got.extractCString("latin"), "\xFF\xFE");
  EXPECT_STREQ(got.extractCString("e"), "");
  EXPECT_EQ(got.extractInt(nullptr), 42);
  EXPECT_EQ(got.extractInt("_under"), 1);
  EXPECT_STREQ(got.getPublisher(), "gw/01");
  EXPECT_EQ(got.getSequence(), 1);
}

TEST(RecordDecode, GivesBackEveryByteButNulInAText) {
  std::string text;
  for (int byte = 1; byte < 256; ++byte) text.push_back(static_cast<char>(byte));
  KelData data;
  data.insert(text.c_str(), "t");
  EXPECT_EQ(decoded(throughTheWire(data)).extractCString("t"), text);
}

TEST(RecordDecode, GivesBackLargeAndEmptyArrays) {
  std::vector<double> doubles(100'000);
  std::vector<std::string> texts(100'000);
  for (std::size_t i = 0; i < doubles.size(); ++i) {
    doubles[i] = static_cast<double>(i) / 7;
    texts[i] = i % 3 == 0 ? "" : std::to_string(i);
  }
  KelData data;
  data.insert(doubles.data(), 100'000, "d");
  data.insert(texts.data(), 100'000, "t");
  data.insert(doubles.data(), 0, "none");
  const KelData got = decoded(throughTheWire(data));
  int count = 0;
  const double* gotDoubles = got.extractDoubleArray(count, "d");
  EXPECT_EQ(std::vector<double>(gotDoubles, gotDoubles + count), doubles);
  EXPECT_EQ(reinterpret_cast<std::uintptr_t>(gotDoubles) % alignof(double), 0U);
  const char* const* gotTexts = got.extractCStringArray(count, "t");
  EXPECT_EQ(std::vector<std::string>(gotTexts, gotTexts + count), texts);
  EXPECT_NE(got.extractDoubleArray(count, "none"), nullptr);
  EXPECT_EQ(count, 0);
}

TEST(RecordDecode, GivesBackBooleansOfEveryCount) {
  for (int wanted = 0; wanted < 20; ++wanted) {
    bool values[20];
    for (int i = 0; i < wanted; ++i) values[i] = i % 3 == 0;
    KelData data;
    data.insert(values, wanted, "b");
    const KelData got = decoded(throughTheWire(data));
    int count = -1;
    const bool* booleans = got.extractBoolArray(count, "b");
    ASSERT_EQ(count, wanted);
    for (int i = 0; i < wanted; ++i) EXPECT_EQ(booleans[i], i % 3 == 0) << wanted << ' ' << i;
  }
}

TEST(RecordDecode, IsGoodAndOfThePayloadsTimeWhenItDoesNotSay) {
  const KelData data = decoded(number(1, 1'700'000'000'123) + intMetric("x", 1));
  EXPECT_EQ(data.getQuality(), 1);
  EXPECT_EQ(data.getTimestamp().timeNanoseconds, 1'700'000'000'123'000'000);
  EXPECT_STREQ(data.getPublisher(), "");
  EXPECT_EQ(data.getSequence(), 0);
}

TEST(RecordDecode, SaysWhenThereIsNoTimeAtAll) {
  EXPECT_FALSE(decodeRecord(intMetric("x", 1)).record->hasTime);
  EXPECT_FALSE(decodeRecord(number(1, ~std::uint64_t{0})).record->hasTime);
  EXPECT_TRUE(decodeRecord(number(1, 0)).record->hasTime);
}

TEST(RecordDecode, TakesAnEmptyRecord) {
  const KelData data = decoded(intMetric("_quality", 0xFFFFFFFFU));
  EXPECT_EQ(data.size(), 0U);
  EXPECT_EQ(data.getQuality(), -1);
}

TEST(RecordDecode, ReadsNarrowNumbersFromTheirLowBits) {
  const KelData data = decoded(metric("y", 1, number(10, 0xFFFFFF80U)) + metric("z", 1, number(10, 0x80)) +
                               metric("s", 2, number(10, 0xFFFFFFFEU)) + metric("t", 2, number(10, 0xFFFE)) +
                               metric("i", 3, number(10, ~std::uint64_t{0})));
  EXPECT_EQ(data.extractByte("y"), 0x80);
  EXPECT_EQ(data.extractByte("z"), 0x80);
  EXPECT_EQ(data.extractShort("s"), -2);
  EXPECT_EQ(data.extractShort("t"), -2);
  EXPECT_EQ(data.extractInt("i"), -1);
}

TEST(RecordDecode, TakesMetricFieldsInAnyOrderAndStepsOverTheUnknown) {
  const std::string body = number(10, 5) + fixed<std::uint32_t>(40, 1) + number(4, 3) +
                           delimited(9, "properties") + number(3, 1234) + fixed<std::uint64_t>(41, 2) +
                           delimited(1, "x") + number(5, 1);
  const KelData data =
      decoded(delimited(5, "body") + number(3, 9) + delimited(2, body) + delimited(4, "uuid"));
  EXPECT_EQ(data.size(), 1U);
  EXPECT_EQ(data.extractInt("x"), 5);
}

TEST(RecordDecode, TakesANullMetricForAMissingField) {
  const KelData data =
      decoded(delimited(2, delimited(1, "x") + number(4, 7) + number(7, 1)) + intMetric("y", 1));
  EXPECT_EQ(data.getValueType("x"), 0);
  EXPECT_EQ(data.size(), 1U);
}

TEST(RecordDecode, TakesTheLastOfTwoMetricsOfOneName) {
  const KelData data = decoded(intMetric("x", 1) + metric("x", 12, delimited(15, "two")));
  EXPECT_EQ(data.size(), 1U);
  EXPECT_STREQ(data.extractCString("x"), "two");
}

TEST(RecordDecode, KeepsReservedNamesForLater) {
  const KelData data = decoded(intMetric("_future", 1) + intMetric("__future", 2));
  EXPECT_EQ(data.size(), 1U);
  EXPECT_EQ(data.extractInt("_future"), 2);
}

TEST(RecordDecode, EndsTextsAndNamesThatLieSideBySide) {
  const KelData data =
      decoded(metric("a", 12, delimited(15, "xx")) + metric("_reason", 17, delimited(16, "r\xFF")) +
              metric("b", 17, delimited(16, "yy")) + metric("_publisher", 12, delimited(15, "p/1")));
  EXPECT_STREQ(data.extractCString("a"), "xx");
  EXPECT_STREQ(data.extractCString("b"), "yy");
  EXPECT_STREQ(data.getReason(), "r\xFF");
  EXPECT_STREQ(data.getPublisher(), "p/1");
  EXPECT_STREQ(data.fieldName(0), "a");
}

struct Malformed {
  const char* what;
  std::string payload;
  const char* error;
};

TEST(RecordDecode, RefusesEveryMalformedPayloadWhole) {
  using testing::unhex;
  const std::string good = intMetric("good", 1);
  const std::string truncated = "the payload is truncated or not a protobuf message";
  const std::string brokenMetric = "a metric is truncated or not a protobuf message";
  const Malformed table[] = {
      {"text", "hello, I am not a record", truncated.c_str()},
      {"a length beyond the end", unhex("12ff01"), truncated.c_str()},
      {"an absurd length", good + unhex("12ffffffffffffffffff01"), truncated.c_str()},
      {"an endless varint", good + unhex("08ffffffffffffffffffff"), truncated.c_str()},
      {"a varint that stops", unhex("0880"), truncated.c_str()},
      {"field number 0", unhex("0000"), truncated.c_str()},
      {"a group", unhex("0b0c"), truncated.c_str()},
      {"wire type 7", unhex("0f"), truncated.c_str()},
      {"a cut metric", good + delimited(2, unhex("0a0578")), brokenMetric.c_str()},
      {"a group in a metric", delimited(2, delimited(1, "x") + unhex("9b01")), brokenMetric.c_str()},
      {"a metric with an alias only", delimited(2, number(2, 5) + number(4, 3) + number(10, 1)),
       "a metric has no name"},
      {"an empty name", intMetric("", 1), "a metric has no name"},
      {"a NUL in a name", intMetric(std::string("a\0b", 3), 1), "a metric's name holds a NUL character"},
      {"no datatype", delimited(2, delimited(1, "x") + number(10, 1)), "metric 'x' has no datatype"},
      {"no value", delimited(2, delimited(1, "x") + number(4, 3)),
       "metric 'x' has no value of its datatype 3"},
      {"a value of another kind", metric("x", 3, number(11, 1)), "metric 'x' has no value of its datatype 3"},
      {"an unsigned number", good + metric("x", 7, number(10, 1)),
       "metric 'x' has datatype 7, which Kel does not have"},
      {"a date", metric("x", 13, number(11, 1)), "metric 'x' has datatype 13, which Kel does not have"},
      {"a template", metric("x", 19, delimited(18, "")),
       "metric 'x' has datatype 19, which Kel does not have"},
      {"a data set", metric("x", 16, delimited(17, "")),
       "metric 'x' has datatype 16, which Kel does not have"},
      {"a datatype from nowhere", metric("x", 4'000'000'000U, number(10, 1)),
       "metric 'x' has datatype 4000000000, which Kel does not have"},
      {"an array in pieces", metric("x", 24, delimited(16, "12345")),
       "metric 'x' is an array whose bytes are not a whole number of elements"},
      {"booleans without a count", metric("x", 32, delimited(16, "123")),
       "metric 'x' is a boolean array without its count"},
      {"booleans that are not there", metric("x", 32, delimited(16, unhex("090000008100"))) + "x",
       truncated.c_str()},
      {"too few booleans", metric("x", 32, delimited(16, unhex("0900000081"))),
       "metric 'x' is a boolean array whose count does not fit its bytes"},
      {"absurdly many booleans", metric("x", 32, delimited(16, unhex("ffffffff"))),
       "metric 'x' is a boolean array that is too large"},
      {"texts without an end", metric("x", 33, delimited(16, std::string("a\0b", 3))),
       "metric 'x' is a string array whose last text has no end"},
      {"a quality that is text", metric("_quality", 12, delimited(15, "1")),
       "metric '_quality' is not what this reserved name must carry"},
      {"a time that is an int", intMetric("_time", 1),
       "metric '_time' is not what this reserved name must carry"},
      {"a count of zero", metric("_seq", 4, number(11, 0)),
       "metric '_seq' is not what this reserved name must carry"},
      {"a negative count", metric("_seq", 4, number(11, ~std::uint64_t{0})),
       "metric '_seq' is not what this reserved name must carry"},
      {"a publisher that is a number", intMetric("_publisher", 1),
       "metric '_publisher' is not what this reserved name must carry"},
  };
  for (const Malformed& entry : table) EXPECT_EQ(errorOf(entry.payload), entry.error) << entry.what;
}

TEST(RecordDecode, RefusesAPayloadThatIsCutInsideAnything) {
  const std::string pieces[] = {number(1, 1'700'000'000'123),
                                intMetric("a", 1),
                                metric("b", 12, delimited(15, "text")),
                                metric("c", 33, delimited(16, std::string("x\0y\0", 4))),
                                metric("d", 10, fixed<double>(13, 1.5)),
                                metric("_seq", 4, number(11, 300))};
  std::string whole;
  std::size_t taken = 0;
  for (const std::string& piece : pieces) {
    for (std::size_t size = 1; size < piece.size(); ++size) {
      EXPECT_FALSE(decodeRecord(whole + piece.substr(0, size)).record) << whole.size() + size;
    }
    whole += piece;
    // Between two fields a protobuf message may end.
    taken += decodeRecord(whole).record ? 1U : 0U;
  }
  EXPECT_EQ(taken, std::size(pieces));
}

TEST(RecordDecode, RefusesAbsurdSizes) {
  EXPECT_EQ(errorOf(std::string(largestPayload + 1, '\0')),
            "the payload has 16777217 bytes, more than a record may have");
  std::string many;
  for (std::size_t i = 0; i <= mostFields; ++i) many += intMetric("x", 1);
  EXPECT_EQ(errorOf(many), "the payload has 65537 metrics, too many for a record");
}

TEST(RecordDecode, LeavesADecodedRecordAloneWhenItsCopyIsChanged) {
  const DecodedRecord result =
      decodeRecord(intMetric("x", 1) + metric("t", 33, delimited(16, std::string("a\0", 2))));
  KelData first = RecordAccess::fromRecord(result.record);
  KelData second = first;
  second.insert(2, "x");
  EXPECT_EQ(first.extractInt("x"), 1);
  EXPECT_EQ(second.extractInt("x"), 2);
  int count = 0;
  EXPECT_STREQ(second.extractCStringArray(count, "t")[0], "a");
}

}  // namespace
}  // namespace kel
