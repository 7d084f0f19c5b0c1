#include "log/Log.h"

#include <spdlog/pattern_formatter.h>
#include <spdlog/spdlog.h>

#include <array>
#include <cstdlib>
#include <iterator>
#include <mutex>
#include <optional>

#include "log/LineWriter.h"

namespace pvss::log {

namespace {

constexpr std::array<std::string_view, 6> levelWords{"trace", "debug", "info", "warn", "error", "off"};

std::optional<Level> levelOf(std::string_view word) {
  for (std::size_t index = 0; index < levelWords.size(); ++index) {
    if (levelWords[index] == word) {
      return static_cast<Level>(index);
    }
  }
  return std::nullopt;
}

spdlog::level::level_enum spdlogLevel(Level level) {
  return level == Level::off ? spdlog::level::off : static_cast<spdlog::level::level_enum>(level);
}

std::string lineOf(std::string_view room, Level level, std::string_view text) {
  static auto* const formatting = new std::mutex;  // the formatter remembers the second that it last wrote
  static auto* const formatter = new spdlog::pattern_formatter("%H:%M:%S.%e %n %l %v");
  spdlog::memory_buf_t line;
  const std::lock_guard<std::mutex> lock(*formatting);
  formatter->format(
      spdlog::details::log_msg({room.data(), room.size()}, spdlogLevel(level), {text.data(), text.size()}),
      line);
  return {line.data(), line.size()};
}

std::string linesLost(unsigned long lines) {
  return lineOf("log", Level::warn, fmt::format("{} lines could not be written to standard error", lines));
}

const std::string& filter() {
  static const auto* const text = [] {
    const char* const variable = std::getenv("KELGW_LOG");
    return new std::string(variable == nullptr ? "" : variable);
  }();
  return *text;
}

}  // namespace

void write(std::string_view room, Level level, fmt::string_view format, fmt::format_args arguments) {
  if (level < levelFor(room, filter())) {
    return;
  }
  // Never destroyed: lines may still come while static objects go.
  static auto* const output = new LineWriter(stderr, &linesLost);
  output->write(lineOf(room, level, oneLine(fmt::vformat(format, arguments))));
}

std::string oneLine(std::string_view text) {
  std::string shown;
  shown.reserve(text.size());
  const auto byteAt = [&](std::size_t at) {
    return at < text.size() ? static_cast<unsigned char>(text[at]) : static_cast<unsigned char>(0);
  };
  for (std::size_t at = 0; at < text.size();) {
    const unsigned char lead = byteAt(at);
    // Of how many bytes a character there is: 1 for ASCII that can be seen, 0 for what is shown by number.
    std::size_t length = lead >= 0x20 && lead < 0x7F ? 1 : 0;
    if (lead >= 0xC2 && lead <= 0xF4) {
      length = lead < 0xE0 ? 2 : lead < 0xF0 ? 3 : 4;
      const unsigned char second = byteAt(at + 1);
      // Controls, overlong forms, surrogates, and what is beyond Unicode.
      if ((lead == 0xC2 && second < 0xA0) || (lead == 0xE0 && second < 0xA0) ||
          (lead == 0xED && second > 0x9F) || (lead == 0xF0 && second < 0x90) ||
          (lead == 0xF4 && second > 0x8F)) {
        length = 0;
      }
      for (std::size_t next = 1; next < length; ++next) {
        if (byteAt(at + next) < 0x80 || byteAt(at + next) > 0xBF) length = 0;
      }
    }
    if (length == 0) {
      fmt::format_to(std::back_inserter(shown), "\\x{:02X}", lead);
      length = 1;
    } else {
      shown.append(text.substr(at, length));
    }
    at += length;
  }
  return shown;
}

Level levelFor(std::string_view room, std::string_view filter) {
  Level general = Level::info;
  std::optional<Level> own;
  while (!filter.empty()) {
    const std::size_t comma = filter.find(',');
    const std::string_view part = filter.substr(0, comma);
    const std::size_t equal = part.find('=');
    if (equal == std::string_view::npos) {
      general = levelOf(part).value_or(general);
    } else if (part.substr(0, equal) == room) {
      own = levelOf(part.substr(equal + 1));
    }
    filter = comma == std::string_view::npos ? std::string_view() : filter.substr(comma + 1);
  }
  return own.value_or(general);
}

std::uint64_t Repeated::count(std::uint64_t times, TimePoint now) {
  untold_ += times;
  if (untold_ == 0 || (told_ && now - last_ < std::chrono::minutes(1))) {
    return 0;
  }
  told_ = true;
  last_ = now;
  const std::uint64_t tell = untold_;
  untold_ = 0;
  return tell;
}

}  // namespace pvss::log
