#include <gtest/gtest.h>
#include <pvss/Bit32Var.h>
#include <pvss/BitVar.h>
#include <pvss/CharVar.h>
#include <pvss/DpElementType.h>
#include <pvss/DynVar.h>
#include <pvss/FloatVar.h>
#include <pvss/IntegerVar.h>
#include <pvss/TextVar.h>
#include <pvss/UIntegerVar.h>

#include <array>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <limits>
#include <memory>
#include <string>

#include "Gateway.h"
#include "PVSS_KEL_TypeMap.h"

namespace {

using gateway_test::describe;

// --- Kel to PVSS

std::unique_ptr<Variable> converted(int kelType, int dpeType, KelData& data, const std::string& tag = "t") {
  return std::unique_ptr<Variable>(
      TMap::findKelToDpeConverterFor(kelType, dpeType)->getConverter().convert(tag, data));
}

template <typename Value>
std::string scalar(int kelType, int dpeType, Value value) {
  KelData data;
  data.insert(value, "t");
  EXPECT_EQ(data.getValueType("t"), kelType);
  return describe(converted(kelType, dpeType, data).get());
}

template <typename Value, std::size_t count>
std::string array(int kelType, int dpeType, const std::array<Value, count>& values) {
  KelData data;
  data.insert(values.data(), static_cast<int>(count), "t");
  EXPECT_EQ(data.getValueType("t"), kelType);
  return describe(converted(kelType, dpeType, data).get());
}

TEST(KelToPvss, boolean) {
  EXPECT_EQ(scalar(1, DPELEMENT_BIT, true), "bit 1");
  EXPECT_EQ(scalar(1, DPELEMENT_BIT, false), "bit 0");
  EXPECT_EQ(array(10, DPELEMENT_DYNBIT, std::array{true, false, true}), "dyn [bit 1, bit 0, bit 1]");
}

TEST(KelToPvss, byteIsZeroExtended) {
  EXPECT_EQ(scalar(2, DPELEMENT_32BIT, static_cast<unsigned char>(0xFF)), "bit32 255");
  EXPECT_EQ(array(20, DPELEMENT_DYN32BIT, std::array<unsigned char, 3>{0, 127, 255}),
            "dyn [bit32 0, bit32 127, bit32 255]");
}

TEST(KelToPvss, shortIsSignExtended) {
  EXPECT_EQ(scalar(3, DPELEMENT_INT, static_cast<short>(-1)), "int -1");
  EXPECT_EQ(array(30, DPELEMENT_DYNINT, std::array<short, 3>{-32768, 0, 32767}),
            "dyn [int -32768, int 0, int 32767]");
}

TEST(KelToPvss, intIsCopied) {
  EXPECT_EQ(scalar(4, DPELEMENT_INT, std::numeric_limits<int>::min()), "int -2147483648");
  EXPECT_EQ(array(40, DPELEMENT_DYNINT, std::array{1, -2, std::numeric_limits<int>::max()}),
            "dyn [int 1, int -2, int 2147483647]");
}

TEST(KelToPvss, longKeepsItsLowThirtyTwoBits) {
  EXPECT_EQ(scalar(5, DPELEMENT_INT, (std::int64_t{1} << 32) + 5), "int 5");
  EXPECT_EQ(scalar(5, DPELEMENT_INT, std::int64_t{-1}), "int -1");
  EXPECT_EQ(scalar(5, DPELEMENT_INT, std::int64_t{1} << 31), "int -2147483648");
  EXPECT_EQ(array(50, DPELEMENT_DYNINT,
                  std::array<std::int64_t, 3>{(std::int64_t{1} << 32) + 5, -1, std::int64_t{1} << 31}),
            "dyn [int 5, int -1, int -2147483648]");
}

TEST(KelToPvss, floatIsWidened) {
  KelData data;
  data.insert(0.1F, "t");
  const auto value = converted(6, DPELEMENT_FLOAT, data);
  EXPECT_EQ(static_cast<const FloatVar&>(*value).getValue(), static_cast<double>(0.1F));
  EXPECT_NE(static_cast<const FloatVar&>(*value).getValue(), 0.1);
  EXPECT_EQ(array(60, DPELEMENT_DYNFLOAT, std::array{0.5F, -2.0F}), "dyn [float 0.5, float -2]");
}

TEST(KelToPvss, doubleIsCopied) {
  EXPECT_EQ(scalar(7, DPELEMENT_FLOAT, 0.1), "float 0.10000000000000001");
  EXPECT_EQ(scalar(7, DPELEMENT_FLOAT, std::numeric_limits<double>::infinity()), "float inf");
  KelData data;
  data.insert(std::nan(""), "t");
  EXPECT_TRUE(std::isnan(static_cast<const FloatVar&>(*converted(7, DPELEMENT_FLOAT, data)).getValue()));
  EXPECT_EQ(array(70, DPELEMENT_DYNFLOAT, std::array{0.1, 1e300}),
            "dyn [float 0.10000000000000001, float 1.0000000000000001e+300]");
}

TEST(KelToPvss, stringIsCopied) {
  EXPECT_EQ(scalar(8, DPELEMENT_TEXT, "hello"), "text hello");
  EXPECT_EQ(scalar(8, DPELEMENT_TEXT, ""), "text ");
  EXPECT_EQ(array(80, DPELEMENT_DYNTEXT, std::array{"a", "", "b"}), "dyn [text a, text , text b]");
}

TEST(KelToPvss, emptyArrayKeepsItsElementType) {
  const auto typeOf = [](int kelType, int dpeType, auto* none) {
    KelData data;
    data.insert(none, 0, "t");
    const auto value = converted(kelType, dpeType, data);
    EXPECT_EQ(static_cast<const DynVar&>(*value).getNumberOfItems(), 0U);
    return value->isA();
  };
  EXPECT_EQ(typeOf(10, DPELEMENT_DYNBIT, static_cast<const bool*>(nullptr)), DYNBIT_VAR);
  EXPECT_EQ(typeOf(20, DPELEMENT_DYN32BIT, static_cast<const unsigned char*>(nullptr)), DYNBIT32_VAR);
  EXPECT_EQ(typeOf(30, DPELEMENT_DYNINT, static_cast<const short*>(nullptr)), DYNINTEGER_VAR);
  EXPECT_EQ(typeOf(40, DPELEMENT_DYNINT, static_cast<const int*>(nullptr)), DYNINTEGER_VAR);
  EXPECT_EQ(typeOf(50, DPELEMENT_DYNINT, static_cast<const std::int64_t*>(nullptr)), DYNINTEGER_VAR);
  EXPECT_EQ(typeOf(60, DPELEMENT_DYNFLOAT, static_cast<const float*>(nullptr)), DYNFLOAT_VAR);
  EXPECT_EQ(typeOf(70, DPELEMENT_DYNFLOAT, static_cast<const double*>(nullptr)), DYNFLOAT_VAR);
  EXPECT_EQ(typeOf(80, DPELEMENT_DYNTEXT, static_cast<const char* const*>(nullptr)), DYNTEXT_VAR);
}

TEST(KelToPvss, emptyTagIsTheUnnamedValue) {
  KelData data;
  data.insert(1, "t");
  data.insert(2, static_cast<const char*>(nullptr));
  EXPECT_EQ(describe(converted(4, DPELEMENT_INT, data, "").get()), "int 2");
}

TEST(KelToPvss, whatTheRecordThrowsPassesThrough) {
  KelData data;
  data.insert("text", "t");
  EXPECT_THROW(converted(4, DPELEMENT_INT, data), KelException);
  EXPECT_THROW(converted(40, DPELEMENT_DYNINT, data, "absent"), KelException);
}

TEST(KelToPvss, largeArrayArrivesWhole) {
  std::vector<int> values(100'000);
  for (std::size_t i = 0; i < values.size(); ++i) {
    values[i] = static_cast<int>(i);
  }
  KelData data;
  data.insert(values.data(), static_cast<int>(values.size()), "t");
  const auto value = converted(40, DPELEMENT_DYNINT, data);
  const auto& array = static_cast<const DynVar&>(*value);
  ASSERT_EQ(array.getNumberOfItems(), values.size());
  EXPECT_EQ(describe(array.getAt(99'999)), "int 99999");
}

// --- PVSS to Kel

KelData published(int dpeType, Variable* value, const char* tag = "t") {
  KelData data;
  TMap::findDpeToKelConverterFor(dpeType)->convert(data, value, CharString(tag));
  return data;
}

template <typename Var>
KelData published(int dpeType, Var value, const char* tag = "t") {
  return published(dpeType, static_cast<Variable*>(&value), tag);
}

Ereason refusal(int dpeType, Variable* value) {
  KelData data;
  try {
    TMap::findDpeToKelConverterFor(dpeType)->convert(data, value, CharString("t"));
  } catch (const BadTypeConversionException& exception) {
    EXPECT_EQ(data.size(), 0U);
    return exception.reason();
  }
  ADD_FAILURE() << "nothing was thrown";
  return UNSUPPORTEDTYPE;
}

template <typename Var>
DynVar dyn(VariableType elementType, std::initializer_list<Var> values) {
  DynVar array(elementType);
  for (const Var& value : values) {
    array.append(value);
  }
  return array;
}

TEST(PvssToKel, bit) {
  EXPECT_TRUE(published(DPELEMENT_BIT, BitVar(PVSS_TRUE)).extractBool("t"));
  EXPECT_FALSE(published(DPELEMENT_BIT, BitVar(PVSS_FALSE)).extractBool("t"));
}

TEST(PvssToKel, characterIsATextOfOneCharacter) {
  EXPECT_STREQ(published(DPELEMENT_CHAR, CharVar('A')).extractCString("t"), "A");
  EXPECT_STREQ(published(DPELEMENT_CHAR, CharVar(0)).extractCString("t"), "");
}

TEST(PvssToKel, integerIsCopied) {
  EXPECT_EQ(published(DPELEMENT_INT, IntegerVar(-7)).extractInt("t"), -7);
}

TEST(PvssToKel, patternBecomesASignedInt) {
  EXPECT_EQ(published(DPELEMENT_32BIT, Bit32Var(0xFFFFFFFF)).extractInt("t"), -1);
}

TEST(PvssToKel, unsignedBecomesALong) {
  EXPECT_EQ(published(DPELEMENT_UINT, UIntegerVar(4294967295U)).extractLong("t"), 4294967295);
}

TEST(PvssToKel, floatIsNarrowed) {
  EXPECT_EQ(published(DPELEMENT_FLOAT, FloatVar(0.1)).extractFloat("t"), 0.1F);
  EXPECT_TRUE(std::isnan(published(DPELEMENT_FLOAT, FloatVar(std::nan(""))).extractFloat("t")));
}

TEST(PvssToKel, textIsCopied) {
  EXPECT_STREQ(published(DPELEMENT_TEXT, TextVar("hello")).extractCString("t"), "hello");
  EXPECT_STREQ(published(DPELEMENT_TEXT, TextVar()).extractCString("t"), "");
}

TEST(PvssToKel, arraysAreWrittenInOrder) {
  int count = 0;
  KelData data = published(DPELEMENT_DYNBIT, dyn(BIT_VAR, {BitVar(true), BitVar(false)}));
  const bool* const bits = data.extractBoolArray(count, "t");
  ASSERT_EQ(count, 2);
  EXPECT_TRUE(bits[0]);
  EXPECT_FALSE(bits[1]);

  data = published(DPELEMENT_DYNINT, dyn(INTEGER_VAR, {IntegerVar(1), IntegerVar(-2)}));
  const int* const ints = data.extractIntArray(count, "t");
  ASSERT_EQ(count, 2);
  EXPECT_EQ(ints[0], 1);
  EXPECT_EQ(ints[1], -2);

  data = published(DPELEMENT_DYN32BIT, dyn(BIT32_VAR, {Bit32Var(0xFFFFFFFF), Bit32Var(1)}));
  const int* const patterns = data.extractIntArray(count, "t");
  ASSERT_EQ(count, 2);
  EXPECT_EQ(patterns[0], -1);
  EXPECT_EQ(patterns[1], 1);

  data = published(DPELEMENT_DYNUINT, dyn(UINTEGER_VAR, {UIntegerVar(4294967295U), UIntegerVar(0)}));
  const std::int64_t* const longs = data.extractLongArray(count, "t");
  ASSERT_EQ(count, 2);
  EXPECT_EQ(longs[0], 4294967295);
  EXPECT_EQ(longs[1], 0);

  data = published(DPELEMENT_DYNFLOAT, dyn(FLOAT_VAR, {FloatVar(0.1), FloatVar(-1)}));
  const float* const floats = data.extractFloatArray(count, "t");
  ASSERT_EQ(count, 2);
  EXPECT_EQ(floats[0], 0.1F);
  EXPECT_EQ(floats[1], -1.0F);

  data = published(DPELEMENT_DYNTEXT, dyn(TEXT_VAR, {TextVar("a"), TextVar(), TextVar("c")}));
  const char* const* const texts = data.extractCStringArray(count, "t");
  ASSERT_EQ(count, 3);
  EXPECT_STREQ(texts[0], "a");
  EXPECT_STREQ(texts[1], "");
  EXPECT_STREQ(texts[2], "c");
}

TEST(PvssToKel, charactersOfAnArrayAreTextsOfOneCharacter) {
  int count = 0;
  const KelData data = published(DPELEMENT_DYNCHAR, dyn(CHAR_VAR, {CharVar('A'), CharVar('B')}));
  const char* const* const texts = data.extractCStringArray(count, "t");
  ASSERT_EQ(count, 2);
  EXPECT_STREQ(texts[0], "A");
  EXPECT_STREQ(texts[1], "B");
}

TEST(PvssToKel, emptyArrayIsAFieldOfLengthZero) {
  const auto lengthOf = [](int dpeType, VariableType elementType, int kelType) {
    const KelData data = published(dpeType, DynVar(elementType));
    EXPECT_EQ(data.size(), 1U);
    EXPECT_EQ(data.getValueType("t"), kelType);
  };
  lengthOf(DPELEMENT_DYNBIT, BIT_VAR, 10);
  lengthOf(DPELEMENT_DYNCHAR, CHAR_VAR, 80);
  lengthOf(DPELEMENT_DYNINT, INTEGER_VAR, 40);
  lengthOf(DPELEMENT_DYN32BIT, BIT32_VAR, 40);
  lengthOf(DPELEMENT_DYNUINT, UINTEGER_VAR, 50);
  lengthOf(DPELEMENT_DYNFLOAT, FLOAT_VAR, 60);
  lengthOf(DPELEMENT_DYNTEXT, TEXT_VAR, 80);
  int count = 99;
  EXPECT_NE(published(DPELEMENT_DYNINT, DynVar(INTEGER_VAR)).extractIntArray(count, "t"), nullptr);
  EXPECT_EQ(count, 0);
}

TEST(PvssToKel, missingValueIsRefusedByAll) {
  for (const auto& [type, converter] : TMap::pvssToKelTypeConverterMap) {
    EXPECT_EQ(refusal(type, nullptr), BADTYPE) << type;
  }
}

TEST(PvssToKel, arrayOfAnotherTypeIsRefused) {
  DynVar integers = dyn(INTEGER_VAR, {IntegerVar(1)});
  EXPECT_EQ(refusal(DPELEMENT_DYNFLOAT, &integers), BADTYPE);
  DynVar floats = dyn(FLOAT_VAR, {FloatVar(1)});
  for (const int type : {DPELEMENT_DYNBIT, DPELEMENT_DYNCHAR, DPELEMENT_DYNINT, DPELEMENT_DYN32BIT,
                         DPELEMENT_DYNUINT, DPELEMENT_DYNTEXT}) {
    EXPECT_EQ(refusal(type, &floats), BADTYPE) << type;
  }
  IntegerVar number(1);
  EXPECT_EQ(refusal(DPELEMENT_DYNINT, &number), BADTYPE);
}

TEST(PvssToKel, emptyTagIsTheUnnamedValue) {
  const KelData data = published(DPELEMENT_INT, IntegerVar(5), "");
  EXPECT_EQ(data.extractInt(nullptr), 5);
  EXPECT_EQ(data.size(), 1U);
}

TEST(PvssToKel, whatTheRecordThrowsPassesThrough) {
  const char* const noUtf8 = "\xFF";
  EXPECT_THROW(published(DPELEMENT_INT, IntegerVar(1), noUtf8), KelException);
  EXPECT_THROW(published(DPELEMENT_CHAR, CharVar('c'), noUtf8), KelException);
  EXPECT_THROW(published(DPELEMENT_DYNINT, dyn(INTEGER_VAR, {IntegerVar(1)}), noUtf8), KelException);
}

/// Lets the variable say that it is of another type than it is. The code stands behind the virtual table.
template <typename Var>
Var mislabelled(Var variable) {
  const VariableType other = variable.isA() == BIT_VAR ? TEXT_VAR : BIT_VAR;
  std::memcpy(reinterpret_cast<char*>(&variable) + sizeof(void*), &other, sizeof(other));
  EXPECT_EQ(variable.isA(), other);
  return variable;
}

TEST(PvssToKel, scalarsAreTakenAsTheElementTypeSaysWithoutLookingAtTheirOwn) {
  EXPECT_TRUE(published(DPELEMENT_BIT, mislabelled(BitVar(PVSS_TRUE))).extractBool("t"));
  EXPECT_STREQ(published(DPELEMENT_CHAR, mislabelled(CharVar('A'))).extractCString("t"), "A");
  EXPECT_EQ(published(DPELEMENT_INT, mislabelled(IntegerVar(-7))).extractInt("t"), -7);
  EXPECT_EQ(published(DPELEMENT_32BIT, mislabelled(Bit32Var(7))).extractInt("t"), 7);
  EXPECT_EQ(published(DPELEMENT_UINT, mislabelled(UIntegerVar(7))).extractLong("t"), 7);
  EXPECT_EQ(published(DPELEMENT_FLOAT, mislabelled(FloatVar(0.5))).extractFloat("t"), 0.5F);
  EXPECT_STREQ(published(DPELEMENT_TEXT, mislabelled(TextVar("x"))).extractCString("t"), "x");
}

TEST(PvssToKel, secondValueOfATagReplacesTheFirst) {
  KelData data;
  IntegerVar first(1);
  IntegerVar second(2);
  const CpvssToKelTypeConverter& converter = *TMap::findDpeToKelConverterFor(DPELEMENT_INT);
  converter.convert(data, &first, CharString("t"));
  converter.convert(data, &second, CharString("t"));
  EXPECT_EQ(data.size(), 1U);
  EXPECT_EQ(data.extractInt("t"), 2);
}

}  // namespace
