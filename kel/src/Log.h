// The library's own voice: standard error, one line each (time, room, level, what).
//
// KELGW_LOG chooses what is heard: a level (error, warn, info, debug, trace) for every room, or a list such
// as "info,kel=debug". The default is info. A line is written in one piece, from any thread; a reader who
// does not read holds nobody up for longer than a moment, and lines that could not be written are counted and
// said.
#pragma once

#include <string>
#include <string_view>

namespace kel {

enum class LogLevel { trace, debug, info, warn, error, off };

/// The level that the text asks for in the room "kel"; parts that mean nothing are passed over.
[[nodiscard]] LogLevel logLevelFrom(std::string_view filter);

[[nodiscard]] bool logs(LogLevel level);
/// Writes the line; characters that could tear it are shown as \xXX.
void log(LogLevel level, std::string_view what);

}  // namespace kel
