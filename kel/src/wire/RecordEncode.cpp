#include <cstring>

#include "wire/ProtoWire.h"
#include "wire/RecordCodec.h"
#include "wire/Utf8.h"

namespace kel {
namespace {

using proto::key;
using proto::varintSize;
using proto::Writer;

// Field keys of the payload and of a metric; all but the last are one byte.
constexpr unsigned char timestampKey = key(1, proto::varint);
constexpr unsigned char metricKey = key(2, proto::delimited);
constexpr unsigned char nameKey = key(1, proto::delimited);
constexpr unsigned char datatypeKey = key(4, proto::varint);
constexpr unsigned char intKey = key(10, proto::varint);
constexpr unsigned char longKey = key(11, proto::varint);
constexpr unsigned char floatKey = key(12, proto::fixed32);
constexpr unsigned char doubleKey = key(13, proto::fixed64);
constexpr unsigned char booleanKey = key(14, proto::varint);
constexpr unsigned char stringKey = key(15, proto::delimited);
constexpr std::uint32_t bytesKey = key(16, proto::delimited);  // two bytes

constexpr std::string_view unnamedValue = "_value";

std::size_t delimitedSize(std::size_t size) {
  return varintSize(size) + size;
}

std::size_t textArrayBytes(const Field& field) {
  const auto* texts = static_cast<const char* const*>(field.value.data);
  std::size_t bytes = 0;
  for (std::uint32_t i = 0; i < field.count; ++i) bytes += std::strlen(texts[i]) + 1;
  return bytes;
}

std::size_t arrayBytes(const Field& field) {
  switch (field.type) {
    case typeBoolArray:
      return 4 + (std::size_t{field.count} + 7) / 8;
    case typeStringArray:
      return textArrayBytes(field);
    default:
      return field.count * elementSize(field.type);
  }
}

struct MetricPlan {
  std::string_view name;
  bool doubled = false;  ///< the name's own leading '_' is written twice
  std::uint32_t datatype = 0;
  std::uint64_t number = 0;    ///< varint values
  std::size_t valueSize = 0;   ///< key and value
  std::size_t dataBytes = 0;   ///< of texts and arrays
  std::size_t metricSize = 0;  ///< without its own key and length
};

void planNumber(MetricPlan& plan, std::uint32_t datatype, std::uint64_t number) {
  plan.datatype = datatype;
  plan.number = number;
  plan.valueSize = 1 + varintSize(number);
}

void planValue(MetricPlan& plan, const Field& field) {
  switch (field.type) {
    case typeBool:
      planNumber(plan, dataBoolean, field.value.boolean ? 1 : 0);
      return;
    case typeByte:
      planNumber(plan, dataInt8, field.value.byte);
      return;
    case typeShort:
      // Sign-extended to the 32 bits of the field: some decoders read all of them, others the low 16.
      planNumber(plan, dataInt16, static_cast<std::uint32_t>(std::int32_t{field.value.int16}));
      return;
    case typeInt:
      planNumber(plan, dataInt32, static_cast<std::uint32_t>(field.value.int32));
      return;
    case typeLong:
      planNumber(plan, dataInt64, static_cast<std::uint64_t>(field.value.int64));
      return;
    case typeFloat:
      plan.datatype = dataFloat;
      plan.valueSize = 5;
      return;
    case typeDouble:
      plan.datatype = dataDouble;
      plan.valueSize = 9;
      return;
    case typeString:
      plan.dataBytes = field.count;
      if (isUtf8(field.text())) {
        plan.datatype = dataString;
        plan.valueSize = 1 + delimitedSize(field.count);
      } else {
        plan.datatype = dataBytes;
        plan.valueSize = 2 + delimitedSize(field.count);
      }
      return;
    case typeBoolArray:
      plan.datatype = dataBooleanArray;
      break;
    case typeByteArray:
      plan.datatype = dataInt8Array;
      break;
    case typeShortArray:
      plan.datatype = dataInt16Array;
      break;
    case typeIntArray:
      plan.datatype = dataInt32Array;
      break;
    case typeLongArray:
      plan.datatype = dataInt64Array;
      break;
    case typeFloatArray:
      plan.datatype = dataFloatArray;
      break;
    case typeDoubleArray:
      plan.datatype = dataDoubleArray;
      break;
    case typeStringArray:
      plan.datatype = dataStringArray;
      break;
    case typeNone:
      break;
  }
  plan.dataBytes = arrayBytes(field);
  plan.valueSize = 2 + delimitedSize(plan.dataBytes);
}

MetricPlan planMetric(const Field& field) {
  MetricPlan plan;
  plan.name = field.nameSize == 0 ? unnamedValue : field.nameView();
  plan.doubled = field.nameSize != 0 && field.name[0] == '_';
  planValue(plan, field);
  plan.metricSize = 1 + delimitedSize(plan.name.size() + (plan.doubled ? 1 : 0)) + 2 + plan.valueSize;
  return plan;
}

void writeBooleans(Writer& writer, const Field& field) {
  const auto* values = static_cast<const bool*>(field.value.data);
  writer.fixedValue<std::uint32_t>(field.count);
  for (std::uint32_t i = 0; i < field.count; i += 8) {
    unsigned bits = 0;
    for (std::uint32_t bit = 0; bit < 8 && i + bit < field.count; ++bit) {
      if (values[i + bit]) bits |= 0x80U >> bit;
    }
    writer.byte(static_cast<unsigned char>(bits));
  }
}

void writeArray(Writer& writer, const Field& field, const MetricPlan& plan) {
  writer.varintValue(bytesKey);
  writer.varintValue(plan.dataBytes);
  if (field.type == typeBoolArray) {
    writeBooleans(writer, field);
  } else if (field.type == typeStringArray) {
    const auto* texts = static_cast<const char* const*>(field.value.data);
    for (std::uint32_t i = 0; i < field.count; ++i) writer.bytes({texts[i], std::strlen(texts[i]) + 1});
  } else {
    writer.bytes({static_cast<const char*>(field.value.data), plan.dataBytes});
  }
}

void writeMetric(Writer& writer, const Field& field, const MetricPlan& plan) {
  writer.byte(metricKey);
  writer.varintValue(plan.metricSize);
  writer.byte(nameKey);
  writer.varintValue(plan.name.size() + (plan.doubled ? 1 : 0));
  if (plan.doubled) writer.byte('_');
  writer.bytes(plan.name);
  writer.byte(datatypeKey);
  writer.varintValue(plan.datatype);
  switch (field.type) {
    case typeBool:
      writer.byte(booleanKey);
      writer.varintValue(plan.number);
      break;
    case typeByte:
    case typeShort:
    case typeInt:
      writer.byte(intKey);
      writer.varintValue(plan.number);
      break;
    case typeLong:
      writer.byte(longKey);
      writer.varintValue(plan.number);
      break;
    case typeFloat:
      writer.byte(floatKey);
      writer.fixedValue(field.value.single);
      break;
    case typeDouble:
      writer.byte(doubleKey);
      writer.fixedValue(field.value.real);
      break;
    case typeString:
      if (plan.datatype == dataString) {
        writer.byte(stringKey);
      } else {
        writer.varintValue(bytesKey);
      }
      writer.varintValue(plan.dataBytes);
      writer.bytes(field.text());
      break;
    default:
      writeArray(writer, field, plan);
      break;
  }
}

void appendNumberMetric(std::string& payload, std::string_view name, Datatype datatype,
                        std::uint64_t number) {
  const bool isLong = datatype == dataInt64;
  const std::size_t size = 1 + delimitedSize(name.size()) + 2 + 1 + varintSize(number);
  const std::size_t before = payload.size();
  payload.resize(before + 1 + delimitedSize(size));
  Writer writer(payload.data() + before);
  writer.byte(metricKey);
  writer.varintValue(size);
  writer.byte(nameKey);
  writer.varintValue(name.size());
  writer.bytes(name);
  writer.byte(datatypeKey);
  writer.varintValue(datatype);
  writer.byte(isLong ? longKey : intKey);
  writer.varintValue(number);
}

void appendTextMetric(std::string& payload, std::string_view name, std::string_view text) {
  const bool utf8 = isUtf8(text);
  const std::size_t size = 1 + delimitedSize(name.size()) + 2 + (utf8 ? 1 : 2) + delimitedSize(text.size());
  const std::size_t before = payload.size();
  payload.resize(before + 1 + delimitedSize(size));
  Writer writer(payload.data() + before);
  writer.byte(metricKey);
  writer.varintValue(size);
  writer.byte(nameKey);
  writer.varintValue(name.size());
  writer.bytes(name);
  writer.byte(datatypeKey);
  writer.varintValue(utf8 ? dataString : dataBytes);
  writer.varintValue(utf8 ? stringKey : bytesKey);
  writer.varintValue(text.size());
  writer.bytes(text);
}

std::size_t headerRoom(const RecordHeader& header) {
  return 128 + header.publisher.size() + header.reason.size();
}

void appendTimestamp(std::string& payload, std::int64_t milliseconds) {
  const std::uint64_t number = milliseconds > 0 ? static_cast<std::uint64_t>(milliseconds) : 0;
  const std::size_t before = payload.size();
  payload.resize(before + 1 + varintSize(number));
  Writer writer(payload.data() + before);
  writer.byte(timestampKey);
  writer.varintValue(number);
}

void appendFields(std::string& payload, const Record& record, std::size_t room) {
  constexpr std::size_t planned = 32;
  MetricPlan plans[planned];  // most records fit; the others are planned twice
  std::size_t size = 0;
  std::size_t number = 0;
  for (const Field& field : record.fields()) {
    const MetricPlan plan = planMetric(field);
    if (number < planned) plans[number] = plan;
    ++number;
    size += 1 + delimitedSize(plan.metricSize);
  }
  const std::size_t before = payload.size();
  payload.reserve(before + size + room);
  payload.resize(before + size);
  Writer writer(payload.data() + before);
  number = 0;
  for (const Field& field : record.fields()) {
    if (number < planned) {
      writeMetric(writer, field, plans[number]);
    } else {
      writeMetric(writer, field, planMetric(field));
    }
    ++number;
  }
}

void appendHeader(std::string& payload, const RecordHeader& header) {
  appendNumberMetric(payload, "_quality", dataInt32, static_cast<std::uint32_t>(header.quality));
  appendNumberMetric(payload, "_time", dataInt64, static_cast<std::uint64_t>(header.time.timeNanoseconds));
  if (!header.publisher.empty()) appendTextMetric(payload, "_publisher", header.publisher);
  if (!header.reason.empty()) appendTextMetric(payload, "_reason", header.reason);
}

std::int64_t milliseconds(KelTimestamp time) {
  return time.timeNanoseconds / 1'000'000;
}

}  // namespace

EncodedRecord encodeRecord(const Record& record, const RecordHeader& header) {
  EncodedRecord encoded;
  appendTimestamp(encoded.bytes, milliseconds(header.time));
  encoded.fieldsBegin = encoded.bytes.size();
  appendFields(encoded.bytes, record, headerRoom(header));
  encoded.fieldsEnd = encoded.bytes.size();
  appendHeader(encoded.bytes, header);
  return encoded;
}

EncodedRecord encodeRecord(std::string_view encodedFields, const RecordHeader& header) {
  EncodedRecord encoded;
  encoded.bytes.reserve(16 + encodedFields.size() + headerRoom(header));
  appendTimestamp(encoded.bytes, milliseconds(header.time));
  encoded.fieldsBegin = encoded.bytes.size();
  encoded.bytes.append(encodedFields);
  encoded.fieldsEnd = encoded.bytes.size();
  appendHeader(encoded.bytes, header);
  return encoded;
}

void appendSequence(std::string& payload, std::int64_t sequence) {
  appendNumberMetric(payload, "_seq", dataInt64, static_cast<std::uint64_t>(sequence));
}

std::string encodeFields(const Record& record, std::int64_t timestampMs) {
  std::string payload;
  appendTimestamp(payload, timestampMs);
  appendFields(payload, record, 0);
  return payload;
}

}  // namespace kel
