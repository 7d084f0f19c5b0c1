#include "log/Log.h"

#include <spdlog/sinks/stdout_sinks.h>
#include <spdlog/spdlog.h>

#include <array>
#include <cstdlib>
#include <memory>
#include <optional>

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

spdlog::sinks::sink& output() {
  // Never destroyed: lines may still come while static objects go.
  static auto* const sink = [] {
    auto* const made = new spdlog::sinks::stderr_sink_mt();
    made->set_pattern("%H:%M:%S.%e %n %l %v");
    return made;
  }();
  return *sink;
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
  const std::string text = fmt::vformat(format, arguments);
  spdlog::sinks::sink& sink = output();
  sink.log(
      spdlog::details::log_msg({room.data(), room.size()}, spdlogLevel(level), {text.data(), text.size()}));
  sink.flush();
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
