#include <gtest/gtest.h>
#include <kel/KelData.h>

#include "Hex.h"
#include "PayloadBuilder.h"
#include "data/RecordAccess.h"
#include "wire/RecordCodec.h"

namespace kel {
namespace {

using testing::hex;

std::string fieldsOf(const KelData& data) {
  const EncodedRecord encoded = encodeRecord(RecordAccess::record(data), {});
  return hex(encoded.fields());
}

template <class Value>
std::string oneField(Value value) {
  KelData data;
  data.insert(value, "x");
  return fieldsOf(data);
}
template <class Value, std::size_t Count>
std::string oneArray(const Value (&values)[Count]) {
  KelData data;
  data.insert(values, static_cast<int>(Count), "x");
  return fieldsOf(data);
}

TEST(RecordEncode, WritesEveryScalarAsItsDatatype) {
  EXPECT_EQ(oneField(true),
            "1207"
            "0a0178"
            "200b"
            "7001");
  EXPECT_EQ(oneField(false),
            "1207"
            "0a0178"
            "200b"
            "7000");
  EXPECT_EQ(oneField(static_cast<unsigned char>(255)),
            "1208"
            "0a0178"
            "2001"
            "50ff01");
  EXPECT_EQ(oneField(static_cast<short>(-1)),
            "120b"
            "0a0178"
            "2002"
            "50ffffffff0f");
  EXPECT_EQ(oneField(-1),
            "120b"
            "0a0178"
            "2003"
            "50ffffffff0f");
  EXPECT_EQ(oneField(300),
            "1208"
            "0a0178"
            "2003"
            "50ac02");
  EXPECT_EQ(oneField(std::int64_t{-1}),
            "1210"
            "0a0178"
            "2004"
            "58ffffffffffffffffff01");
  EXPECT_EQ(oneField(1.5F),
            "120a"
            "0a0178"
            "2009"
            "650000c03f");
  EXPECT_EQ(oneField(1.5),
            "120e"
            "0a0178"
            "200a"
            "69000000000000f83f");
  EXPECT_EQ(oneField("hi"),
            "1209"
            "0a0178"
            "200c"
            "7a026869");
  EXPECT_EQ(oneField(""),
            "1207"
            "0a0178"
            "200c"
            "7a00");
}

TEST(RecordEncode, WritesTextThatIsNotUtf8AsBytes) {
  EXPECT_EQ(oneField("\xFCmlaut"),
            "120e"
            "0a0178"
            "2011"
            "820106fc6d6c617574");
}

TEST(RecordEncode, PacksEveryArray) {
  const bool booleans[] = {true, false, false, false, false, false, false, true, true};
  EXPECT_EQ(oneArray(booleans),
            "120e"
            "0a0178"
            "2020"
            "820106"
            "09000000"
            "8180");
  const unsigned char bytes[] = {1, 255};
  EXPECT_EQ(oneArray(bytes),
            "120a"
            "0a0178"
            "2016"
            "820102"
            "01ff");
  const short shorts[] = {1, -1};
  EXPECT_EQ(oneArray(shorts),
            "120c"
            "0a0178"
            "2017"
            "820104"
            "0100ffff");
  const int ints[] = {1, -1};
  EXPECT_EQ(oneArray(ints),
            "1210"
            "0a0178"
            "2018"
            "820108"
            "01000000ffffffff");
  const std::int64_t longs[] = {-2};
  EXPECT_EQ(oneArray(longs),
            "1210"
            "0a0178"
            "2019"
            "820108"
            "feffffffffffffff");
  const float floats[] = {1.5F};
  EXPECT_EQ(oneArray(floats),
            "120c"
            "0a0178"
            "201e"
            "820104"
            "0000c03f");
  const double doubles[] = {1.5};
  EXPECT_EQ(oneArray(doubles),
            "1210"
            "0a0178"
            "201f"
            "820108"
            "000000000000f83f");
  const char* const texts[] = {"a", "", "bc"};
  EXPECT_EQ(oneArray(texts),
            "120e"
            "0a0178"
            "2021"
            "820106"
            "610000626300");
}

TEST(RecordEncode, WritesEmptyArrays) {
  KelData data;
  data.insert(static_cast<const bool*>(nullptr), 0, "x");
  EXPECT_EQ(fieldsOf(data),
            "120c"
            "0a0178"
            "2020"
            "820104"
            "00000000");
  data.insert(static_cast<const int*>(nullptr), 0, "x");
  EXPECT_EQ(fieldsOf(data),
            "1208"
            "0a0178"
            "2018"
            "820100");
  data.insert(static_cast<const char* const*>(nullptr), 0, "x");
  EXPECT_EQ(fieldsOf(data),
            "1208"
            "0a0178"
            "2021"
            "820100");
}

TEST(RecordEncode, NamesTheUnnamedValueAndDoublesALeadingUnderscore) {
  KelData unnamed;
  unnamed.insert(1, nullptr);
  EXPECT_EQ(fieldsOf(unnamed), hex(testing::intMetric("_value", 1)));
  KelData leading;
  leading.insert(1, "_value");
  leading.insert(2, "_");
  leading.insert(3, "a_b");
  EXPECT_EQ(fieldsOf(leading), hex(testing::intMetric("__value", 1) + testing::intMetric("__", 2) +
                                   testing::intMetric("a_b", 3)));
}

TEST(RecordEncode, SaysInItsHeaderWhoWhenAndHowGood) {
  KelData data;
  data.insert(7, "x");
  EncodedRecord encoded =
      encodeRecord(RecordAccess::record(data), {0, KelTimestamp(1'700'000'000'123'456'789), "gw/01", "why"});
  appendSequence(encoded.bytes, 300);
  using namespace testing;
  EXPECT_EQ(hex(encoded.bytes),
            hex(number(1, 1'700'000'000'123) + intMetric("x", 7) + intMetric("_quality", 0) +
                metric("_time", 4, number(11, 1'700'000'000'123'456'789)) +
                metric("_publisher", 12, delimited(15, "gw/01")) +
                metric("_reason", 12, delimited(15, "why")) + metric("_seq", 4, number(11, 300))));
  EXPECT_EQ(hex(encoded.fields()), hex(intMetric("x", 7)));
}

TEST(RecordEncode, WritesQualityMinusOneAndTimesBefore1970) {
  const EncodedRecord encoded = encodeRecord(Record(), {-1, KelTimestamp(-1), {}, {}});
  using namespace testing;
  EXPECT_EQ(hex(encoded.bytes), hex(number(1, 0) + intMetric("_quality", 0xFFFFFFFFU) +
                                    metric("_time", 4, number(11, ~std::uint64_t{0}))));
}

TEST(RecordEncode, RepeatsFieldsUnderAnotherHeader) {
  KelData data;
  data.insert("keep me", "x");
  const RecordHeader good{1, KelTimestamp(5'000'000), "gw/01", {}};
  const RecordHeader bad{0, KelTimestamp(6'000'000), "gw/01", "gone"};
  const EncodedRecord first = encodeRecord(RecordAccess::record(data), good);
  EXPECT_EQ(hex(encodeRecord(first.fields(), bad).bytes),
            hex(encodeRecord(RecordAccess::record(data), bad).bytes));
}

TEST(RecordEncode, WritesMoreFieldsThanItPlansAtOnce) {
  KelData data;
  std::string expected;
  for (int i = 0; i < 100; ++i) {
    const std::string name = "f" + std::to_string(i);
    data.insert(i, name.c_str());
    expected += testing::intMetric(name, static_cast<std::uint32_t>(i));
  }
  EXPECT_EQ(fieldsOf(data), hex(expected));
}

}  // namespace
}  // namespace kel
