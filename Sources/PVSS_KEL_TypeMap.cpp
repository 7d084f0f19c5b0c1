#include "PVSS_KEL_TypeMap.h"

#include <pvss/Bit32Var.h>
#include <pvss/BitVar.h>
#include <pvss/CharVar.h>
#include <pvss/DpElementType.h>
#include <pvss/DynVar.h>
#include <pvss/FloatVar.h>
#include <pvss/IntegerVar.h>
#include <pvss/TextVar.h>
#include <pvss/UIntegerVar.h>

#include <array>
#include <cstdint>
#include <memory>
#include <type_traits>

namespace {

// --- Kel to PVSS

/// The library's name of a field: none at all for the unnamed value.
const char* fieldName(const std::string& tag) {
  return tag.empty() ? nullptr : tag.c_str();
}
const char* fieldName(const CharString& tag) {
  const char* const text = tag;
  return *text == 0 ? nullptr : text;
}

/// A field's value as the variable type holds it.
template <typename Var, typename Value>
auto held(Value value) {
  if constexpr (std::is_same_v<Var, BitVar>) {
    return value != 0;
  } else if constexpr (std::is_same_v<Var, Bit32Var>) {
    return static_cast<std::uint32_t>(static_cast<std::uint8_t>(value));
  } else if constexpr (std::is_same_v<Var, IntegerVar>) {
    return static_cast<std::int32_t>(value);  // of 64 bits the low 32, whatever is lost
  } else if constexpr (std::is_same_v<Var, FloatVar>) {
    return static_cast<double>(value);
  } else {
    return value;
  }
}

template <typename Var, auto extract>
class CkelScalarToPVSS : public CkelToPVSSTypeConverter {
 public:
  VariablePtr convert(const std::string& tag, KelData& data) const override {
    return new Var(held<Var>((data.*extract)(fieldName(tag))));
  }
};

template <typename Var, VariableType elementType, auto extract>
class CkelArrayToPVSS : public CkelToPVSSTypeConverter {
 public:
  VariablePtr convert(const std::string& tag, KelData& data) const override {
    int count = 0;
    const auto* const values = (data.*extract)(count, fieldName(tag));
    auto array = std::make_unique<DynVar>(elementType);
    for (int i = 0; i < count; ++i) {
      array->append(Var(held<Var>(values[i])));
    }
    return array.release();
  }
};

class CkelBoolToPVSS final : public CkelScalarToPVSS<BitVar, &KelData::extractBool> {};
class CkelByteToPVSS final : public CkelScalarToPVSS<Bit32Var, &KelData::extractByte> {};
class CkelShortToPVSS final : public CkelScalarToPVSS<IntegerVar, &KelData::extractShort> {};
class CkelIntToPVSS final : public CkelScalarToPVSS<IntegerVar, &KelData::extractInt> {};
class CkelLongToPVSS final : public CkelScalarToPVSS<IntegerVar, &KelData::extractLong> {};
class CkelFloatToPVSS final : public CkelScalarToPVSS<FloatVar, &KelData::extractFloat> {};
class CkelDoubleToPVSS final : public CkelScalarToPVSS<FloatVar, &KelData::extractDouble> {};
class CkelStringToPVSS final : public CkelScalarToPVSS<TextVar, &KelData::extractCString> {};
class CkelBoolArrayToPVSS final : public CkelArrayToPVSS<BitVar, BIT_VAR, &KelData::extractBoolArray> {};
class CkelByteArrayToPVSS final : public CkelArrayToPVSS<Bit32Var, BIT32_VAR, &KelData::extractByteArray> {};
class CkelShortArrayToPVSS final
    : public CkelArrayToPVSS<IntegerVar, INTEGER_VAR, &KelData::extractShortArray> {};
class CkelIntArrayToPVSS final : public CkelArrayToPVSS<IntegerVar, INTEGER_VAR, &KelData::extractIntArray> {
};
class CkelLongArrayToPVSS final
    : public CkelArrayToPVSS<IntegerVar, INTEGER_VAR, &KelData::extractLongArray> {};
class CkelFloatArrayToPVSS final : public CkelArrayToPVSS<FloatVar, FLOAT_VAR, &KelData::extractFloatArray> {
};
class CkelDoubleArrayToPVSS final
    : public CkelArrayToPVSS<FloatVar, FLOAT_VAR, &KelData::extractDoubleArray> {};
class CkelStringArrayToPVSS final : public CkelArrayToPVSS<TextVar, TEXT_VAR, &KelData::extractCStringArray> {
};

constinit CkelBoolToPVSS kelBoolToPVSSConverter;
constinit CkelByteToPVSS kelByteToPVSSConverter;
constinit CkelShortToPVSS kelShortToPVSSConverter;
constinit CkelIntToPVSS kelIntToPVSSConverter;
constinit CkelLongToPVSS kelLongToPVSSConverter;
constinit CkelFloatToPVSS kelFloatToPVSSConverter;
constinit CkelDoubleToPVSS kelDoubleToPVSSConverter;
constinit CkelStringToPVSS kelStringToPVSSConverter;
constinit CkelBoolArrayToPVSS kelBoolArrayToPVSSConverter;
constinit CkelByteArrayToPVSS kelByteArrayToPVSSConverter;
constinit CkelShortArrayToPVSS kelShortArrayToPVSSConverter;
constinit CkelIntArrayToPVSS kelIntArrayToPVSSConverter;
constinit CkelLongArrayToPVSS kelLongArrayToPVSSConverter;
constinit CkelFloatArrayToPVSS kelFloatArrayToPVSSConverter;
constinit CkelDoubleArrayToPVSS kelDoubleArrayToPVSSConverter;
constinit CkelStringArrayToPVSS kelStringArrayToPVSSConverter;

// --- PVSS to Kel

void requireValue(const Variable* value) {
  if (value == nullptr) {
    throw BadTypeConversionException(BADTYPE);
  }
}

/// A text's characters, the empty text when it has none.
const char* charactersOf(const TextVar& text) {
  const char* const characters = text.getValue();
  return characters != nullptr ? characters : "";
}

/// A variable's value as the Kel field type holds it.
template <typename Field, typename Var>
Field published(const Var& variable) {
  if constexpr (std::is_same_v<Var, TextVar>) {
    return charactersOf(variable);
  } else if constexpr (std::is_same_v<Field, std::string>) {
    return std::string(1, variable.getValue());
  } else {
    return static_cast<Field>(variable.getValue());  // floats lose width, patterns become signed
  }
}

template <typename Var, typename Field>
class CpvssScalarToKel : public CpvssToKelTypeConverter {
 public:
  void convert(KelData& data, Variable* value, const CharString& tag) const override {
    requireValue(value);
    data.insert(published<Field>(static_cast<const Var&>(*value)), fieldName(tag));
  }
};

template <typename Var, VariableType arrayType, typename Field>
class CpvssArrayToKel : public CpvssToKelTypeConverter {
 public:
  void convert(KelData& data, Variable* value, const CharString& tag) const override {
    requireValue(value);
    if (value->isA() != arrayType) {
      throw BadTypeConversionException(BADTYPE);
    }
    const auto& array = static_cast<const DynVar&>(*value);
    const unsigned int count = array.getNumberOfItems();
    const auto fields = std::make_unique<Field[]>(count);
    unsigned int next = 0;
    for (const Variable* item = array.getFirstVar(); item != nullptr && next < count;
         item = array.getNextVar()) {
      fields[next++] = published<Field>(static_cast<const Var&>(*item));
    }
    const Field* const first = fields.get();
    data.insert(first, static_cast<int>(next), fieldName(tag));
  }
};

class CpvssBoolToKel final : public CpvssScalarToKel<BitVar, bool> {};
class CpvssIntToKel final : public CpvssScalarToKel<IntegerVar, int> {};
class CpvssBit32ToKel final : public CpvssScalarToKel<Bit32Var, int> {};
class CpvssUnsignedToKel final : public CpvssScalarToKel<UIntegerVar, std::int64_t> {};
class CpvssFloatToKel final : public CpvssScalarToKel<FloatVar, float> {};
class CpvssStringToKel final : public CpvssScalarToKel<TextVar, const char*> {};

/// A character is published as a text of one character; the NUL character as the empty text.
class CpvssCharToKel final : public CpvssToKelTypeConverter {
 public:
  void convert(KelData& data, Variable* value, const CharString& tag) const override {
    requireValue(value);
    const std::array<char, 2> text{static_cast<const CharVar&>(*value).getValue(), '\0'};
    data.insert(static_cast<const char*>(text.data()), fieldName(tag));
  }
};

class CpvssBoolArrayToKel final : public CpvssArrayToKel<BitVar, DYNBIT_VAR, bool> {};
/// One text of one character an element; a NUL character is kept as such, unlike in the scalar form.
class CpvssCharArrayToKel final : public CpvssArrayToKel<CharVar, DYNCHAR_VAR, std::string> {};
class CpvssIntArrayToKel final : public CpvssArrayToKel<IntegerVar, DYNINTEGER_VAR, int> {};
class CpvssBit32ArrayToKel final : public CpvssArrayToKel<Bit32Var, DYNBIT32_VAR, int> {};
class CpvssUnsignedArrayToKel final : public CpvssArrayToKel<UIntegerVar, DYNUINTEGER_VAR, std::int64_t> {};
class CpvssFloatArrayToKel final : public CpvssArrayToKel<FloatVar, DYNFLOAT_VAR, float> {};
class CpvssStringArrayToKel final : public CpvssArrayToKel<TextVar, DYNTEXT_VAR, const char*> {};

constinit CpvssBoolToKel pvssBoolToKelConverter;
constinit CpvssCharToKel pvssCharToKelConverter;
constinit CpvssIntToKel pvssIntToKelConverter;
constinit CpvssBit32ToKel pvssBit32ToKelConverter;
constinit CpvssUnsignedToKel pvssUnsignedToKelConverter;
constinit CpvssFloatToKel pvssFloatToKelConverter;
constinit CpvssStringToKel pvssStringToKelConverter;
constinit CpvssBoolArrayToKel pvssBoolArrayToKelConverter;
constinit CpvssCharArrayToKel pvssCharArrayToKelConverter;
constinit CpvssIntArrayToKel pvssIntArrayToKelConverter;
constinit CpvssBit32ArrayToKel pvssBit32ArrayToKelConverter;
constinit CpvssUnsignedArrayToKel pvssUnsignedArrayToKelConverter;
constinit CpvssFloatArrayToKel pvssFloatArrayToKelConverter;
constinit CpvssStringArrayToKel pvssStringArrayToKelConverter;

// --- the tables

struct KelToPvssRow {
  int kelType;
  DpElementType dpeType;
  const CkelToPVSSTypeConverter& converter;
};

constinit const std::array kelToPvssRows{
    KelToPvssRow{1, DPELEMENT_BIT, kelBoolToPVSSConverter},
    KelToPvssRow{2, DPELEMENT_32BIT, kelByteToPVSSConverter},
    KelToPvssRow{3, DPELEMENT_INT, kelShortToPVSSConverter},
    KelToPvssRow{4, DPELEMENT_INT, kelIntToPVSSConverter},
    KelToPvssRow{5, DPELEMENT_INT, kelLongToPVSSConverter},
    KelToPvssRow{6, DPELEMENT_FLOAT, kelFloatToPVSSConverter},
    KelToPvssRow{7, DPELEMENT_FLOAT, kelDoubleToPVSSConverter},
    KelToPvssRow{8, DPELEMENT_TEXT, kelStringToPVSSConverter},
    KelToPvssRow{10, DPELEMENT_DYNBIT, kelBoolArrayToPVSSConverter},
    KelToPvssRow{20, DPELEMENT_DYN32BIT, kelByteArrayToPVSSConverter},
    KelToPvssRow{30, DPELEMENT_DYNINT, kelShortArrayToPVSSConverter},
    KelToPvssRow{40, DPELEMENT_DYNINT, kelIntArrayToPVSSConverter},
    KelToPvssRow{50, DPELEMENT_DYNINT, kelLongArrayToPVSSConverter},
    KelToPvssRow{60, DPELEMENT_DYNFLOAT, kelFloatArrayToPVSSConverter},
    KelToPvssRow{70, DPELEMENT_DYNFLOAT, kelDoubleArrayToPVSSConverter},
    KelToPvssRow{80, DPELEMENT_DYNTEXT, kelStringArrayToPVSSConverter},
};

struct PvssToKelRow {
  DpElementType dpeType;
  CpvssToKelTypeConverter& converter;
};

constinit const std::array pvssToKelRows{
    PvssToKelRow{DPELEMENT_BIT, pvssBoolToKelConverter},
    PvssToKelRow{DPELEMENT_CHAR, pvssCharToKelConverter},
    PvssToKelRow{DPELEMENT_INT, pvssIntToKelConverter},
    PvssToKelRow{DPELEMENT_32BIT, pvssBit32ToKelConverter},
    PvssToKelRow{DPELEMENT_UINT, pvssUnsignedToKelConverter},
    PvssToKelRow{DPELEMENT_FLOAT, pvssFloatToKelConverter},
    PvssToKelRow{DPELEMENT_TEXT, pvssStringToKelConverter},
    PvssToKelRow{DPELEMENT_DYNBIT, pvssBoolArrayToKelConverter},
    PvssToKelRow{DPELEMENT_DYNCHAR, pvssCharArrayToKelConverter},
    PvssToKelRow{DPELEMENT_DYNINT, pvssIntArrayToKelConverter},
    PvssToKelRow{DPELEMENT_DYN32BIT, pvssBit32ArrayToKelConverter},
    PvssToKelRow{DPELEMENT_DYNUINT, pvssUnsignedArrayToKelConverter},
    PvssToKelRow{DPELEMENT_DYNFLOAT, pvssFloatArrayToKelConverter},
    PvssToKelRow{DPELEMENT_DYNTEXT, pvssStringArrayToKelConverter},
};

// The tables are made by whoever needs them first, so no order of static initialisation can come in between,
// and are never destroyed.
std::vector<TConv*>& kelToPvssTable() {
  static auto& table = *new std::vector<TConv*>;
  return table;
}

std::map<int, CpvssToKelTypeConverter*>& pvssToKelTable() {
  static auto& table = *new std::map<int, CpvssToKelTypeConverter*>;
  return table;
}

void completeTables() {
  static const TMap filled;
}

const TMap mapInitialiser;

}  // namespace

