// UIntegerVar: an unsigned number of 32 bits.
#pragma once

#include <cstdint>

#include "pvss/Variable.h"

class UIntegerVar final : public Variable {
 public:
  explicit UIntegerVar(std::uint32_t value = 0) noexcept : Variable(UINTEGER_VAR), value_(value) {}
  UIntegerVar(const UIntegerVar&) = default;
  UIntegerVar& operator=(const UIntegerVar&) = default;

  [[nodiscard]] std::uint32_t getValue() const noexcept { return value_; }
  void setValue(std::uint32_t value) noexcept { value_ = value; }

  [[nodiscard]] PVSSboolean isTrue() const override { return value_ != 0; }
  [[nodiscard]] VariablePtr clone() const override { return new UIntegerVar(*this); }

 private:
  std::uint32_t value_;
};
