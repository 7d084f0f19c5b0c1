// Variable: a typed value of a data point attribute.
//
// Purpose    Base of the value types; each subclass has a header of its own.
// Ownership  A value owns what it holds. clone() gives a new object that belongs to the caller.
// Thread     A value may be read by many threads or changed by one; DynVar's walk counts as a change.
// Errors     Only running out of memory throws.
#pragma once

#include "pvss/PVSSboolean.h"

enum VariableType : unsigned int {
  NOTYPE_VAR = 0,
  BIT_VAR = 0x40000,
  INTEGER_VAR = 0x50000,
  UINTEGER_VAR = 0x60000,
  FLOAT_VAR = 0x70000,
  TEXT_VAR = 0x80000,
  BIT32_VAR = 0x90000,
  CHAR_VAR = 0xa0000,
  TIME_VAR = 0xb0000,
  DYNBIT_VAR = 0xe0000,
  DYNINTEGER_VAR = 0xf0000,
  DYNUINTEGER_VAR = 0x100000,
  DYNFLOAT_VAR = 0x110000,
  DYNTEXT_VAR = 0x120000,
  DYNBIT32_VAR = 0x130000,
  DYNCHAR_VAR = 0x140000,
};

class Variable;
using VariablePtr = Variable*;

class Variable {
 public:
  virtual ~Variable() = default;

  /// The type code, fixed for the life of the object.
  [[nodiscard]] VariableType isA() const noexcept { return type_; }
  /// The truth of the value: the bit itself, a number that is not 0, a text or array that is not empty.
  [[nodiscard]] virtual PVSSboolean isTrue() const = 0;
  /// A copy that the caller owns.
  [[nodiscard]] virtual VariablePtr clone() const = 0;

 protected:
  explicit Variable(VariableType type) noexcept : type_(type) {}
  Variable(const Variable&) = default;
  Variable& operator=(const Variable&) = default;

 private:
  VariableType type_;
};
