#include "wire/Metric.h"

#include <cstring>

#include "wire/RecordCodec.h"

namespace kel {

using proto::key;
using proto::Reader;

void readMetric(Reader& reader, Metric& metric) {
  while (reader.ok() && !reader.atEnd()) {
    const std::uint64_t fieldKey = reader.readVarint();
    switch (fieldKey) {
      case key(1, proto::delimited):
        metric.name = reader.readDelimited();
        break;
      case key(4, proto::varint):
        metric.datatype = reader.readVarint();
        metric.hasDatatype = true;
        break;
      case key(7, proto::varint):
        metric.isNull = reader.readVarint() != 0;
        break;
      case key(10, proto::varint):
        metric.number = reader.readVarint();
        metric.kind = ValueKind::integer;
        break;
      case key(11, proto::varint):
        metric.number = reader.readVarint();
        metric.kind = ValueKind::longInteger;
        break;
      case key(12, proto::fixed32):
        metric.single = reader.readFixed<float>();
        metric.kind = ValueKind::single;
        break;
      case key(13, proto::fixed64):
        metric.real = reader.readFixed<double>();
        metric.kind = ValueKind::real;
        break;
      case key(14, proto::varint):
        metric.number = reader.readVarint();
        metric.kind = ValueKind::boolean;
        break;
      case key(15, proto::delimited):
        metric.bytes = reader.readDelimited();
        metric.kind = ValueKind::text;
        break;
      case key(16, proto::delimited):
        metric.bytes = reader.readDelimited();
        metric.kind = ValueKind::bytes;
        break;
      default:
        reader.skip((fieldKey >> 3U) == 0 ? 7 : static_cast<std::uint32_t>(fieldKey & 7U));
        break;
    }
  }
}

DatatypeRule ruleOf(std::uint64_t datatype) {
  switch (datatype) {
    case dataInt8:
      return {typeByte, ValueKind::integer};
    case dataInt16:
      return {typeShort, ValueKind::integer};
    case dataInt32:
      return {typeInt, ValueKind::integer};
    case dataInt64:
      return {typeLong, ValueKind::longInteger};
    case dataFloat:
      return {typeFloat, ValueKind::single};
    case dataDouble:
      return {typeDouble, ValueKind::real};
    case dataBoolean:
      return {typeBool, ValueKind::boolean};
    case dataString:
      return {typeString, ValueKind::text};
    case dataBytes:
      return {typeString, ValueKind::bytes};
    case dataInt8Array:
      return {typeByteArray, ValueKind::bytes};
    case dataInt16Array:
      return {typeShortArray, ValueKind::bytes};
    case dataInt32Array:
      return {typeIntArray, ValueKind::bytes};
    case dataInt64Array:
      return {typeLongArray, ValueKind::bytes};
    case dataFloatArray:
      return {typeFloatArray, ValueKind::bytes};
    case dataDoubleArray:
      return {typeDoubleArray, ValueKind::bytes};
    case dataBooleanArray:
      return {typeBoolArray, ValueKind::bytes};
    case dataStringArray:
      return {typeStringArray, ValueKind::bytes};
    default:
      return {typeNone, ValueKind::none};
  }
}

const char* countElements(KelType type, std::string_view bytes, std::size_t& count) {
  if (type == typeBoolArray) {
    std::uint32_t booleans = 0;
    if (bytes.size() < sizeof(booleans)) return "a boolean array without its count";
    std::memcpy(&booleans, bytes.data(), sizeof(booleans));
    if (booleans > mostBooleans) return "a boolean array that is too large";
    if (bytes.size() - sizeof(booleans) != (std::size_t{booleans} + 7) / 8) {
      return "a boolean array whose count does not fit its bytes";
    }
    count = booleans;
    return nullptr;
  }
  if (type == typeStringArray) {
    if (!bytes.empty() && bytes.back() != '\0') return "a string array whose last text has no end";
    count = 0;
    for (const char c : bytes) count += c == '\0' ? 1U : 0U;
    return nullptr;
  }
  const std::size_t size = elementSize(type);
  if (bytes.size() % size != 0) return "an array whose bytes are not a whole number of elements";
  count = bytes.size() / size;
  return nullptr;
}

}  // namespace kel
