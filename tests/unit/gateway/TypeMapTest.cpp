#include <gtest/gtest.h>
#include <pvss/DpElementType.h>

#include <array>
#include <cstdlib>
#include <utility>
#include <vector>

#include "PVSS_KEL_TypeMap.h"

namespace {

Ereason reasonOf(void (*action)()) {
  try {
    action();
  } catch (const BadTypeConversionException& exception) {
    return exception.reason();
  }
  ADD_FAILURE() << "nothing was thrown";
  return BADTYPE;
}

/// Asks one of the tables before the registry's own unit is initialised: the answer must be there.
struct EarlyLook {
  EarlyLook() {
    try {
      found = std::getenv(otherTable) == nullptr
                  ? TMap::findKelToDpeConverterFor(4, DPELEMENT_INT)->willConvert(4, DPELEMENT_INT)
                  : TMap::findDpeToKelConverterFor(DPELEMENT_CHAR) != nullptr;
    } catch (const BadTypeConversionException&) {
      found = false;
    }
  }
  static constexpr const char* otherTable = "TYPEMAP_TEST_OTHER_TABLE";
  bool found = false;
};
[[gnu::init_priority(101)]] const EarlyLook earlyLook;

TEST(TypeMap, isCompleteBeforeAnybodyLooks) {
  EXPECT_TRUE(earlyLook.found);
}

TEST(TypeMapDeathTest, otherTableIsCompleteBeforeAnybodyLooksToo) {
  testing::GTEST_FLAG(death_test_style) = "threadsafe";  // a process of its own, initialised anew
  setenv(EarlyLook::otherTable, "1", 1);
  EXPECT_EXIT(std::_Exit(earlyLook.found ? 0 : 1), testing::ExitedWithCode(0), "");
  unsetenv(EarlyLook::otherTable);
}

TEST(TypeMap, secondRegistryAddsNothing) {
  const TMap second;
  EXPECT_EQ(TMap::kelToPvsstypeConverterList.size(), 16U);
  EXPECT_EQ(TMap::pvssToKelTypeConverterMap.size(), 14U);
}

TEST(TypeMap, listHasThePairsInTheirOrder) {
  const std::array<std::pair<int, int>, 16> pairs{{{1, DPELEMENT_BIT},
                                                   {2, DPELEMENT_32BIT},
                                                   {3, DPELEMENT_INT},
                                                   {4, DPELEMENT_INT},
                                                   {5, DPELEMENT_INT},
                                                   {6, DPELEMENT_FLOAT},
                                                   {7, DPELEMENT_FLOAT},
                                                   {8, DPELEMENT_TEXT},
                                                   {10, DPELEMENT_DYNBIT},
                                                   {20, DPELEMENT_DYN32BIT},
                                                   {30, DPELEMENT_DYNINT},
                                                   {40, DPELEMENT_DYNINT},
                                                   {50, DPELEMENT_DYNINT},
                                                   {60, DPELEMENT_DYNFLOAT},
                                                   {70, DPELEMENT_DYNFLOAT},
                                                   {80, DPELEMENT_DYNTEXT}}};
  ASSERT_EQ(TMap::kelToPvsstypeConverterList.size(), pairs.size());
  for (std::size_t i = 0; i < pairs.size(); ++i) {
    TConv* const entry = TMap::kelToPvsstypeConverterList[i];
    EXPECT_TRUE(entry->willConvert(pairs[i].first, pairs[i].second)) << i;
    EXPECT_EQ(TMap::findKelToDpeConverterFor(pairs[i].first, pairs[i].second), entry) << i;
  }
}

TEST(TypeMap, everyOtherPairIsUnsupported) {
  int supported = 0;
  for (int kelType = -1; kelType <= 90; ++kelType) {
    for (int dpeType = 0; dpeType <= 60; ++dpeType) {
      try {
        EXPECT_TRUE(TMap::findKelToDpeConverterFor(kelType, dpeType)->willConvert(kelType, dpeType));
        ++supported;
      } catch (const BadTypeConversionException& exception) {
        EXPECT_EQ(exception.reason(), UNSUPPORTEDTYPE);
      }
    }
  }
  EXPECT_EQ(supported, 16);
}

TEST(TypeMap, kelIntGoesIntoIntegersOnly) {
  EXPECT_TRUE(TMap::findKelToDpeConverterFor(4, 21)->willConvert(4, 21));
  EXPECT_EQ(reasonOf([] { static_cast<void>(TMap::findKelToDpeConverterFor(4, 22)); }), UNSUPPORTEDTYPE);
  EXPECT_EQ(reasonOf([] { static_cast<void>(TMap::findKelToDpeConverterFor(9, 25)); }), UNSUPPORTEDTYPE);
}

TEST(TypeMap, kelByteGoesIntoAPattern) {
  EXPECT_TRUE(TMap::findKelToDpeConverterFor(2, 24)->willConvert(2, 24));
  EXPECT_EQ(reasonOf([] { static_cast<void>(TMap::findKelToDpeConverterFor(2, 21)); }), UNSUPPORTEDTYPE);
}

TEST(TypeMap, elementTypeAloneChoosesThePublishingConverter) {
  const std::vector<int> types{DPELEMENT_BIT,      DPELEMENT_CHAR,   DPELEMENT_INT,      DPELEMENT_32BIT,
                               DPELEMENT_UINT,     DPELEMENT_FLOAT,  DPELEMENT_TEXT,     DPELEMENT_DYNBIT,
                               DPELEMENT_DYNCHAR,  DPELEMENT_DYNINT, DPELEMENT_DYN32BIT, DPELEMENT_DYNUINT,
                               DPELEMENT_DYNFLOAT, DPELEMENT_DYNTEXT};
  for (const int type : types) {
    EXPECT_EQ(TMap::findDpeToKelConverterFor(type), TMap::pvssToKelTypeConverterMap.at(type)) << type;
  }
  EXPECT_EQ(reasonOf([] { static_cast<void>(TMap::findDpeToKelConverterFor(26)); }), UNSUPPORTEDTYPE);
  EXPECT_EQ(reasonOf([] { static_cast<void>(TMap::findDpeToKelConverterFor(0)); }), UNSUPPORTEDTYPE);
}

TEST(TypeMap, qualityIsMapped) {
  EXPECT_EQ(TConv::convertKELToPVSSQuality(1), 3);
  EXPECT_EQ(TConv::convertKELToPVSSQuality(2), 1);
  EXPECT_EQ(TConv::convertKELToPVSSQuality(0), 0);
  EXPECT_EQ(TConv::convertKELToPVSSQuality(-1), 0);
  EXPECT_EQ(reasonOf([] { static_cast<void>(TConv::convertKELToPVSSQuality(-2)); }), UNSUPPORTEDTYPE);
  EXPECT_EQ(reasonOf([] { static_cast<void>(TConv::convertKELToPVSSQuality(3)); }), UNSUPPORTEDTYPE);
}

}  // namespace
