#include "Log.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <string>
#include <utility>

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

/// Standard error into a pipe for as long as this lives.
class PipeAsError {
 public:
  PipeAsError() {
    EXPECT_EQ(::pipe(ends_.data()), 0);
    before_ = ::dup(STDERR_FILENO);
    ::dup2(ends_[1], STDERR_FILENO);
    ::close(ends_[1]);
  }
  ~PipeAsError() {
    ::dup2(before_, STDERR_FILENO);
    ::close(before_);
    closeReader();
  }
  PipeAsError(const PipeAsError&) = delete;
  PipeAsError& operator=(const PipeAsError&) = delete;

  void closeReader() {
    if (ends_[0] >= 0) ::close(std::exchange(ends_[0], -1));
  }
  [[nodiscard]] std::string readUpTo(const std::string& end) const {
    std::string seen;
    std::array<char, 4096> some{};
    while (!seen.ends_with(end)) {
      const ssize_t count = ::read(ends_[0], some.data(), some.size());
      if (count <= 0) return seen + "<end>";
      seen.append(some.data(), static_cast<std::size_t>(count));
    }
    return seen;
  }

 private:
  std::array<int, 2> ends_{};
  int before_ = -1;
};

TEST(Log, AReaderWhoDoesNotReadStopsNobodyAndGetsEveryLineLater) {
  constexpr int lines = 4000;  // more than a pipe holds
  const PipeAsError error;
  for (int i = 0; i < lines; ++i) log(LogLevel::warn, "line " + std::to_string(i) + " of many");
  log(LogLevel::warn, "the last one");
  const std::string seen = error.readUpTo("the last one\n");
  EXPECT_EQ(std::count(seen.begin(), seen.end(), '\n'), lines + 1);
  EXPECT_NE(seen.find("line 3999 of many\n"), std::string::npos);
}

TEST(Log, AReaderWhoHasGoneEndsNobodyAndTheLinesAreCounted) {
  {
    PipeAsError error;
    error.closeReader();
    log(LogLevel::warn, "to nobody");
    log(LogLevel::warn, "to nobody");
  }
  ::testing::internal::CaptureStderr();
  log(LogLevel::warn, "heard");
  const std::string said = ::testing::internal::GetCapturedStderr();
  EXPECT_THAT(said, ::testing::MatchesRegex("[0-9TZ:.-]+ kel warn 2 lines could not be written to standard "
                                            "error\n[0-9TZ:.-]+ kel warn heard\n"));
}

}  // namespace
}  // namespace kel
