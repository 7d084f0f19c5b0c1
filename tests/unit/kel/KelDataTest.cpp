#include <gtest/gtest.h>
#include <kel/KelData.h>
#include <kel/testing/KelDataBuilder.h>

#include <cmath>
#include <limits>
#include <memory>
#include <vector>

namespace {

using kel::testing::setQuality;
using kel::testing::setReason;
using kel::testing::setTimestamp;

template <class Value>
concept isScalar = requires(KelData data, Value value) {
  data.insert(value, "tag");
};

template <class Call>
std::string thrownBy(Call call) {
  try {
    call();
  } catch (const KelException& exception) {
    return exception.what();
  }
  return "nothing thrown";
}

TEST(KelData, IsEmptyAtFirst) {
  const KelData data;
  EXPECT_EQ(data.size(), 0U);
  EXPECT_EQ(data.getValueType("x"), 0);
  EXPECT_EQ(data.getValueType(nullptr), 0);
  EXPECT_EQ(data.getQuality(), 1);
  EXPECT_EQ(data.getTimestamp().timeNanoseconds, 0);
  EXPECT_STREQ(data.getReason(), "");
}

TEST(KelData, GivesBackEveryScalarWithItsType) {
  KelData data;
  data.insert(true, "bool");
  data.insert(static_cast<unsigned char>(255), "byte");
  data.insert(static_cast<short>(-32768), "short");
  data.insert(std::numeric_limits<int>::min(), "int");
  data.insert(std::numeric_limits<std::int64_t>::max(), "long");
  data.insert(std::numeric_limits<long long>::min(), "longlong");
  data.insert(0.1F, "float");
  data.insert(-0.0, "double");
  data.insert("text", "string");
  EXPECT_EQ(data.size(), 9U);
  const char* const tags[] = {"bool",     "byte",  "short",  "int",   "long",
                              "longlong", "float", "double", "string"};
  const int types[] = {1, 2, 3, 4, 5, 5, 6, 7, 8};
  for (std::size_t i = 0; i < 9; ++i) EXPECT_EQ(data.getValueType(tags[i]), types[i]) << tags[i];
  EXPECT_TRUE(data.extractBool("bool"));
  EXPECT_EQ(data.extractByte("byte"), 255);
  EXPECT_EQ(data.extractShort("short"), -32768);
  EXPECT_EQ(data.extractInt("int"), std::numeric_limits<int>::min());
  EXPECT_EQ(data.extractLong("long"), std::numeric_limits<std::int64_t>::max());
  EXPECT_EQ(data.extractLong("longlong"), std::numeric_limits<std::int64_t>::min());
  EXPECT_EQ(data.extractFloat("float"), 0.1F);
  EXPECT_TRUE(std::signbit(data.extractDouble("double")));
  EXPECT_STREQ(data.extractCString("string"), "text");
}

TEST(KelData, GivesBackEveryArrayWithItsType) {
  KelData data;
  const bool booleans[] = {true, false, true};
  const unsigned char bytes[] = {0, 255};
  const short shorts[] = {-1, 2};
  const int ints[] = {-1, 2, 3};
  const std::int64_t longs[] = {-1, 1LL << 40};
  const long long longLongs[] = {5};
  const float floats[] = {1.5F, -2.5F};
  const double doubles[] = {1.25};
  const char* texts[] = {"a", "", nullptr, "dd"};
  const std::string strings[] = {"x", std::string("y\0z", 3), ""};
  data.insert(booleans, 3, "bool");
  data.insert(bytes, 2, "byte");
  data.insert(shorts, 2, "short");
  data.insert(ints, 3, "int");
  data.insert(longs, 2, "long");
  data.insert(longLongs, 1, "longlong");
  data.insert(floats, 2, "float");
  data.insert(doubles, 1, "double");
  data.insert(texts, 4, "texts");
  data.insert(strings, 3, "strings");
  int count = 0;
  const bool* gotBooleans = data.extractBoolArray(count, "bool");
  EXPECT_EQ(std::vector<bool>(gotBooleans, gotBooleans + count), (std::vector<bool>{true, false, true}));
  EXPECT_EQ(data.getValueType("bool"), 10);
  const unsigned char* gotBytes = data.extractByteArray(count, "byte");
  EXPECT_EQ(std::vector<int>(gotBytes, gotBytes + count), (std::vector<int>{0, 255}));
  EXPECT_EQ(data.getValueType("byte"), 20);
  const short* gotShorts = data.extractShortArray(count, "short");
  EXPECT_EQ(std::vector<int>(gotShorts, gotShorts + count), (std::vector<int>{-1, 2}));
  const int* gotInts = data.extractIntArray(count, "int");
  EXPECT_EQ(std::vector<int>(gotInts, gotInts + count), (std::vector<int>{-1, 2, 3}));
  const std::int64_t* gotLongs = data.extractLongArray(count, "long");
  EXPECT_EQ(std::vector<std::int64_t>(gotLongs, gotLongs + count),
            (std::vector<std::int64_t>{-1, 1LL << 40}));
  EXPECT_EQ(*data.extractLongArray(count, "longlong"), 5);
  const float* gotFloats = data.extractFloatArray(count, "float");
  EXPECT_EQ(std::vector<float>(gotFloats, gotFloats + count), (std::vector<float>{1.5F, -2.5F}));
  EXPECT_EQ(*data.extractDoubleArray(count, "double"), 1.25);
  const char* const* gotTexts = data.extractCStringArray(count, "texts");
  EXPECT_EQ(std::vector<std::string>(gotTexts, gotTexts + count),
            (std::vector<std::string>{"a", "", "", "dd"}));
  const char* const* gotStrings = data.extractCStringArray(count, "strings");
  EXPECT_EQ(std::vector<std::string>(gotStrings, gotStrings + count),
            (std::vector<std::string>{"x", "", ""}));
  EXPECT_EQ(data.getValueType("strings"), 80);
}

TEST(KelData, GivesAPointerAlsoForAnEmptyArray) {
  KelData data;
  data.insert(static_cast<const int*>(nullptr), 0, "a");
  data.insert(static_cast<const double*>(nullptr), -3, "b");
  data.insert(static_cast<const char* const*>(nullptr), 0, "c");
  int count = 7;
  EXPECT_NE(data.extractIntArray(count, "a"), nullptr);
  EXPECT_EQ(count, 0);
  count = 7;
  EXPECT_NE(data.extractDoubleArray(count, "b"), nullptr);
  EXPECT_EQ(count, 0);
  EXPECT_NE(data.extractCStringArray(count, "c"), nullptr);
}

TEST(KelData, TakesAPointerForTextAndNeverForBool) {
  KelData data;
  char buffer[] = {'A', '\0'};
  data.insert(buffer, "char");
  data.insert("", "empty");
  data.insert(static_cast<const char*>(nullptr), "null");
  EXPECT_EQ(data.getValueType("char"), 8);
  EXPECT_STREQ(data.extractCString("empty"), "");
  EXPECT_STREQ(data.extractCString("null"), "");
  static_assert(isScalar<const char*> && isScalar<bool> && isScalar<int>);
  static_assert(!isScalar<int*> && !isScalar<std::string*> && !isScalar<void*>);
}

TEST(KelData, HasOneUnnamedValueUnderNullAndEmptyTag) {
  KelData data;
  data.insert(5, nullptr);
  EXPECT_EQ(data.getValueType(nullptr), 4);
  EXPECT_EQ(data.getValueType(""), 4);
  EXPECT_EQ(data.extractInt(nullptr), 5);
  EXPECT_EQ(data.size(), 1U);
  EXPECT_STREQ(data.fieldName(0), "");
  EXPECT_EQ(data.getValueType("_value"), 0);
}

TEST(KelData, ReplacesAFieldWhateverItsTypeWas) {
  KelData data;
  data.insert("a long text that needs some room", "x");
  data.insert(1, "x");
  EXPECT_EQ(data.size(), 1U);
  EXPECT_EQ(data.extractInt("x"), 1);
  data.insert("short", "x");
  EXPECT_STREQ(data.extractCString("x"), "short");
  const double values[] = {1, 2, 3};
  data.insert(values, 3, "x");
  EXPECT_EQ(data.getValueType("x"), 70);
  EXPECT_EQ(data.size(), 1U);
}

TEST(KelData, DoesNotGrowWithoutEndWhenTextsChange) {
  KelData data;
  for (int i = 0; i < 100'000; ++i) {
    data.insert(std::string(static_cast<std::size_t>(i % 300), 'a' + static_cast<char>(i % 26)).c_str(),
                "text");
    data.insert(i, (i % 2) != 0 ? "text2" : "text3");
    data.insert("back to text", "text2");
  }
  EXPECT_EQ(data.size(), 3U);
  EXPECT_EQ(std::string(data.extractCString("text")).size(), 99'999U % 300U);
  EXPECT_STREQ(data.extractCString("text2"), "back to text");
}

TEST(KelData, FindsEachOfManyFields) {
  KelData data;
  for (int i = 0; i < 5000; ++i) data.insert(i, ("field" + std::to_string(i)).c_str());
  EXPECT_EQ(data.size(), 5000U);
  for (int i = 0; i < 5000; ++i) EXPECT_EQ(data.extractInt(("field" + std::to_string(i)).c_str()), i);
  EXPECT_EQ(data.getValueType("field5000"), 0);
}

TEST(KelData, SaysWhatIsWrongWithAnExtraction) {
  KelData data;
  data.insert(1.5F, "temperature");
  data.insert(1, nullptr);
  EXPECT_EQ(thrownBy([&] { (void)data.extractInt("pressure"); }), "the record has no field pressure");
  EXPECT_EQ(thrownBy([&] { (void)data.extractInt("temperature"); }), "field temperature is float, not int");
  EXPECT_EQ(thrownBy([&] { (void)data.extractCString(nullptr); }), "the unnamed value is int, not string");
  EXPECT_EQ(thrownBy([&] { (void)KelData().extractLong(nullptr); }), "the record has no unnamed value");
  EXPECT_EQ(thrownBy([&] { (void)data.fieldName(2); }), "the record has no field number 2");
}

TEST(KelData, RefusesATagThatCannotBeAName) {
  KelData data;
  EXPECT_EQ(thrownBy([&] { data.insert(1, "\xFF"); }), "the tag of a field is not UTF-8");
  const std::string tooLong(65'001, 'x');
  EXPECT_EQ(thrownBy([&] { data.insert(1, tooLong.c_str()); }),
            "the tag of a field is longer than 65000 bytes");
  EXPECT_EQ(data.size(), 0U);
}

TEST(KelData, CopiesAreIndependent) {
  KelData first;
  first.insert("one", "a");
  const char* texts[] = {"p", "q"};
  first.insert(texts, 2, "list");
  setReason(setTimestamp(setQuality(first, 0), 12), "why");
  KelData second(first);
  first.insert("two", "a");
  EXPECT_STREQ(second.extractCString("a"), "one");
  EXPECT_EQ(second.getQuality(), 0);
  EXPECT_EQ(second.getTimestamp().timeNanoseconds, 12);
  EXPECT_STREQ(second.getReason(), "why");
  int count = 0;
  EXPECT_STREQ(second.extractCStringArray(count, "list")[1], "q");
  KelData third;
  third = second;
  second = KelData();
  EXPECT_EQ(second.size(), 0U);
  EXPECT_STREQ(third.extractCString("a"), "one");
}

}  // namespace
