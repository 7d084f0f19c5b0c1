// Log: the library's lines on standard error: time, room, level, what.
//
// Purpose    One filter for all rooms, from KELGW_LOG: a level (trace, debug, info, warn, error, off), or
//            several parts "level,room=level". Default info.
// Thread     Any. A line is written whole; a reader who does not read holds nobody up for longer than a
//            moment, and lines that could not be written are counted and said.
#pragma once

#include <fmt/core.h>

#include <chrono>
#include <cstdint>
#include <string>
#include <string_view>

namespace pvss::log {

enum class Level : std::uint8_t { trace, debug, info, warn, error, off };

/// Formats and writes a line when the filter lets it through.
void write(std::string_view room, Level level, fmt::string_view format, fmt::format_args arguments);

/// The text without what could end the line or steer a terminal: control characters, those of Unicode too,
/// and bytes that are no UTF-8 are shown by number, as \x1B. Every line goes through it.
[[nodiscard]] std::string oneLine(std::string_view text);

template <class... Args>
void debug(std::string_view room, fmt::format_string<Args...> format, Args&&... arguments) {
  write(room, Level::debug, format, fmt::make_format_args(arguments...));
}
template <class... Args>
void info(std::string_view room, fmt::format_string<Args...> format, Args&&... arguments) {
  write(room, Level::info, format, fmt::make_format_args(arguments...));
}
template <class... Args>
void warn(std::string_view room, fmt::format_string<Args...> format, Args&&... arguments) {
  write(room, Level::warn, format, fmt::make_format_args(arguments...));
}
template <class... Args>
void error(std::string_view room, fmt::format_string<Args...> format, Args&&... arguments) {
  write(room, Level::error, format, fmt::make_format_args(arguments...));
}

/// The level that a filter gives to a room, info when it says nothing that is understood.
[[nodiscard]] Level levelFor(std::string_view room, std::string_view filter);

/// Trouble that repeats: the first one is a line at once, the others are counted and told with the next line,
/// at most once a minute. One thread.
class Repeated {
 public:
  using TimePoint = std::chrono::steady_clock::time_point;
  /// Counts `times` and gives how many to tell of now; 0: say nothing yet.
  std::uint64_t count(std::uint64_t times, TimePoint now);

 private:
  std::uint64_t untold_ = 0;
  bool told_ = false;
  TimePoint last_{};
};

}  // namespace pvss::log
