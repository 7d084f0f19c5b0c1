// CharVar: a single byte.
#pragma once

#include "pvss/Variable.h"

class CharVar final : public Variable {
 public:
  explicit CharVar(char value = 0) noexcept : Variable(CHAR_VAR), value_(value) {}
  CharVar(const CharVar&) = default;
  CharVar& operator=(const CharVar&) = default;

  [[nodiscard]] char getValue() const noexcept { return value_; }
  void setValue(char value) noexcept { value_ = value; }

  [[nodiscard]] PVSSboolean isTrue() const override { return value_ != 0; }
  [[nodiscard]] VariablePtr clone() const override { return new CharVar(*this); }

 private:
  char value_;
};
