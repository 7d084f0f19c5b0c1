#include "Log.h"

#include <array>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <ctime>

#include "LineWriter.h"
#include "wire/Utf8.h"

namespace kel {
namespace {

constexpr std::array<std::string_view, 6> names{"trace", "debug", "info", "warn", "error", "off"};

LogLevel chosenLevel() {
  static const LogLevel level = [] {
    const char* filter = std::getenv("KELGW_LOG");
    return logLevelFrom(filter == nullptr ? "" : filter);
  }();
  return level;
}

std::string timeText() {
  const auto now = std::chrono::system_clock::now();
  const std::time_t seconds = std::chrono::system_clock::to_time_t(now);
  const auto millis =
      std::chrono::duration_cast<std::chrono::milliseconds>(now.time_since_epoch()).count() % 1000;
  std::tm parts{};
  gmtime_r(&seconds, &parts);
  std::array<char, 40> text{};
  const std::size_t size = std::strftime(text.data(), text.size(), "%Y-%m-%dT%H:%M:%S", &parts);
  std::array<char, 8> tail{};
  std::snprintf(tail.data(), tail.size(), ".%03dZ", static_cast<int>(millis));
  return std::string(text.data(), size) + tail.data();
}

std::string lineOf(LogLevel level, std::string_view what) {
  std::string line = timeText() + " kel " + std::string(names.at(static_cast<std::size_t>(level))) + " ";
  // What could end the line or steer a terminal is shown by number: control characters, those of Unicode too,
  // and everything beyond ASCII when the whole is not UTF-8.
  const bool utf8 = isUtf8(what);
  for (std::size_t i = 0; i < what.size(); ++i) {
    const auto byte = static_cast<unsigned char>(what[i]);
    const auto before = i > 0 ? static_cast<unsigned char>(what[i - 1]) : 0U;
    const auto next = i + 1 < what.size() ? static_cast<unsigned char>(what[i + 1]) : 0U;
    const bool control = byte < 0x20 || byte == 0x7F || (byte == 0xC2 && next < 0xA0) ||
                         (byte < 0xA0 && byte >= 0x80 && before == 0xC2);
    if (!control && (byte < 0x80 || utf8)) {
      line.push_back(what[i]);
    } else {
      std::array<char, 8> shown{};
      std::snprintf(shown.data(), shown.size(), "\\x%02X", byte);
      line.append(shown.data());
    }
  }
  line.push_back('\n');
  return line;
}

std::string linesLost(unsigned long lines) {
  return lineOf(LogLevel::warn, std::to_string(lines) + " lines could not be written to standard error");
}

}  // namespace

LogLevel logLevelFrom(std::string_view filter) {
  LogLevel level = LogLevel::info;
  bool ownRoom = false;
  while (!filter.empty()) {
    const auto comma = filter.find(',');
    std::string_view part = filter.substr(0, comma);
    filter = comma == std::string_view::npos ? std::string_view() : filter.substr(comma + 1);
    const auto equals = part.find('=');
    const bool named = equals != std::string_view::npos;
    if (named && part.substr(0, equals) != "kel") continue;
    if (!named && ownRoom) continue;
    if (named) part.remove_prefix(equals + 1);
    for (std::size_t i = 0; i < names.size(); ++i) {
      if (part != names[i]) continue;
      level = static_cast<LogLevel>(i);
      ownRoom = ownRoom || named;
    }
  }
  return level;
}

bool logs(LogLevel level) {
  return level >= chosenLevel();
}

void log(LogLevel level, std::string_view what) {
  if (!logs(level)) return;
  // Never destroyed: other threads may still speak while the process ends.
  static auto* const output = new LineWriter(stderr, &linesLost);
  output->write(lineOf(level, what));
}

}  // namespace kel
