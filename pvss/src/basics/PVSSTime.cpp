#include "pvss/PVSSTime.h"

#include <chrono>

PVSSTime::PVSSTime() {
  const auto now = std::chrono::system_clock::now().time_since_epoch();
  setMilli(std::chrono::duration_cast<std::chrono::milliseconds>(now).count());
}

void PVSSTime::setMilli(std::int64_t milli) noexcept {
  std::int64_t carried = milli / 1000;
  std::int64_t rest = milli % 1000;
  if (rest < 0) {
    rest += 1000;
    --carried;
  }
  // Wraps instead of overflowing at the ends of time.
  seconds_ =
      static_cast<std::int64_t>(static_cast<std::uint64_t>(seconds_) + static_cast<std::uint64_t>(carried));
  milli_ = static_cast<std::int16_t>(rest);
}
