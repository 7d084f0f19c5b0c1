#include "basics/Values.h"

#include <array>
#include <bit>
#include <cmath>
#include <cstdint>
#include <utility>

#include "pvss/DynVar.h"
#include "pvss/TimeVar.h"

namespace pvss {

namespace {

struct TypeRow {
  DpElementType element;
  VariableType variable;
  std::string_view word;
};

constexpr std::array<TypeRow, 15> typeRows{{
    {DPELEMENT_BIT, BIT_VAR, "bit"},
    {DPELEMENT_CHAR, CHAR_VAR, "char"},
    {DPELEMENT_INT, INTEGER_VAR, "int"},
    {DPELEMENT_UINT, UINTEGER_VAR, "uint"},
    {DPELEMENT_32BIT, BIT32_VAR, "bit32"},
    {DPELEMENT_FLOAT, FLOAT_VAR, "float"},
    {DPELEMENT_TEXT, TEXT_VAR, "text"},
    {DPELEMENT_DYNBIT, DYNBIT_VAR, "dyn_bit"},
    {DPELEMENT_DYNCHAR, DYNCHAR_VAR, "dyn_char"},
    {DPELEMENT_DYNINT, DYNINTEGER_VAR, "dyn_int"},
    {DPELEMENT_DYNUINT, DYNUINTEGER_VAR, "dyn_uint"},
    {DPELEMENT_DYN32BIT, DYNBIT32_VAR, "dyn_bit32"},
    {DPELEMENT_DYNFLOAT, DYNFLOAT_VAR, "dyn_float"},
    {DPELEMENT_DYNTEXT, DYNTEXT_VAR, "dyn_text"},
    {DPELEMENT_TIME, TIME_VAR, ""},
}};

template <class Var>
bool sameContent(const Var& left, const Var& right) {
  return left.getValue() == right.getValue();
}

bool sameContent(const FloatVar& left, const FloatVar& right) {
  const double a = left.getValue();
  const double b = right.getValue();
  if (std::isnan(a) || std::isnan(b)) {
    return std::isnan(a) && std::isnan(b);
  }
  return std::bit_cast<std::uint64_t>(a) == std::bit_cast<std::uint64_t>(b);
}

bool sameContent(const TextVar& left, const TextVar& right) {
  return left.getString() == right.getString();
}

bool sameContent(const DynVar& left, const DynVar& right) {
  return left.elements().index() == right.elements().index() &&
         std::visit(
             [&right](const auto& mine) {
               using Vector = std::decay_t<decltype(mine)>;
               if constexpr (!std::is_same_v<Vector, std::monostate>) {
                 const auto& others = std::get<Vector>(right.elements());
                 if (mine.size() != others.size()) {
                   return false;
                 }
                 for (std::size_t index = 0; index < mine.size(); ++index) {
                   if (!sameContent(mine[index], others[index])) {
                     return false;
                   }
                 }
               }
               return true;
             },
             left.elements());
}

template <class Var>
bool sameAs(const Variable& left, const Variable& right) {
  return sameContent(static_cast<const Var&>(left), static_cast<const Var&>(right));
}

template <class Var>
SharedValue copyAs(const Variable& value) {
  return std::make_shared<const Var>(static_cast<const Var&>(value));
}

SharedValue makeDefault(VariableType type) {
  switch (type) {
    case BIT_VAR:
      return std::make_shared<const BitVar>();
    case CHAR_VAR:
      return std::make_shared<const CharVar>();
    case INTEGER_VAR:
      return std::make_shared<const IntegerVar>();
    case UINTEGER_VAR:
      return std::make_shared<const UIntegerVar>();
    case BIT32_VAR:
      return std::make_shared<const Bit32Var>();
    case FLOAT_VAR:
      return std::make_shared<const FloatVar>();
    case TEXT_VAR:
      return std::make_shared<const TextVar>();
    case TIME_VAR:
      return std::make_shared<const TimeVar>(PVSSTime(0, 0));
    default:
      return std::make_shared<const DynVar>(DynVar::elementTypeOf(type));
  }
}

}  // namespace

VariableType variableTypeOf(DpElementType type) noexcept {
  for (const TypeRow& row : typeRows) {
    if (row.element == type) {
      return row.variable;
    }
  }
  return NOTYPE_VAR;
}

const SharedValue& defaultValue(DpElementType type) {
  static const auto defaults = [] {
    std::array<SharedValue, typeRows.size()> values;
    for (std::size_t index = 0; index < typeRows.size(); ++index) {
      values[index] = makeDefault(typeRows[index].variable);
    }
    return values;
  }();
  static const SharedValue none;
  for (std::size_t index = 0; index < typeRows.size(); ++index) {
    if (typeRows[index].element == type) {
      return defaults[index];
    }
  }
  return none;
}

SharedValue shareCopy(const Variable& value) {
  switch (value.isA()) {
    case BIT_VAR:
      return copyAs<BitVar>(value);
    case CHAR_VAR:
      return copyAs<CharVar>(value);
    case INTEGER_VAR:
      return copyAs<IntegerVar>(value);
    case UINTEGER_VAR:
      return copyAs<UIntegerVar>(value);
    case BIT32_VAR:
      return copyAs<Bit32Var>(value);
    case FLOAT_VAR:
      return copyAs<FloatVar>(value);
    case TEXT_VAR:
      return copyAs<TextVar>(value);
    default:
      return SharedValue(value.clone());
  }
}

bool sameValue(const Variable& left, const Variable& right) {
  if (left.isA() != right.isA()) {
    return false;
  }
  switch (left.isA()) {
    case BIT_VAR:
      return sameAs<BitVar>(left, right);
    case CHAR_VAR:
      return sameAs<CharVar>(left, right);
    case INTEGER_VAR:
      return sameAs<IntegerVar>(left, right);
    case UINTEGER_VAR:
      return sameAs<UIntegerVar>(left, right);
    case BIT32_VAR:
      return sameAs<Bit32Var>(left, right);
    case FLOAT_VAR:
      return sameAs<FloatVar>(left, right);
    case TEXT_VAR:
      return sameAs<TextVar>(left, right);
    case TIME_VAR:
      return sameAs<TimeVar>(left, right);
    default:
      return sameAs<DynVar>(left, right);
  }
}

std::size_t sizeOf(const Variable& value) noexcept {
  constexpr std::size_t shared = 16;  // the reference counts
  if (value.isA() == TEXT_VAR) {
    return shared + sizeof(TextVar) + static_cast<const TextVar&>(value).getString().len();
  }
  const VariableType elementType = DynVar::elementTypeOf(value.isA());
  if (elementType == NOTYPE_VAR) {
    return shared + sizeof(TimeVar);
  }
  return std::visit(
      [](const auto& vector) -> std::size_t {
        using Vector = std::decay_t<decltype(vector)>;
        std::size_t bytes = shared + sizeof(DynVar);
        if constexpr (!std::is_same_v<Vector, std::monostate>) {
          bytes += vector.size() * sizeof(typename Vector::value_type);
          if constexpr (std::is_same_v<typename Vector::value_type, TextVar>) {
            for (const TextVar& text : vector) {
              bytes += text.getString().len();
            }
          }
        }
        return bytes;
      },
      static_cast<const DynVar&>(value).elements());
}

std::string_view typeWord(DpElementType type) noexcept {
  for (const TypeRow& row : typeRows) {
    if (row.element == type) {
      return row.word;
    }
  }
  return {};
}

DpElementType typeOfWord(std::string_view word) noexcept {
  for (const TypeRow& row : typeRows) {
    if (!word.empty() && row.word == word) {
      return row.element;
    }
  }
  return DPELEMENT_NOELEMENT;
}

}  // namespace pvss
