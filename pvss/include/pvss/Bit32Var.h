// Bit32Var: a pattern of 32 bits.
#pragma once

#include <cstdint>

#include "pvss/Variable.h"

class Bit32Var final : public Variable {
 public:
  explicit Bit32Var(std::uint32_t value = 0) noexcept : Variable(BIT32_VAR), value_(value) {}
  Bit32Var(const Bit32Var&) = default;
  Bit32Var& operator=(const Bit32Var&) = default;

  [[nodiscard]] std::uint32_t getValue() const noexcept { return value_; }
  void setValue(std::uint32_t value) noexcept { value_ = value; }

  [[nodiscard]] PVSSboolean isTrue() const override { return value_ != 0; }
  [[nodiscard]] VariablePtr clone() const override { return new Bit32Var(*this); }

 private:
  std::uint32_t value_;
};
