#include <gtest/gtest.h>
#include <sched.h>
#include <unistd.h>

#include <array>
#include <cstdio>
#include <sstream>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "platformDependant.h"

namespace {

constexpr runtime::Report<const char*, const char*> twoTexts{"Unit", 92, "DPE %s has bad driver id %s\n"};
constexpr runtime::Report<> noArgument{"Unit", 17, "var is null\n"};
constexpr runtime::Report<int> number{"Unit", 73, "Can not find converter (%d)\n"};
constexpr runtime::Notice<const char*> plain{"Unit", "Created subscription to %s\n"};

static_assert(runtime::textFits<const char*>("a %s b"));
static_assert(runtime::textFits<unsigned long>("%lu dpe's"));
static_assert(runtime::textFits<>("nothing"));
static_assert(!runtime::textFits<const char*>("a %d b"));
static_assert(!runtime::textFits<const char*>("a %s %s"));
static_assert(!runtime::textFits<const char*, const char*>("a %s"));
static_assert(!runtime::textFits<int>("%lu"));
static_assert(!runtime::textFits<>("%s"));

template <typename Action>
std::string printedBy(Action action) {
  testing::internal::CaptureStdout();
  action();
  return testing::internal::GetCapturedStdout();
}

TEST(Report, namesUnitAndNumberBeforeTheText) {
  EXPECT_EQ(printedBy([] { runtime::report(twoTexts, "A.b", "kel"); }),
            "ERROR: Unit 92 DPE A.b has bad driver id kel\n");
  EXPECT_EQ(printedBy([] { runtime::report(noArgument); }), "ERROR: Unit 17 var is null\n");
  EXPECT_EQ(printedBy([] { runtime::report(number, 2); }), "ERROR: Unit 73 Can not find converter (2)\n");
}

TEST(Report, noticeIsPlain) {
  EXPECT_EQ(printedBy([] { runtime::inform(plain, "P"); }), "Created subscription to P\n");
}

TEST(Report, noticeMayBeOfOneCharacterOrNone) {
  constexpr runtime::Notice<> newLine{"Unit", "\n"};
  constexpr runtime::Notice<> nothing{"Unit", ""};
  EXPECT_EQ(printedBy([&newLine] { runtime::inform(newLine); }), "\n");
  EXPECT_EQ(printedBy([&nothing] { runtime::inform(nothing); }), "");
}

TEST(Report, argumentsAreNotTakenForTexts) {
  EXPECT_EQ(printedBy([] { runtime::inform(plain, "%s%n"); }), "Created subscription to %s%n\n");
}

TEST(Report, longTextsArriveWhole) {
  const std::string name(200'000, 'x');
  EXPECT_EQ(printedBy([&name] { runtime::inform(plain, name.c_str()); }),
            "Created subscription to " + name + "\n");
}

TEST(Report, keepsItsPlaceAmongOtherOutput) {
  EXPECT_EQ(printedBy([] {
              std::fputs("before\n", stdout);
              runtime::report(noArgument);
              std::fputs("after\n", stdout);
            }),
            "before\nERROR: Unit 17 var is null\nafter\n");
}

/// A pipe as standard output for as long as this lives.
class PipeAsOutput {
 public:
  PipeAsOutput() {
    EXPECT_EQ(pipe(ends_.data()), 0);
    std::fflush(stdout);
    before_ = dup(STDOUT_FILENO);
    dup2(ends_[1], STDOUT_FILENO);
    close(ends_[1]);
  }
  ~PipeAsOutput() {
    dup2(before_, STDOUT_FILENO);
    close(before_);
    closeReader();
  }
  PipeAsOutput(const PipeAsOutput&) = delete;
  PipeAsOutput& operator=(const PipeAsOutput&) = delete;

  void closeReader() {
    if (ends_[0] >= 0) {
      close(std::exchange(ends_[0], -1));
    }
  }
  [[nodiscard]] std::string read(std::size_t size) const {
    std::string seen(size, ' ');
    std::size_t done = 0;
    while (done < size) {
      const ssize_t count = ::read(ends_[0], seen.data() + done, size - done);
      if (count <= 0) {
        break;
      }
      done += static_cast<std::size_t>(count);
    }
    seen.resize(done);
    return seen;
  }

 private:
  std::array<int, 2> ends_{};
  int before_ = -1;
};

const std::string noArgumentLine = "ERROR: Unit 17 var is null\n";

TEST(Report, isVisibleAtOnceInAPipe) {
  const PipeAsOutput output;
  runtime::report(noArgument);
  EXPECT_EQ(output.read(noArgumentLine.size()), noArgumentLine);
}

TEST(Report, returnsThoughNobodyReadsAndIsReadLater) {
  constexpr int lines = 5000;  // twice what a pipe holds
  const PipeAsOutput output;
  for (int i = 0; i < lines; ++i) {
    runtime::report(noArgument);
  }
  std::string expected;
  for (int i = 0; i < lines; ++i) {
    expected += noArgumentLine;
  }
  EXPECT_EQ(output.read(expected.size()), expected);
}

TEST(Report, doesNotEndTheProcessWhenTheReaderHasGoneAndIsCounted) {
  {
    PipeAsOutput output;
    output.closeReader();
    runtime::report(noArgument);
    runtime::inform(plain, "P");
  }
  EXPECT_EQ(printedBy([] { runtime::report(noArgument); }),
            "2 lines could not be written to standard output\n" + noArgumentLine);
}

std::string nameOfThread(int t) {
  return std::string(static_cast<std::size_t>(50 + 100 * t), static_cast<char>('a' + t));
}

TEST(Report, threadsDoNotTearEachOthersLines) {
  constexpr int threads = 4;
  constexpr int lines = 500;
  const std::string output = printedBy([] {
    std::vector<std::thread> writers;
    writers.reserve(threads);
    for (int t = 0; t < threads; ++t) {
      writers.emplace_back([t] {
        const std::string name = nameOfThread(t);
        for (int i = 0; i < lines; ++i) {
          runtime::report(twoTexts, name.c_str(), name.c_str());
        }
      });
    }
    for (std::thread& writer : writers) {
      writer.join();
    }
  });
  std::array<int, threads> counts{};
  std::istringstream in(output);
  for (std::string line; std::getline(in, line);) {
    bool whole = false;
    for (int t = 0; t < threads; ++t) {
      std::string expected = "ERROR: Unit 92 DPE ";
      expected.append(nameOfThread(t)).append(" has bad driver id ").append(nameOfThread(t));
      if (line == expected) {
        ++counts[static_cast<std::size_t>(t)];
        whole = true;
      }
    }
    ASSERT_TRUE(whole) << line;
  }
  for (const int count : counts) {
    EXPECT_EQ(count, lines);
  }
}

TEST(RequireDeathTest, brokenInvariantNamesUnitNumberAndText) {
  testing::GTEST_FLAG(death_test_style) = "threadsafe";
  static constexpr runtime::Invariant invariant{"Unit", 71, "dpe.getMapping() != __null"};
  runtime::require(true, invariant);
  EXPECT_DEATH(runtime::require(false, invariant),
               "Unit:71: .*: Assertion `dpe.getMapping\\(\\) != __null' failed");
}

timeb fixedClock() {
  timeb now{};
  now.time = 1234;
  now.millitm = 567;
  return now;
}

TEST(Clock, canBeReplacedAndPutBack) {
  const runtime::WallClock before = runtime::setWallClock(&fixedClock);
  EXPECT_EQ(runtime::wallClockNow().time, 1234);
  EXPECT_EQ(runtime::wallClockNow().millitm, 567);
  EXPECT_EQ(runtime::setWallClock(before), &fixedClock);
  EXPECT_GT(runtime::wallClockNow().time, 1'600'000'000);
}

long long milliseconds(time_t seconds, long fraction) {
  return static_cast<long long>(seconds) * 1000 + fraction;
}

TEST(Clock, isTheSystemsToTheMillisecond) {
  timespec before{};
  timespec after{};
  clock_gettime(CLOCK_REALTIME, &before);
  const timeb now = runtime::wallClockNow();
  clock_gettime(CLOCK_REALTIME, &after);
  EXPECT_GE(milliseconds(now.time, now.millitm), milliseconds(before.tv_sec, before.tv_nsec / 1'000'000));
  EXPECT_LE(milliseconds(now.time, now.millitm), milliseconds(after.tv_sec, after.tv_nsec / 1'000'000));
}

TEST(Clock, nullPutsTheSystemsClockBack) {
  runtime::setWallClock(&fixedClock);
  runtime::setWallClock(nullptr);
  EXPECT_GT(runtime::wallClockNow().time, 1'600'000'000);
  EXPECT_LT(runtime::wallClockNow().millitm, 1000);
}

}  // namespace
