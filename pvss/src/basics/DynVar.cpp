#include "pvss/DynVar.h"

namespace {

DynVar::Elements emptyElements(VariableType elementType) {
  switch (elementType) {
    case BIT_VAR:
      return std::vector<BitVar>();
    case INTEGER_VAR:
      return std::vector<IntegerVar>();
    case UINTEGER_VAR:
      return std::vector<UIntegerVar>();
    case FLOAT_VAR:
      return std::vector<FloatVar>();
    case TEXT_VAR:
      return std::vector<TextVar>();
    case BIT32_VAR:
      return std::vector<Bit32Var>();
    case CHAR_VAR:
      return std::vector<CharVar>();
    default:
      return std::monostate();
  }
}

template <class Vector>
constexpr bool isVector = !std::is_same_v<std::decay_t<Vector>, std::monostate>;

}  // namespace

DynVar::DynVar(VariableType elementType)
    : Variable(dynTypeOf(elementType)), elementType_(elementType), elements_(emptyElements(elementType)) {}

unsigned int DynVar::getNumberOfItems() const noexcept {
  return std::visit(
      [](const auto& vector) -> unsigned int {
        if constexpr (isVector<decltype(vector)>) {
          return static_cast<unsigned int>(vector.size());
        } else {
          return 0;
        }
      },
      elements_);
}

PVSSboolean DynVar::append(const Variable& element) {
  if (element.isA() != elementType_) {
    return PVSS_FALSE;
  }
  return std::visit(
      [&element](auto& vector) -> PVSSboolean {
        if constexpr (isVector<decltype(vector)>) {
          vector.push_back(static_cast<const typename std::decay_t<decltype(vector)>::value_type&>(element));
          return PVSS_TRUE;
        } else {
          return PVSS_FALSE;
        }
      },
      elements_);
}

void DynVar::reserve(std::size_t count) {
  std::visit(
      [count](auto& vector) {
        if constexpr (isVector<decltype(vector)>) {
          vector.reserve(count);
        }
      },
      elements_);
}

Variable* DynVar::getFirstVar() const noexcept {
  cursor_ = 0;
  return getNextVar();
}

Variable* DynVar::getNextVar() const noexcept {
  Variable* const element = getAt(cursor_);
  if (element != nullptr) {
    ++cursor_;
  }
  return element;
}

Variable* DynVar::getAt(std::size_t index) const noexcept {
  return std::visit(
      [index](auto& vector) -> Variable* {
        if constexpr (isVector<decltype(vector)>) {
          if (index < vector.size()) {
            // The platform's walk hands out changeable elements of an array that the caller may see as const.
            using Element = typename std::decay_t<decltype(vector)>::value_type;
            return const_cast<Element*>(&vector[index]);
          }
        }
        return nullptr;
      },
      elements_);
}

VariableType DynVar::dynTypeOf(VariableType elementType) noexcept {
  switch (elementType) {
    case BIT_VAR:
      return DYNBIT_VAR;
    case INTEGER_VAR:
      return DYNINTEGER_VAR;
    case UINTEGER_VAR:
      return DYNUINTEGER_VAR;
    case FLOAT_VAR:
      return DYNFLOAT_VAR;
    case TEXT_VAR:
      return DYNTEXT_VAR;
    case BIT32_VAR:
      return DYNBIT32_VAR;
    case CHAR_VAR:
      return DYNCHAR_VAR;
    default:
      return NOTYPE_VAR;
  }
}

VariableType DynVar::elementTypeOf(VariableType dynType) noexcept {
  switch (dynType) {
    case DYNBIT_VAR:
      return BIT_VAR;
    case DYNINTEGER_VAR:
      return INTEGER_VAR;
    case DYNUINTEGER_VAR:
      return UINTEGER_VAR;
    case DYNFLOAT_VAR:
      return FLOAT_VAR;
    case DYNTEXT_VAR:
      return TEXT_VAR;
    case DYNBIT32_VAR:
      return BIT32_VAR;
    case DYNCHAR_VAR:
      return CHAR_VAR;
    default:
      return NOTYPE_VAR;
  }
}
