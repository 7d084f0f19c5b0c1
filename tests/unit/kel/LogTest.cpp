#include "Log.h"

#include <gtest/gtest.h>

namespace kel {
namespace {

TEST(Log, ListensAtTheLevelAskedFor) {
  EXPECT_EQ(logLevelFrom(""), LogLevel::info);
  EXPECT_EQ(logLevelFrom("debug"), LogLevel::debug);
  EXPECT_EQ(logLevelFrom("warn,kel=trace"), LogLevel::trace);
  EXPECT_EQ(logLevelFrom("kel=error,debug"), LogLevel::error);
  EXPECT_EQ(logLevelFrom("pvss=trace"), LogLevel::info);
  EXPECT_EQ(logLevelFrom("kel=loud,off"), LogLevel::off);
}

}  // namespace
}  // namespace kel
