// TextVar: a text.
#pragma once

#include <utility>

#include "pvss/CharString.h"
#include "pvss/Variable.h"

class TextVar final : public Variable {
 public:
  TextVar() noexcept : Variable(TEXT_VAR) {}
  explicit TextVar(const char* text) : Variable(TEXT_VAR), text_(text) {}
  explicit TextVar(CharString text) noexcept : Variable(TEXT_VAR), text_(std::move(text)) {}
  TextVar(const TextVar&) = default;
  TextVar& operator=(const TextVar&) = default;

  /// The characters, NUL-terminated; never null here.
  [[nodiscard]] const char* getValue() const noexcept { return text_.c_str(); }
  [[nodiscard]] const CharString& getString() const noexcept { return text_; }
  void setValue(const char* text) { text_ = text; }

  [[nodiscard]] PVSSboolean isTrue() const override { return !text_.isEmpty(); }
  [[nodiscard]] VariablePtr clone() const override { return new TextVar(*this); }

 private:
  CharString text_;
};
