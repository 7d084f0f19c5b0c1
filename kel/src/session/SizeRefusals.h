// SizeRefusals: what a broker takes for too large, and whose records, said in a bounded number of lines.
//
// Each publication is said when it begins and when a record of it fits again. Not thread-safe: under the
// session's lock.
#pragma once

#include <chrono>
#include <cstdint>
#include <set>
#include <string>

#include "Log.h"
#include "transport/KelTransport.h"

namespace kel {

/// "WHAT of 2000 bytes OF is too large for the broker, which takes at most 1000 bytes".
[[nodiscard]] std::string tooLargeText(const std::string& what, const std::string& of, const Oversize& size);
/// The same with the broker's own words behind it.
[[nodiscard]] std::string tooLargeAsSaid(const std::string& what, const std::string& of,
                                         const Oversize& size);

class SizeRefusals {
 public:
  using Time = std::chrono::steady_clock::time_point;

  static constexpr int mostLines = 10;  ///< in each span
  static constexpr std::chrono::seconds span{60};

  /// True when `key` was not refused so far; only then something is said.
  bool refused(const std::string& key, const std::string& sentence, Time now) {
    if (!keys_.insert(key).second) return false;
    say(LogLevel::warn, sentence, now);
    return true;
  }
  void fits(const std::string& key, const std::string& sentence, Time now) {
    if (keys_.erase(key) != 0) say(LogLevel::info, sentence, now);
  }
  /// Nobody publishes it any more.
  void forget(const std::string& key) { keys_.erase(key); }
  void say(LogLevel level, std::string line, Time now) {
    if (lines_ == 0 || now - spanStart_ >= span) {
      spanStart_ = now;
      lines_ = 0;
    }
    if (lines_ >= mostLines) {
      ++leftOut_;
      return;
    }
    ++lines_;
    if (leftOut_ > 0) line += " (" + std::to_string(leftOut_) + " lines like it were left out before)";
    leftOut_ = 0;
    log(level, line);
  }

 private:
  std::set<std::string, std::less<>> keys_;
  Time spanStart_;
  int lines_ = 0;
  std::int64_t leftOut_ = 0;
};

}  // namespace kel
