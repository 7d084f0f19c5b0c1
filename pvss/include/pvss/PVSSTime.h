// PVSSTime: a moment, in seconds and milliseconds since the epoch.
//
// Purpose    A plain value. Milliseconds are always 0 to 999; seconds may be negative.
// Thread     A plain value. Nothing blocks and nothing throws.
#pragma once

#include <cstdint>

class PVSSTime {
 public:
  /// The current time.
  PVSSTime();
  /// Seconds since the epoch and milliseconds, which are carried as setMilli() does.
  PVSSTime(std::int64_t seconds, std::int64_t milli) : seconds_(seconds) { setMilli(milli); }
  /// From milliseconds since the epoch.
  static PVSSTime fromMilliseconds(std::int64_t milliseconds) { return PVSSTime(0, milliseconds); }

  [[nodiscard]] std::int64_t getSeconds() const noexcept { return seconds_; }
  [[nodiscard]] std::int16_t getMilli() const noexcept { return milli_; }
  [[nodiscard]] std::int64_t toMilliseconds() const noexcept { return seconds_ * 1000 + milli_; }

  void setSeconds(std::int64_t seconds) noexcept { seconds_ = seconds; }
  /// Sets the milliseconds; what is below 0 or above 999 is carried into the seconds, which otherwise stay.
  void setMilli(std::int64_t milli) noexcept;

  friend bool operator==(const PVSSTime& left, const PVSSTime& right) noexcept {
    return left.toMilliseconds() == right.toMilliseconds();
  }
  friend bool operator<(const PVSSTime& left, const PVSSTime& right) noexcept {
    return left.toMilliseconds() < right.toMilliseconds();
  }

 private:
  std::int64_t seconds_ = 0;
  std::int16_t milli_ = 0;
};