const std::vector<TConv*>& TMap::kelToPvsstypeConverterList = kelToPvssTable();
const std::map<int, CpvssToKelTypeConverter*>& TMap::pvssToKelTypeConverterMap = pvssToKelTable();

TMap::TMap() {
  if (!kelToPvssTable().empty()) {
    return;
  }
  for (const KelToPvssRow& row : kelToPvssRows) {
    kelToPvssTable().push_back(new TConv(row.kelType, row.dpeType, row.converter));
  }
  for (const PvssToKelRow& row : pvssToKelRows) {
    pvssToKelTable().emplace(row.dpeType, &row.converter);
  }
}

TConv* TMap::findKelToDpeConverterFor(int kelType, int dpeType) {
  completeTables();
  for (TConv* const entry : kelToPvssTable()) {
    if (entry->willConvert(kelType, dpeType)) {
      return entry;
    }
  }
  throw BadTypeConversionException(UNSUPPORTEDTYPE);
}

CpvssToKelTypeConverter* TMap::findDpeToKelConverterFor(int dpeType) {
  completeTables();
  const auto found = pvssToKelTable().find(dpeType);
  if (found == pvssToKelTable().end()) {
    throw BadTypeConversionException(UNSUPPORTEDTYPE);
  }
  return found->second;
}

int TConv::convertKELToPVSSQuality(int kelQuality) {
  switch (kelQuality) {
    case 1:
      return 3;
    case 2:
      return 1;
    case 0:
    case -1:
      return 0;
    default:
      throw BadTypeConversionException(UNSUPPORTEDTYPE);
  }
}
