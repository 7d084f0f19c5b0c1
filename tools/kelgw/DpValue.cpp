#include "DpValue.h"

#include <fmt/format.h>

#include <algorithm>
#include <cmath>
#include <cstdlib>

#include "Command.h"
#include "Pattern.h"
#include "Times.h"
#include "pvss/DynVar.h"

namespace kelgw {
namespace {

struct TypeRow {
  DpElementType type;
  const char* name;
  DatumType datum;
};

constexpr TypeRow typeRows[] = {
    {DPELEMENT_BIT, "bit", {Kind::boolean, false}},
    {DPELEMENT_CHAR, "char", {Kind::char8, false}},
    {DPELEMENT_INT, "int", {Kind::int32, false}},
    {DPELEMENT_UINT, "uint", {Kind::uint32, false}},
    {DPELEMENT_32BIT, "bit32", {Kind::bits32, false}},
    {DPELEMENT_FLOAT, "float", {Kind::float64, false}},
    {DPELEMENT_TEXT, "text", {Kind::text, false}},
    {DPELEMENT_DYNBIT, "dyn_bit", {Kind::boolean, true}},
    {DPELEMENT_DYNCHAR, "dyn_char", {Kind::char8, true}},
    {DPELEMENT_DYNINT, "dyn_int", {Kind::int32, true}},
    {DPELEMENT_DYNUINT, "dyn_uint", {Kind::uint32, true}},
    {DPELEMENT_DYN32BIT, "dyn_bit32", {Kind::bits32, true}},
    {DPELEMENT_DYNFLOAT, "dyn_float", {Kind::float64, true}},
    {DPELEMENT_DYNTEXT, "dyn_text", {Kind::text, true}},
};

VariableType variableTypeOf(Kind kind) {
  switch (kind) {
    case Kind::boolean:
      return BIT_VAR;
    case Kind::char8:
      return CHAR_VAR;
    case Kind::uint32:
      return UINTEGER_VAR;
    case Kind::bits32:
      return BIT32_VAR;
    case Kind::float64:
      return FLOAT_VAR;
    case Kind::text:
      return TEXT_VAR;
    default:
      return INTEGER_VAR;
  }
}

Kind kindOf(VariableType type) {
  switch (type) {
    case BIT_VAR:
      return Kind::boolean;
    case CHAR_VAR:
      return Kind::char8;
    case UINTEGER_VAR:
      return Kind::uint32;
    case BIT32_VAR:
      return Kind::bits32;
    case FLOAT_VAR:
      return Kind::float64;
    case TEXT_VAR:
      return Kind::text;
    default:
      return Kind::int32;
  }
}

Item itemOf(const Variable& value) {
  switch (value.isA()) {
    case BIT_VAR:
      return static_cast<const BitVar&>(value).getValue() != 0;
    case CHAR_VAR:
      return std::int64_t{static_cast<unsigned char>(static_cast<const CharVar&>(value).getValue())};
    case INTEGER_VAR:
      return std::int64_t{static_cast<const IntegerVar&>(value).getValue()};
    case UINTEGER_VAR:
      return std::int64_t{static_cast<const UIntegerVar&>(value).getValue()};
    case BIT32_VAR:
      return std::int64_t{static_cast<const Bit32Var&>(value).getValue()};
    case FLOAT_VAR:
      return static_cast<const FloatVar&>(value).getValue();
    case TEXT_VAR:
      return static_cast<const TextVar&>(value).getString().str();
    default:
      throw DatumError("a value of a type that this tool does not know");
  }
}

std::unique_ptr<Variable> makeScalar(Kind kind, const Item& item) {
  switch (kind) {
    case Kind::boolean:
      return std::make_unique<BitVar>(static_cast<PVSSboolean>(std::get<bool>(item)));
    case Kind::char8:
      return std::make_unique<CharVar>(static_cast<char>(std::get<std::int64_t>(item)));
    case Kind::uint32:
      return std::make_unique<UIntegerVar>(static_cast<std::uint32_t>(std::get<std::int64_t>(item)));
    case Kind::bits32:
      return std::make_unique<Bit32Var>(static_cast<std::uint32_t>(std::get<std::int64_t>(item)));
    case Kind::float64:
      return std::make_unique<FloatVar>(std::get<double>(item));
    case Kind::text: {
      const std::string& text = std::get<std::string>(item);
      if (text.find('\0') != std::string::npos) {
        throw DatumError("a text element cannot hold the byte 0");
      }
      return std::make_unique<TextVar>(CharString(text));
    }
    default:
      return std::make_unique<IntegerVar>(static_cast<std::int32_t>(std::get<std::int64_t>(item)));
  }
}

bool sameItem(const Item& left, const Item& right) {
  if (const auto* number = std::get_if<double>(&left)) {
    const auto* other = std::get_if<double>(&right);
    return other != nullptr && ((std::isnan(*number) && std::isnan(*other)) ||
                                (*number == *other && std::signbit(*number) == std::signbit(*other)));
  }
  return left == right;
}

}  // namespace

std::string_view typeName(DpElementType type) {
  for (const TypeRow& row : typeRows) {
    if (row.type == type) {
      return row.name;
    }
  }
  return type == DPELEMENT_NOELEMENT ? "none" : "unknown";
}

std::optional<DatumType> datumTypeOf(DpElementType type) {
  for (const TypeRow& row : typeRows) {
    if (row.type == type) {
      return row.datum;
    }
  }
  return std::nullopt;
}

Datum datumOf(const Variable& value) {
  const VariableType elementType = DynVar::elementTypeOf(value.isA());
  if (elementType == NOTYPE_VAR) {
    return {{kindOf(value.isA()), false}, {itemOf(value)}};
  }
  const auto& list = static_cast<const DynVar&>(value);
  Datum datum{{kindOf(elementType), true}, {}};
  datum.items.reserve(list.getNumberOfItems());
  for (std::size_t index = 0; index < list.getNumberOfItems(); ++index) {
    datum.items.push_back(itemOf(list[index]));
  }
  return datum;
}

std::shared_ptr<const Variable> variableOf(const Datum& datum) {
  if (!datum.type.list) {
    return makeScalar(datum.type.kind, datum.items.at(0));
  }
  auto list = std::make_shared<DynVar>(variableTypeOf(datum.type.kind));
  list->reserve(datum.items.size());
  for (const Item& item : datum.items) {
    list->append(*makeScalar(datum.type.kind, item));
  }
  return list;
}

bool sameValue(const Variable* left, const Variable* right) {
  if (left == nullptr || right == nullptr || left->isA() != right->isA()) {
    return left == right;
  }
  const Datum one = datumOf(*left);
  const Datum other = datumOf(*right);
  return std::equal(one.items.begin(), one.items.end(), other.items.begin(), other.items.end(), sameItem);
}

std::string elementName(std::string_view text) {
  const std::size_t colon = text.find(':');
  if (colon == std::string_view::npos) {
    return std::string(text);
  }
  // "System1:Dp.element:_original.._value", each outer piece optional.
  const std::string_view behind = text.substr(colon + 1);
  if (behind.starts_with('_')) {
    return std::string(text.substr(0, colon));
  }
  return std::string(behind.substr(0, behind.find(':')));
}

Json jsonOf(const pvss::StoreReading& reading) {
  Json::Object object{{"name", Json(reading.name)}, {"type", Json(std::string(typeName(reading.type)))}};
  object.emplace_back("value", reading.value ? Json(datumOf(*reading.value)) : Json());
  object.emplace_back("invalid", Json(reading.invalid));
  object.emplace_back("userbit1", Json(reading.userBit1));
  object.emplace_back("userbit2", Json(reading.userBit2));
  object.emplace_back("stime", reading.valueTimeMs == 0 ? Json() : Json(showTimeMs(reading.valueTimeMs)));
  object.emplace_back("stimeMs", Json(reading.valueTimeMs));
  object.emplace_back("flagTimeMs", Json(reading.invalidTimeMs));
  return object;
}

std::string showValue(const pvss::StoreReading& reading, std::size_t widest) {
  return reading.value ? showDatum(datumOf(*reading.value), widest) : "-";
}

pvss::StoreAdmin openStore(const Settings& settings) {
  if (settings.store.empty()) {
    const char* const variable = std::getenv("PVSS_STORE");
    if (variable == nullptr || *variable == '\0') {
      throw CommandError(exitBadInput,
                         "no store is named: set PVSS_STORE or use --store, for example "
                         "--store redis+unix:///run/redis/redis.sock");
    }
  }
  return pvss::StoreAdmin(settings.store, settings.limit());
}

std::vector<std::string> expandNames(pvss::StoreAdmin& store, const std::vector<std::string>& wanted) {
  const std::vector<pvss::StoreElement> catalogue = store.listElements();
  std::vector<std::string> names;
  const auto add = [&](const std::string& name) {
    if (std::find(names.begin(), names.end(), name) == names.end()) {
      names.push_back(name);
    }
  };
  for (const std::string& text : wanted) {
    const std::string pattern = elementName(text);
    bool found = false;
    for (const pvss::StoreElement& element : catalogue) {
      if (element.name == pattern || (isPattern(pattern) && matches(pattern, element.name))) {
        add(element.name);
        found = true;
      }
    }
    if (!found) {
      throw CommandError(
          exitNotHeld,
          fmt::format("no element is called \"{}\" (`kelgw dp ls` lists them all)", escapeText(text)));
    }
  }
  return names;
}

}  // namespace kelgw
