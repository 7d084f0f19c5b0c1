#include "store/ValueCodec.h"

#include <array>
#include <charconv>
#include <cmath>
#include <limits>
#include <type_traits>
#include <vector>

#include "pvss/DynVar.h"

namespace pvss {

namespace {

template <class Number>
void appendNumber(Number number, std::string& text) {
  std::array<char, 40> buffer{};
  const auto result = std::to_chars(buffer.data(), buffer.data() + buffer.size(), number);
  text.append(buffer.data(), result.ptr);
}

void append(const BitVar& value, std::string& text) {
  text += value.getValue() ? '1' : '0';
}
void append(const CharVar& value, std::string& text) {
  appendNumber(static_cast<unsigned>(static_cast<unsigned char>(value.getValue())), text);
}
void append(const IntegerVar& value, std::string& text) {
  appendNumber(value.getValue(), text);
}
void append(const UIntegerVar& value, std::string& text) {
  appendNumber(value.getValue(), text);
}
void append(const Bit32Var& value, std::string& text) {
  appendNumber(value.getValue(), text);
}
void append(const FloatVar& value, std::string& text) {
  const double number = value.getValue();
  if (std::isnan(number)) {
    text += "nan";  // without sign or payload, so that every NaN has one form
  } else if (std::isinf(number)) {
    text += number > 0 ? "inf" : "-inf";
  } else {
    appendNumber(number, text);
  }
}
void append(const TextVar& value, std::string& text) {
  text += value.getString().str();
}

void append(const DynVar& value, std::string& text) {
  std::visit(
      [&text](const auto& vector) {
        using Vector = std::decay_t<decltype(vector)>;
        if constexpr (std::is_same_v<Vector, std::vector<TextVar>>) {
          for (const TextVar& element : vector) {
            appendNumber(element.getString().len(), text);
            text += ':';
            append(element, text);
          }
        } else if constexpr (!std::is_same_v<Vector, std::monostate>) {
          const char* separator = "";
          for (const auto& element : vector) {
            text += separator;
            append(element, text);
            separator = ",";
          }
        }
      },
      value.elements());
}

template <class Number>
bool parseNumber(std::string_view text, Number& number) {
  const auto result = std::from_chars(text.data(), text.data() + text.size(), number);
  return result.ec == std::errc() && result.ptr == text.data() + text.size() && !text.empty();
}

bool parse(std::string_view text, BitVar& value) {
  if (text != "0" && text != "1") {
    return false;
  }
  value.setValue(text == "1");
  return true;
}

bool parse(std::string_view text, CharVar& value) {
  unsigned number = 0;
  if (!parseNumber(text, number) || number > std::numeric_limits<unsigned char>::max()) {
    return false;
  }
  value.setValue(static_cast<char>(number));
  return true;
}

template <class Var>
bool parse(std::string_view text, Var& value) {
  decltype(value.getValue()) number{};
  if (!parseNumber(text, number)) {
    return false;
  }
  value.setValue(number);
  return true;
}

template <class Var>
constexpr std::string_view expected() {
  if constexpr (std::is_same_v<Var, BitVar>) {
    return "0 or 1";
  } else if constexpr (std::is_same_v<Var, CharVar>) {
    return "a number from 0 to 255";
  } else if constexpr (std::is_same_v<Var, FloatVar>) {
    return "a number, nan, inf or -inf";
  } else if constexpr (std::is_same_v<Var, IntegerVar>) {
    return "a whole number from -2147483648 to 2147483647";
  } else {
    return "a whole number from 0 to 4294967295";
  }
}

// The text may come from anywhere: as much of it as fits a line, and nothing that disturbs one.
std::string shown(std::string_view text) {
  std::string result = "'";
  for (const char byte : text.substr(0, 40)) {
    result += static_cast<unsigned char>(byte) < 0x20 ? '?' : byte;
  }
  result += text.size() > 40 ? "...'" : "'";
  return result;
}

template <class Var>
SharedValue parseScalar(std::string_view text, std::string& error) {
  auto value = std::make_shared<Var>();
  if (!parse(text, *value)) {
    error = shown(text) + " is not " + std::string(expected<Var>());
    return nullptr;
  }
  return value;
}

bool hasNul(std::string_view text) {
  return text.find('\0') != std::string_view::npos;
}

SharedValue parseText(std::string_view text, std::string& error) {
  if (hasNul(text)) {
    error = "a text cannot hold the NUL character";
    return nullptr;
  }
  return std::make_shared<const TextVar>(CharString(text));
}

template <class Var>
SharedValue parseArray(VariableType elementType, std::string_view text, std::string& error) {
  auto array = std::make_shared<DynVar>(elementType);
  auto& elements = std::get<std::vector<Var>>(array->elements());
  while (!text.empty()) {
    const std::size_t comma = text.find(',');
    const std::string_view element = text.substr(0, comma);
    Var value;
    if (!parse(element, value)) {
      error = "element " + std::to_string(elements.size() + 1) + ": " + shown(element) + " is not " +
              std::string(expected<Var>());
      return nullptr;
    }
    elements.push_back(value);
    if (comma == std::string_view::npos) {
      break;
    }
    text.remove_prefix(comma + 1);
    if (text.empty()) {
      error = "element " + std::to_string(elements.size() + 1) + " is missing behind the last comma";
      return nullptr;
    }
  }
  return array;
}

SharedValue parseTexts(std::string_view text, std::string& error) {
  auto array = std::make_shared<DynVar>(TEXT_VAR);
  auto& elements = std::get<std::vector<TextVar>>(array->elements());
  while (!text.empty()) {
    const std::size_t colon = text.find(':');
    std::size_t length = 0;
    if (colon == std::string_view::npos || !parseNumber(text.substr(0, colon), length) ||
        length > text.size() - colon - 1) {
      error = "element " + std::to_string(elements.size() + 1) + ": no length and text at " + shown(text);
      return nullptr;
    }
    const std::string_view element = text.substr(colon + 1, length);
    if (hasNul(element)) {
      error = "element " + std::to_string(elements.size() + 1) + ": a text cannot hold the NUL character";
      return nullptr;
    }
    elements.emplace_back(CharString(element));
    text.remove_prefix(colon + 1 + length);
  }
  return array;
}

}  // namespace

bool appendValueText(const Variable& value, std::string& text) {
  switch (value.isA()) {
    case BIT_VAR:
      append(static_cast<const BitVar&>(value), text);
      return true;
    case CHAR_VAR:
      append(static_cast<const CharVar&>(value), text);
      return true;
    case INTEGER_VAR:
      append(static_cast<const IntegerVar&>(value), text);
      return true;
    case UINTEGER_VAR:
      append(static_cast<const UIntegerVar&>(value), text);
      return true;
    case BIT32_VAR:
      append(static_cast<const Bit32Var&>(value), text);
      return true;
    case FLOAT_VAR:
      append(static_cast<const FloatVar&>(value), text);
      return true;
    case TEXT_VAR:
      append(static_cast<const TextVar&>(value), text);
      return true;
    default:
      if (DynVar::elementTypeOf(value.isA()) == NOTYPE_VAR) {
        return false;
      }
      append(static_cast<const DynVar&>(value), text);
      return true;
  }
}

std::string valueText(const Variable& value) {
  std::string text;
  appendValueText(value, text);
  return text;
}

SharedValue parseValueText(DpElementType type, std::string_view text, std::string& error) {
  switch (type) {
    case DPELEMENT_BIT:
      return parseScalar<BitVar>(text, error);
    case DPELEMENT_CHAR:
      return parseScalar<CharVar>(text, error);
    case DPELEMENT_INT:
      return parseScalar<IntegerVar>(text, error);
    case DPELEMENT_UINT:
      return parseScalar<UIntegerVar>(text, error);
    case DPELEMENT_32BIT:
      return parseScalar<Bit32Var>(text, error);
    case DPELEMENT_FLOAT:
      return parseScalar<FloatVar>(text, error);
    case DPELEMENT_TEXT:
      return parseText(text, error);
    case DPELEMENT_DYNBIT:
      return parseArray<BitVar>(BIT_VAR, text, error);
    case DPELEMENT_DYNCHAR:
      return parseArray<CharVar>(CHAR_VAR, text, error);
    case DPELEMENT_DYNINT:
      return parseArray<IntegerVar>(INTEGER_VAR, text, error);
    case DPELEMENT_DYNUINT:
      return parseArray<UIntegerVar>(UINTEGER_VAR, text, error);
    case DPELEMENT_DYN32BIT:
      return parseArray<Bit32Var>(BIT32_VAR, text, error);
    case DPELEMENT_DYNFLOAT:
      return parseArray<FloatVar>(FLOAT_VAR, text, error);
    case DPELEMENT_DYNTEXT:
      return parseTexts(text, error);
    default:
      error = "the element type has no text form";
      return nullptr;
  }
}

}  // namespace pvss
