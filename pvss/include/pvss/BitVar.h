// BitVar: a single bit.
#pragma once

#include "pvss/Variable.h"

class BitVar final : public Variable {
 public:
  explicit BitVar(PVSSboolean value = PVSS_FALSE) noexcept : Variable(BIT_VAR), value_(value) {}
  BitVar(const BitVar&) = default;
  BitVar& operator=(const BitVar&) = default;

  [[nodiscard]] PVSSboolean getValue() const noexcept { return value_; }
  void setValue(PVSSboolean value) noexcept { value_ = value; }

  [[nodiscard]] PVSSboolean isTrue() const override { return value_; }
  [[nodiscard]] VariablePtr clone() const override { return new BitVar(*this); }

 private:
  PVSSboolean value_;
};
