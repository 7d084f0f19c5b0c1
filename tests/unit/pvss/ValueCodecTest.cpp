// The text form of values.
#include <gtest/gtest.h>

#include <bit>
#include <limits>
#include <random>

#include "pvss/DynVar.h"
#include "store/ValueCodec.h"

namespace pvss {
namespace {

std::string formOf(DpElementType type, std::string_view text) {
  std::string error;
  const SharedValue value = parseValueText(type, text, error);
  return value ? valueText(*value) : "error: " + error;
}

bool refused(DpElementType type, std::string_view text) {
  std::string error;
  const bool none = parseValueText(type, text, error) == nullptr;
  EXPECT_EQ(none, !error.empty());
  return none;
}

template <class Var, class Value>
SharedValue array(VariableType type, std::initializer_list<Value> values) {
  auto result = std::make_shared<DynVar>(type);
  for (const auto& value : values) {
    result->append(Var(value));
  }
  return result;
}

TEST(ValueCodec, EveryTypeHasItsForm) {
  EXPECT_EQ(valueText(BitVar(true)), "1");
  EXPECT_EQ(valueText(BitVar(false)), "0");
  EXPECT_EQ(valueText(CharVar('A')), "65");
  EXPECT_EQ(valueText(CharVar('\xff')), "255");
  EXPECT_EQ(valueText(IntegerVar(std::numeric_limits<std::int32_t>::min())), "-2147483648");
  EXPECT_EQ(valueText(UIntegerVar(4294967295U)), "4294967295");
  EXPECT_EQ(valueText(Bit32Var(0x80000000U)), "2147483648");
  EXPECT_EQ(valueText(FloatVar(0.1)), "0.1");
  EXPECT_EQ(valueText(FloatVar(1e300)), "1e+300");
  EXPECT_EQ(valueText(FloatVar(-0.0)), "-0");
  EXPECT_EQ(valueText(FloatVar(-std::numeric_limits<double>::quiet_NaN())), "nan");
  EXPECT_EQ(valueText(FloatVar(std::numeric_limits<double>::infinity())), "inf");
  EXPECT_EQ(valueText(FloatVar(-std::numeric_limits<double>::infinity())), "-inf");
  EXPECT_EQ(valueText(TextVar("a,\n\x1a")), "a,\n\x1a");
  EXPECT_EQ(valueText(*array<IntegerVar, int>(INTEGER_VAR, {1, -2, 3})), "1,-2,3");
  EXPECT_EQ(valueText(*array<FloatVar, double>(FLOAT_VAR, {})), "");
  EXPECT_EQ(valueText(*array<TextVar, const char*>(TEXT_VAR, {"hello", "", "abc"})), "5:hello0:3:abc");
}

TEST(ValueCodec, ATypeWithoutFormGivesNothing) {
  std::string text = "kept";
  EXPECT_FALSE(appendValueText(DynVar(TIME_VAR), text));
  EXPECT_EQ(text, "kept");
  EXPECT_TRUE(refused(DPELEMENT_NOELEMENT, "1"));
  EXPECT_TRUE(refused(DPELEMENT_TIME, "1"));
}

TEST(ValueCodec, FormsReadBack) {
  EXPECT_EQ(formOf(DPELEMENT_BIT, "1"), "1");
  EXPECT_EQ(formOf(DPELEMENT_CHAR, "255"), "255");
  EXPECT_EQ(formOf(DPELEMENT_INT, "-2147483648"), "-2147483648");
  EXPECT_EQ(formOf(DPELEMENT_UINT, "4294967295"), "4294967295");
  EXPECT_EQ(formOf(DPELEMENT_FLOAT, "-inf"), "-inf");
  EXPECT_EQ(formOf(DPELEMENT_FLOAT, "nan"), "nan");
  EXPECT_EQ(formOf(DPELEMENT_DYNBIT, ""), "");
  EXPECT_EQ(formOf(DPELEMENT_DYNBIT, "1,0"), "1,0");
  EXPECT_EQ(formOf(DPELEMENT_DYNTEXT, "0:"), "0:");
  EXPECT_EQ(formOf(DPELEMENT_DYNTEXT, "3:5:a1:b"), "3:5:a1:b");
}

TEST(ValueCodec, WhatIsNoValueIsRefused) {
  for (const char* text : {"", "2", "true", "01", " 1"}) {
    EXPECT_TRUE(refused(DPELEMENT_BIT, text)) << text;
  }
  for (const char* text : {"", "-1", "256", "A"}) {
    EXPECT_TRUE(refused(DPELEMENT_CHAR, text)) << text;
  }
  for (const char* text : {"", "2147483648", "1.0", "1 ", "+1", "0x1"}) {
    EXPECT_TRUE(refused(DPELEMENT_INT, text)) << text;
  }
  for (const char* text : {"", "-1", "4294967296"}) {
    EXPECT_TRUE(refused(DPELEMENT_UINT, text)) << text;
    EXPECT_TRUE(refused(DPELEMENT_32BIT, text)) << text;
  }
  for (const char* text : {"", "1e999", "one", "1,5"}) {
    EXPECT_TRUE(refused(DPELEMENT_FLOAT, text)) << text;
  }
  for (const char* text : {",", "1,", ",1", "1,,2", "1;2"}) {
    EXPECT_TRUE(refused(DPELEMENT_DYNINT, text)) << text;
  }
  for (const char* text : {"5", "5:", "2:a", ":a", "-1:a", "99999999999999999999:a", "1:ab"}) {
    EXPECT_TRUE(refused(DPELEMENT_DYNTEXT, text)) << text;
  }
  EXPECT_TRUE(refused(DPELEMENT_TEXT, std::string_view("a\0b", 3)));
  EXPECT_TRUE(refused(DPELEMENT_DYNTEXT, std::string_view("1:\0", 3)));
}

TEST(ValueCodec, EveryDoubleReadsBackAsItself) {
  std::mt19937_64 random(42);
  for (int round = 0; round < 20000; ++round) {
    const auto number = std::bit_cast<double>(random());
    std::string error;
    const SharedValue back = parseValueText(DPELEMENT_FLOAT, valueText(FloatVar(number)), error);
    ASSERT_TRUE(back) << error;
    ASSERT_TRUE(sameValue(*back, FloatVar(number))) << number;
  }
}

TEST(ValueCodec, ArbitraryBytesAreReadOrRefusedButNeverMisread) {
  std::mt19937 random(7);
  const std::string alphabet = "0123456789:,.-eainf\x01\xff";
  for (int round = 0; round < 50000; ++round) {
    std::string text;
    for (std::size_t length = random() % 12; length > 0; --length) {
      text += alphabet[random() % alphabet.size()];
    }
    for (int type = 0; type <= 26; ++type) {
      const auto element = static_cast<DpElementType>(type);
      std::string error;
      const SharedValue value = parseValueText(element, text, error);
      if (!value) {
        ASSERT_FALSE(error.empty());
        continue;
      }
      ASSERT_EQ(value->isA(), variableTypeOf(element));
      const SharedValue again = parseValueText(element, valueText(*value), error);
      ASSERT_TRUE(again && sameValue(*value, *again)) << text;
    }
  }
}

}  // namespace
}  // namespace pvss
