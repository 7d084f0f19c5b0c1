#include "store/redis/Backoff.h"

#include <algorithm>

namespace pvss::redis {

std::chrono::milliseconds Backoff::next() {
  random_ ^= random_ << 13U;
  random_ ^= random_ >> 7U;
  random_ ^= random_ << 17U;
  const auto half = length_.count() / 2;
  const std::chrono::milliseconds pause(
      half + static_cast<std::int64_t>(random_ % static_cast<std::uint64_t>(half + 1)));
  length_ = std::min(length_ * 2, cap);
  return pause;
}

}  // namespace pvss::redis
