// Holds what the tool says before anything runs against the tables by which the gateway decides.
#include "Pairs.h"

#include <gtest/gtest.h>

#include "PVSS_KEL_TypeMap.h"

namespace kelgw {
namespace {

bool gatewayConverts(int kelType, int elementType) {
  try {
    return TMap::findKelToDpeConverterFor(kelType, elementType) != nullptr;
  } catch (const BadTypeConversionException&) {
    return false;
  }
}

TEST(Pairs, AgreeWithTheGatewayForEveryPair) {
  int converted = 0;
  for (int kelType = -1; kelType <= 100; ++kelType) {
    for (int elementType = 0; elementType <= 40; ++elementType) {
      const bool converts = gatewayConverts(kelType, elementType);
      EXPECT_EQ(kelFeeds(kelType, static_cast<DpElementType>(elementType)), converts)
          << kelType << " into " << elementType;
      converted += converts ? 1 : 0;
    }
  }
  EXPECT_EQ(converted, 16);
}

}  // namespace
}  // namespace kelgw
