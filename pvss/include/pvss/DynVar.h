// DynVar: an array of values of one type.
//
// Purpose    Elements lie side by side, each a complete Variable of the element type.
// Ownership  The array owns its elements; append() copies. A pointer or reference to an element holds until
//            the next append().
// Thread     As Variable; getFirstVar() and getNextVar() move a cursor inside the array.
#pragma once

#include <cstddef>
#include <variant>
#include <vector>

#include "pvss/Bit32Var.h"
#include "pvss/BitVar.h"
#include "pvss/CharVar.h"
#include "pvss/FloatVar.h"
#include "pvss/IntegerVar.h"
#include "pvss/TextVar.h"
#include "pvss/UIntegerVar.h"
#include "pvss/Variable.h"

class DynVar final : public Variable {
 public:
  using Elements =
      std::variant<std::monostate, std::vector<BitVar>, std::vector<IntegerVar>, std::vector<UIntegerVar>,
                   std::vector<FloatVar>, std::vector<TextVar>, std::vector<Bit32Var>, std::vector<CharVar>>;

  /// An empty array of the element type; isA() is the DYN type of it, NOTYPE_VAR for an element type that no
  /// array can have (nothing can be appended to such an array).
  explicit DynVar(VariableType elementType);
  DynVar(const DynVar&) = default;
  DynVar& operator=(const DynVar&) = default;

  [[nodiscard]] VariableType getElementType() const noexcept { return elementType_; }
  [[nodiscard]] unsigned int getNumberOfItems() const noexcept;

  /// Adds a copy at the end. False, and no change, when the type differs from the element type.
  PVSSboolean append(const Variable& element);
  /// Makes room for `count` elements in all.
  void reserve(std::size_t count);

  /// The first element, or null when there is none; starts the walk.
  [[nodiscard]] Variable* getFirstVar() const noexcept;
  /// The element after the one returned last, or null at the end.
  [[nodiscard]] Variable* getNextVar() const noexcept;
  /// The element at the index, or null past the end.
  [[nodiscard]] Variable* getAt(std::size_t index) const noexcept;
  /// The element at the index, which must be below getNumberOfItems().
  [[nodiscard]] Variable& operator[](std::size_t index) const noexcept { return *getAt(index); }

  /// All elements as a vector of their own type, for whoever goes through them in bulk.
  [[nodiscard]] const Elements& elements() const noexcept { return elements_; }
  [[nodiscard]] Elements& elements() noexcept { return elements_; }

  [[nodiscard]] PVSSboolean isTrue() const override { return getNumberOfItems() != 0; }
  [[nodiscard]] VariablePtr clone() const override { return new DynVar(*this); }

  /// The DYN type of an element type, and the other way round; NOTYPE_VAR when there is none.
  [[nodiscard]] static VariableType dynTypeOf(VariableType elementType) noexcept;
  [[nodiscard]] static VariableType elementTypeOf(VariableType dynType) noexcept;

 private:
  VariableType elementType_;
  mutable std::size_t cursor_ = 0;
  Elements elements_;
};
