#include "KelValue.h"

#include <fmt/format.h>
#include <kel/KelBrowser.h>
#include <kel/KelData.h>

#include <algorithm>
#include <cstdlib>
#include <deque>
#include <limits>
#include <memory>

#include "Command.h"
#include "Times.h"

namespace kelgw {
namespace {

struct TypeRow {
  int id;
  const char* name;
  Kind kind;
};

constexpr TypeRow typeRows[] = {
    {1, "boolean", Kind::boolean}, {2, "byte", Kind::byte8},  {3, "short", Kind::int16},
    {4, "int", Kind::int32},       {5, "long", Kind::int64},  {6, "float", Kind::float32},
    {7, "double", Kind::float64},  {8, "string", Kind::text},
};

template <typename Element, typename Stored>
std::vector<Item> itemsOf(const Element* first, int count) {
  std::vector<Item> items;
  items.reserve(static_cast<std::size_t>(std::max(count, 0)));
  for (int index = 0; index < count; ++index) {
    items.emplace_back(static_cast<Stored>(first[index]));
  }
  return items;
}

std::vector<Item> arrayOf(const KelData& record, Kind kind, const char* tag) {
  int count = 0;
  switch (kind) {
    case Kind::boolean: {
      const bool* const first = record.extractBoolArray(count, tag);
      return itemsOf<bool, bool>(first, count);
    }
    case Kind::byte8: {
      const unsigned char* const first = record.extractByteArray(count, tag);
      return itemsOf<unsigned char, std::int64_t>(first, count);
    }
    case Kind::int16: {
      const short* const first = record.extractShortArray(count, tag);
      return itemsOf<short, std::int64_t>(first, count);
    }
    case Kind::int32: {
      const int* const first = record.extractIntArray(count, tag);
      return itemsOf<int, std::int64_t>(first, count);
    }
    case Kind::int64: {
      const std::int64_t* const first = record.extractLongArray(count, tag);
      return itemsOf<std::int64_t, std::int64_t>(first, count);
    }
    case Kind::float32: {
      const float* const first = record.extractFloatArray(count, tag);
      return itemsOf<float, float>(first, count);
    }
    case Kind::float64: {
      const double* const first = record.extractDoubleArray(count, tag);
      return itemsOf<double, double>(first, count);
    }
    default: {
      const char* const* const first = record.extractCStringArray(count, tag);
      return itemsOf<const char*, std::string>(first, count);
    }
  }
}

Item scalarOf(const KelData& record, Kind kind, const char* tag) {
  switch (kind) {
    case Kind::boolean:
      return record.extractBool(tag);
    case Kind::byte8:
      return std::int64_t{record.extractByte(tag)};
    case Kind::int16:
      return std::int64_t{record.extractShort(tag)};
    case Kind::int32:
      return std::int64_t{record.extractInt(tag)};
    case Kind::int64:
      return record.extractLong(tag);
    case Kind::float32:
      return record.extractFloat(tag);
    case Kind::float64:
      return record.extractDouble(tag);
    default:
      return std::string(record.extractCString(tag));
  }
}

void insertScalar(KelData& record, Kind kind, const Item& item, const char* tag) {
  switch (kind) {
    case Kind::boolean:
      return record.insert(std::get<bool>(item), tag);
    case Kind::byte8:
      return record.insert(static_cast<unsigned char>(std::get<std::int64_t>(item)), tag);
    case Kind::int16:
      return record.insert(static_cast<short>(std::get<std::int64_t>(item)), tag);
    case Kind::int32:
      return record.insert(static_cast<int>(std::get<std::int64_t>(item)), tag);
    case Kind::int64:
      return record.insert(std::get<std::int64_t>(item), tag);
    case Kind::float32:
      return record.insert(std::get<float>(item), tag);
    case Kind::float64:
      return record.insert(std::get<double>(item), tag);
    default:
      return record.insert(std::get<std::string>(item).c_str(), tag);
  }
}

template <typename Element, typename Stored>
void insertElements(KelData& record, const std::vector<Item>& items, const char* tag) {
  // Not a vector: one of bool has no elements to point at.
  const auto elements = std::make_unique<Element[]>(items.size());
  for (std::size_t index = 0; index < items.size(); ++index) {
    elements[index] = static_cast<Element>(std::get<Stored>(items[index]));
  }
  record.insert(static_cast<const Element*>(elements.get()), static_cast<int>(items.size()), tag);
}

void insertArray(KelData& record, Kind kind, const std::vector<Item>& items, const char* tag) {
  switch (kind) {
    case Kind::boolean:
      return insertElements<bool, bool>(record, items, tag);
    case Kind::byte8:
      return insertElements<unsigned char, std::int64_t>(record, items, tag);
    case Kind::int16:
      return insertElements<short, std::int64_t>(record, items, tag);
    case Kind::int32:
      return insertElements<int, std::int64_t>(record, items, tag);
    case Kind::int64:
      return insertElements<std::int64_t, std::int64_t>(record, items, tag);
    case Kind::float32:
      return insertElements<float, float>(record, items, tag);
    case Kind::float64:
      return insertElements<double, double>(record, items, tag);
    default:
      return insertElements<std::string, std::string>(record, items, tag);
  }
}

bool isKelType(std::string_view name) {
  const std::string_view element = name.ends_with("[]") ? name.substr(0, name.size() - 2) : name;
  return std::any_of(std::begin(typeRows), std::end(typeRows),
                     [element](const TypeRow& row) { return element == row.name; });
}

}  // namespace

std::string kelTypeName(DatumType type) {
  for (const TypeRow& row : typeRows) {
    if (row.kind == type.kind) {
      return std::string(row.name) + (type.list ? "[]" : "");
    }
  }
  return "unknown";
}

std::string kelTypeName(int id) {
  for (const TypeRow& row : typeRows) {
    if (row.id == id || row.id * 10 == id) {
      return std::string(row.name) + (row.id == id ? "" : "[]");
    }
  }
  return id == 0 ? "none" : "unknown";
}

DatumType kelTypeOf(std::string_view name) {
  const bool list = name.ends_with("[]");
  const std::string_view element = list ? name.substr(0, name.size() - 2) : name;
  for (const TypeRow& row : typeRows) {
    if (element == row.name) {
      return {row.kind, list};
    }
  }
  throw DatumError(fmt::format(
      "\"{}\" is no Kel type: boolean byte short int long float double string, or one of them with [] behind",
      escapeText(name)));
}

KelField parseKelField(std::string_view text, bool escapes) {
  // A tag may hold '=' and ':' too: the first '=' counts that has a type and a ':' behind it.
  std::size_t equals = std::string_view::npos;
  std::size_t colon = std::string_view::npos;
  for (std::size_t at = text.find('='); at != std::string_view::npos; at = text.find('=', at + 1)) {
    const std::size_t behind = text.find(':', at);
    if (behind == std::string_view::npos) {
      break;
    }
    const bool known = isKelType(text.substr(at + 1, behind - at - 1));
    if (equals == std::string_view::npos || known) {
      equals = at;
      colon = behind;
    }
    if (known) {
      break;
    }
  }
  if (equals == std::string_view::npos) {
    throw DatumError(
        fmt::format("\"{}\" is not TAG=TYPE:VALUE, for example speed=float:12.5", escapeText(text)));
  }
  KelField field;
  field.tag = std::string(text.substr(0, equals));
  const std::string_view type = text.substr(equals + 1, colon - equals - 1);
  try {
    field.value = parseDatum(kelTypeOf(type), text.substr(colon + 1), escapes);
  } catch (const DatumError& error) {
    throw DatumError(fmt::format("field \"{}\": {}", escapeText(field.tag), error.what()));
  }
  return field;
}

std::string showKelField(const KelField& field, std::size_t widest) {
  return fmt::format("{}={}:{}", escapeText(field.tag), kelTypeName(field.value.type),
                     showDatum(field.value, widest));
}

std::vector<KelField> fieldsOf(const KelData& record) {
  std::vector<KelField> fields;
  for (std::size_t index = 0; index < record.size(); ++index) {
    const char* const tag = record.fieldName(index);
    const int id = record.getValueType(tag);
    const auto* const row = std::find_if(std::begin(typeRows), std::end(typeRows), [id](const TypeRow& each) {
      return each.id == id || each.id * 10 == id;
    });
    if (row == std::end(typeRows)) {
      continue;
    }
    KelField field{tag, {{row->kind, row->id != id}, {}}};
    if (field.value.type.list) {
      field.value.items = arrayOf(record, row->kind, tag);
    } else {
      field.value.items.push_back(scalarOf(record, row->kind, tag));
    }
    fields.push_back(std::move(field));
  }
  return fields;
}

void insertField(KelData& record, const KelField& field) {
  const char* const tag = field.tag.c_str();
  if (!field.value.type.list) {
    insertScalar(record, field.value.type.kind, field.value.items.at(0), tag);
  } else {
    insertArray(record, field.value.type.kind, field.value.items, tag);
  }
}

std::string qualityWord(int quality) {
  switch (quality) {
    case 1:
      return "good";
    case 0:
      return "bad";
    case -1:
      return "none";
    default:
      return fmt::format("{}", quality);
  }
}

Json jsonOf(const KelData& record) {
  Json::Object fields;
  for (const KelField& field : fieldsOf(record)) {
    fields.emplace_back(
        field.tag, Json::Object{{"type", Json(kelTypeName(field.value.type))}, {"value", Json(field.value)}});
  }
  const std::int64_t time = record.getTimestamp().timeNanoseconds;
  return Json::Object{{"quality", Json(record.getQuality())},
                      {"reason", Json(std::string(record.getReason()))},
                      {"time", Json(showTimeNs(time))},
                      {"timeNs", Json(time)},
                      {"publisher", Json(std::string(record.getPublisher()))},
                      {"sequence", Json(record.getSequence())},
                      {"fields", Json(std::move(fields))}};
}

std::string showFields(const KelData& record, std::size_t widest) {
  std::string shown;
  for (const KelField& field : fieldsOf(record)) {
    shown += shown.empty() ? "" : "  ";
    shown += showKelField(field, widest);
  }
  return shown;
}

std::string brokerAddress(const Settings& settings) {
  if (!settings.kel.empty()) {
    return settings.kel;
  }
  const char* const variable = std::getenv("KEL_URL");
  return variable != nullptr && *variable != '\0' ? variable : "mqtt://127.0.0.1:1883";
}

CommandError unreachableBroker(const Settings& settings, std::string_view reason) {
  // A reason that says what to look at needs no further advice.
  const bool advised = reason.find("; ") != std::string_view::npos;
  return {exitUnreachable,
          fmt::format("cannot reach the broker at {}: {}{}", escapeText(brokerAddress(settings)),
                      escapeText(reason),
                      advised ? "" : "; is it running, and is KEL_URL (or --kel) its address?")};
}

void requireBroker(const Settings& settings) {
  KelBrowser browser(settings.kel);
  if (!browser.look(settings.limit())) {
    throw unreachableBroker(settings, browser.error());
  }
}

}  // namespace kelgw
