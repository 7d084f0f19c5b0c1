// The filter of the log, and trouble that repeats.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <string>
#include <utility>

#include "log/Log.h"
#include "store/StoreFactory.h"

namespace pvss::log {
namespace {

TEST(Log, TheFilterGivesEachRoomItsLevel) {
  EXPECT_EQ(levelFor("pvss", ""), Level::info);
  EXPECT_EQ(levelFor("pvss", "warn"), Level::warn);
  EXPECT_EQ(levelFor("pvss", "off"), Level::off);
  EXPECT_EQ(levelFor("pvss", "warn,pvss=debug"), Level::debug);
  EXPECT_EQ(levelFor("pvss", "pvss=debug,warn"), Level::debug);
  EXPECT_EQ(levelFor("store", "warn,pvss=debug"), Level::warn);
  EXPECT_EQ(levelFor("pvss", "nonsense"), Level::info);
  EXPECT_EQ(levelFor("pvss", "error,pvss=nonsense"), Level::error);
}

TEST(Log, ALineHasTimeRoomLevelAndWhat) {
  ::testing::internal::CaptureStderr();
  warn("store", "{} of {}", 1, "two");
  debug("store", "not shown");
  EXPECT_THAT(::testing::internal::GetCapturedStderr(),
              ::testing::MatchesRegex("[0-9]+:[0-9]+:[0-9]+.[0-9]+ store warning 1 of two\n"));
}

TEST(Log, ALineStaysOneLineWhateverIsInIt) {
  ::testing::internal::CaptureStderr();
  warn("store", "{}", std::string("%n{}\n\x1b[31m\x7f\0x", 13));
  EXPECT_THAT(::testing::internal::GetCapturedStderr(),
              ::testing::EndsWith("warning %n{}\\x0A\\x1B[31m\\x7F\\x00x\n"));
  EXPECT_EQ(oneLine("gr\u00fc\u00df \u20ac \U0001f600"), "gr\u00fc\u00df \u20ac \U0001f600");
  EXPECT_EQ(oneLine("\u009b31m"), "\\xC2\\x9B31m") << "a control character of Unicode";
  EXPECT_EQ(oneLine("\x9b \xc3( \xe2\x82"), "\\x9B \\xC3( \\xE2\\x82");
  EXPECT_EQ(oneLine("\xed\xa0\x80 \xc0\x80"), "\\xED\\xA0\\x80 \\xC0\\x80");
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
  for (int i = 0; i < lines; ++i) warn("store", "line {} of many", i);
  warn("store", "the last one");
  const std::string seen = error.readUpTo("the last one\n");
  EXPECT_EQ(std::count(seen.begin(), seen.end(), '\n'), lines + 1);
  EXPECT_NE(seen.find("line 3999 of many\n"), std::string::npos);
}

TEST(Log, AReaderWhoHasGoneEndsNobodyAndTheLinesAreCounted) {
  {
    PipeAsError error;
    error.closeReader();
    warn("store", "to nobody");
    warn("store", "to nobody");
  }
  ::testing::internal::CaptureStderr();
  warn("store", "heard");
  const std::string said = ::testing::internal::GetCapturedStderr();
  EXPECT_THAT(said, ::testing::MatchesRegex("[0-9:.]+ log warning 2 lines could not be written to standard "
                                            "error\n[0-9:.]+ store warning heard\n"));
}

TEST(Repeated, TellsAtOnceThenOnceAMinuteWithTheCount) {
  Repeated repeated;
  const Repeated::TimePoint start{};
  EXPECT_EQ(repeated.count(3, start), 3U);
  EXPECT_EQ(repeated.count(2, start + std::chrono::seconds(10)), 0U);
  EXPECT_EQ(repeated.count(5, start + std::chrono::seconds(59)), 0U);
  EXPECT_EQ(repeated.count(1, start + std::chrono::seconds(60)), 8U);
  EXPECT_EQ(repeated.count(0, start + std::chrono::hours(1)), 0U);
}

TEST(StoreFactory, SecretsInAnAddressAreNotShown) {
  EXPECT_EQ(withoutSecrets("redis://host:6379"), "redis://host:6379");
  EXPECT_EQ(withoutSecrets("redis://user:p@ss@host:6379/1?passfile=x"), "redis://host:6379/1");
  EXPECT_EQ(withoutSecrets("redis+unix:///a@b/redis.sock"), "redis+unix:///a@b/redis.sock");
  EXPECT_EQ(withoutSecrets("memory:plant.yaml"), "memory:plant.yaml");
}

}  // namespace
}  // namespace pvss::log
