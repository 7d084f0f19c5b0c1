// FloatVar: a floating-point number of 64 bits, NaN and infinities included.
#pragma once

#include "pvss/Variable.h"

class FloatVar final : public Variable {
 public:
  explicit FloatVar(double value = 0) noexcept : Variable(FLOAT_VAR), value_(value) {}
  FloatVar(const FloatVar&) = default;
  FloatVar& operator=(const FloatVar&) = default;

  [[nodiscard]] double getValue() const noexcept { return value_; }
  void setValue(double value) noexcept { value_ = value; }

  [[nodiscard]] PVSSboolean isTrue() const override { return value_ != 0; }
  [[nodiscard]] VariablePtr clone() const override { return new FloatVar(*this); }

 private:
  double value_;
};
