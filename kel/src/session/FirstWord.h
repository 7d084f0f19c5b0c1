// FirstWord: when subscriptions that are not connected may be told so for the first time.
//
// An application makes its subscriptions one after the other and gets ready for their calls in between; a
// word that comes before it is ready is lost on it. So nothing is said while it goes on making them, nor for
// a second or as long as it took behind the last one. Not thread-safe: under the session's lock.
#pragma once

#include <chrono>

namespace kel {

class FirstWord {
 public:
  using Time = std::chrono::steady_clock::time_point;

  static constexpr std::chrono::seconds shortest{1};
  /// Who goes on making subscriptions for ever does not keep the first ones waiting for ever.
  static constexpr std::chrono::minutes longest{5};

  void created(Time now);
  /// This process was not running for so long: it did not get ready either.
  void forgive(std::chrono::nanoseconds pause);
  /// Whether a subscription made then may be told now.
  [[nodiscard]] bool due(Time created, Time now) const;

 private:
  [[nodiscard]] bool quiet(Time now) const;

  bool any_ = false;
  Time begun_;  ///< the first of those that were made without a quiet time between them
  Time last_;
};

}  // namespace kel
