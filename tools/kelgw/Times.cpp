#include "Times.h"

#include <fmt/format.h>

#include <chrono>

#include "Datum.h"

namespace kelgw {
namespace {

std::string showSecond(std::int64_t secondsSinceEpoch) {
  using namespace std::chrono;
  const sys_seconds when{seconds{secondsSinceEpoch}};
  const auto day = floor<days>(when);
  const year_month_day date{day};
  const hh_mm_ss clock{when - day};
  return fmt::format("{:04}-{:02}-{:02}T{:02}:{:02}:{:02}", static_cast<int>(date.year()),
                     static_cast<unsigned>(date.month()), static_cast<unsigned>(date.day()),
                     clock.hours().count(), clock.minutes().count(), clock.seconds().count());
}

std::int64_t floorDivide(std::int64_t value, std::int64_t by) {
  return value / by - (value % by < 0 ? 1 : 0);
}

/// Takes exactly `digits` decimal digits from the front.
std::int64_t takeNumber(std::string_view& text, std::size_t digits) {
  std::int64_t number = 0;
  if (text.size() < digits) {
    throw DatumError("too short");
  }
  for (std::size_t index = 0; index < digits; ++index) {
    if (text[index] < '0' || text[index] > '9') {
      throw DatumError("no digit");
    }
    number = number * 10 + (text[index] - '0');
  }
  text.remove_prefix(digits);
  return number;
}

void take(std::string_view& text, std::string_view oneOf) {
  if (text.empty() || oneOf.find(text.front()) == std::string_view::npos) {
    throw DatumError("unexpected character");
  }
  text.remove_prefix(1);
}

std::int64_t parseCalendar(std::string_view text) {
  using namespace std::chrono;
  const auto yearNumber = static_cast<int>(takeNumber(text, 4));
  take(text, "-");
  const auto monthNumber = static_cast<unsigned>(takeNumber(text, 2));
  take(text, "-");
  const auto dayNumber = static_cast<unsigned>(takeNumber(text, 2));
  const year_month_day date{year{yearNumber}, month{monthNumber}, day{dayNumber}};
  std::int64_t ms = 0;
  if (!text.empty()) {
    take(text, "T ");
    const std::int64_t hour = takeNumber(text, 2);
    take(text, ":");
    const std::int64_t minute = takeNumber(text, 2);
    take(text, ":");
    const std::int64_t second = takeNumber(text, 2);
    if (hour > 23 || minute > 59 || second > 59) {
      throw DatumError("no such time of day");
    }
    ms = ((hour * 60 + minute) * 60 + second) * 1000;
    if (text.starts_with(".")) {
      take(text, ".");
      std::int64_t scale = 100;
      do {
        ms += takeNumber(text, 1) * scale;
        scale /= 10;
      } while (!text.empty() && text.front() != 'Z');
    }
    if (text == "Z") {
      text.remove_prefix(1);
    }
  }
  if (!date.ok() || !text.empty()) {
    throw DatumError("no such date");
  }
  return std::int64_t{sys_days{date}.time_since_epoch().count()} * 86'400'000 + ms;
}

}  // namespace

std::string showTimeMs(std::int64_t milliseconds) {
  if (milliseconds == 0) {
    return "-";
  }
  const std::int64_t second = floorDivide(milliseconds, 1000);
  return fmt::format("{}.{:03}Z", showSecond(second), milliseconds - second * 1000);
}

std::string showTimeNs(std::int64_t nanoseconds) {
  if (nanoseconds == 0) {
    return "-";
  }
  const std::int64_t second = floorDivide(nanoseconds, 1'000'000'000);
  const std::int64_t rest = nanoseconds - second * 1'000'000'000;
  if (rest % 1'000'000 == 0) {
    return fmt::format("{}.{:03}Z", showSecond(second), rest / 1'000'000);
  }
  if (rest % 1000 == 0) {
    return fmt::format("{}.{:06}Z", showSecond(second), rest / 1000);
  }
  return fmt::format("{}.{:09}Z", showSecond(second), rest);
}

std::int64_t parseTimeMs(std::string_view text, std::int64_t nowMs) {
  if (text == "now") {
    return nowMs;
  }
  try {
    return parseWhole(text, INT64_MIN, INT64_MAX);
  } catch (const DatumError&) {
    try {
      return parseCalendar(text);
    } catch (const DatumError&) {
      throw DatumError(
          fmt::format("\"{}\" is no time: write now, milliseconds since 1970 or 2026-03-01T12:00:00.250Z",
                      escapeText(text)));
    }
  }
}

std::int64_t nowMs() {
  using namespace std::chrono;
  return duration_cast<milliseconds>(system_clock::now().time_since_epoch()).count();
}

std::string showSpanMs(std::int64_t milliseconds) {
  const std::int64_t seconds = milliseconds / 1000;
  if (seconds < 10) {
    return fmt::format("{}.{}s", seconds, milliseconds % 1000 / 100);
  }
  if (seconds < 60) {
    return fmt::format("{}s", seconds);
  }
  if (seconds < 3600) {
    return fmt::format("{}m {}s", seconds / 60, seconds % 60);
  }
  if (seconds < 86'400) {
    return fmt::format("{}h {}m", seconds / 3600, seconds / 60 % 60);
  }
  return fmt::format("{}d {}h", seconds / 86'400, seconds / 3600 % 24);
}

}  // namespace kelgw
