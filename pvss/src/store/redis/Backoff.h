// Backoff: growing, jittered pauses between attempts, never longer than the cap.
#pragma once

#include <chrono>
#include <cstdint>

namespace pvss::redis {

class Backoff {
 public:
  static constexpr std::chrono::milliseconds first{50};
  static constexpr std::chrono::milliseconds cap{2000};

  explicit Backoff(std::uint64_t seed) : random_(seed | 1U) {}
  /// The pause before the next attempt: between half and all of a length that doubles up to the cap.
  std::chrono::milliseconds next();
  void reset() { length_ = first; }

 private:
  std::chrono::milliseconds length_ = first;
  std::uint64_t random_;
};

}  // namespace pvss::redis
