// TimeVar: a moment, with a resolution of one millisecond.
#pragma once

#include <cstdint>

#include "pvss/PVSSTime.h"
#include "pvss/Variable.h"

class TimeVar final : public Variable {
 public:
  /// The current time.
  TimeVar() : Variable(TIME_VAR) {}
  explicit TimeVar(const PVSSTime& time) noexcept : Variable(TIME_VAR), time_(time) {}
  TimeVar(const TimeVar&) = default;
  TimeVar& operator=(const TimeVar&) = default;

  [[nodiscard]] const PVSSTime& getValue() const noexcept { return time_; }
  void setValue(const PVSSTime& time) noexcept { time_ = time; }
  /// Seconds since the epoch, rounded down.
  [[nodiscard]] std::int64_t getSeconds() const noexcept { return time_.getSeconds(); }
  /// Milliseconds within the second, 0 to 999.
  [[nodiscard]] std::int16_t getMilli() const noexcept { return time_.getMilli(); }

  [[nodiscard]] PVSSboolean isTrue() const override { return time_.toMilliseconds() != 0; }
  [[nodiscard]] VariablePtr clone() const override { return new TimeVar(*this); }

 private:
  PVSSTime time_;
};
