// Backoff: the growing, jittered pauses between attempts to reach a broker.
//
// Pure arithmetic: the caller hands in the random number, so tests need no luck.
#pragma once

#include <algorithm>
#include <chrono>

namespace kel::mqtt {

class Backoff {
 public:
  static constexpr std::chrono::milliseconds kFirst{100};
  static constexpr std::chrono::milliseconds kLongest{2000};

  /// The next pause: twice the one before, at most kLongest; `unit` in [0, 1) spreads it over its upper half,
  /// so that many clients of one broker do not come back in step.
  std::chrono::milliseconds next(double unit) {
    const auto whole = current_;
    current_ = std::min(kLongest, current_ * 2);
    const double factor = 0.5 + 0.5 * std::clamp(unit, 0.0, 1.0);
    return std::chrono::milliseconds(static_cast<long>(static_cast<double>(whole.count()) * factor));
  }

  void reset() { current_ = kFirst; }

 private:
  std::chrono::milliseconds current_ = kFirst;
};

}  // namespace kel::mqtt
