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

TEST(Log, ALineStaysOneLineWhateverIsInIt) {
  const auto said = [](std::string_view what) {
    ::testing::internal::CaptureStderr();
    log(LogLevel::warn, what);
    const std::string line = ::testing::internal::GetCapturedStderr();
    return line.substr(line.find(" kel warn ") + 10);
  };
  EXPECT_EQ(said(std::string_view("%n{}\n\x1b[31m\x7f\0x", 13)), "%n{}\\x0A\\x1B[31m\\x7F\\x00x\n");
  EXPECT_EQ(said("gr\u00fc\u00df \u20ac"), "gr\u00fc\u00df \u20ac\n");
  EXPECT_EQ(said("\u009b31m"), "\\xC2\\x9B31m\n") << "a control character of Unicode";
  EXPECT_EQ(said("\x9b \xc3("), "\\x9B \\xC3(\n");
}

}  // namespace
}  // namespace kel
