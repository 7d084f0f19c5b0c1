// IntegerVar: a signed number of 32 bits.
#pragma once

#include <cstdint>

#include "pvss/Variable.h"

class IntegerVar final : public Variable {
 public:
  explicit IntegerVar(std::int32_t value = 0) noexcept : Variable(INTEGER_VAR), value_(value) {}
  IntegerVar(const IntegerVar&) = default;
  IntegerVar& operator=(const IntegerVar&) = default;

  [[nodiscard]] std::int32_t getValue() const noexcept { return value_; }
  void setValue(std::int32_t value) noexcept { value_ = value; }

  [[nodiscard]] PVSSboolean isTrue() const override { return value_ != 0; }
  [[nodiscard]] VariablePtr clone() const override { return new IntegerVar(*this); }

 private:
  std::int32_t value_;
};
