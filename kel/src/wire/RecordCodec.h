// Record payloads of the native profile: a Sparkplug B payload with one metric a field.
//
// docs/wire-format.md describes every byte. Pure: no I/O, no logging, no clock. The decoder takes any bytes:
// what it does not know it steps over, what is malformed is an error and never half a record.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

#include "data/Record.h"

namespace kel {

/// Larger payloads are refused on both sides.
inline constexpr std::size_t largestPayload = 16U << 20U;
inline constexpr std::size_t mostFields = 65'536;
inline constexpr std::size_t mostBooleans = 16U << 20U;
/// What one record may cost in memory when it is unpacked, unless the address says otherwise. A small payload
/// can unpack to a hundred times its size.
inline constexpr std::size_t defaultRecordBytes = 16U << 20U;
/// Of `_publisher`, and so of a publisher's name and incarnation together.
inline constexpr std::size_t longestPublisher = 1000;

/// What the record says about itself, besides its fields.
struct RecordHeader {
  int quality = 1;
  KelTimestamp time;
  std::string_view publisher;  ///< empty: not said
  std::string_view reason;     ///< empty: not said
};

/// A payload, and where its fields lie in it, so that they can be sent again under another header.
struct EncodedRecord {
  std::string bytes;
  std::size_t fieldsBegin = 0;
  std::size_t fieldsEnd = 0;
  [[nodiscard]] std::string_view fields() const {
    return std::string_view(bytes).substr(fieldsBegin, fieldsEnd - fieldsBegin);
  }
};

[[nodiscard]] EncodedRecord encodeRecord(const Record& record, const RecordHeader& header);
/// The same with fields that were encoded before.
[[nodiscard]] EncodedRecord encodeRecord(std::string_view encodedFields, const RecordHeader& header);
/// Adds the publication's count of records; kept apart because it is taken under a lock, at the last moment.
void appendSequence(std::string& payload, std::int64_t sequence);

/// Fields alone, without any header: what presence and claims carry.
[[nodiscard]] std::string encodeFields(const Record& record, std::int64_t timestampMs);

struct DecodedRecord {
  std::shared_ptr<Record> record;  ///< frozen; null when there is an error
  std::string error;               ///< one sentence
};

/// Refuses what would take more than `mostMemory` bytes, before it takes them.
[[nodiscard]] DecodedRecord decodeRecord(std::string_view payload,
                                         std::size_t mostMemory = defaultRecordBytes);

/// Datatypes of the Sparkplug B schema, as far as Kel has them.
enum Datatype : std::uint32_t {
  dataInt8 = 1,
  dataInt16 = 2,
  dataInt32 = 3,
  dataInt64 = 4,
  dataFloat = 9,
  dataDouble = 10,
  dataBoolean = 11,
  dataString = 12,
  dataBytes = 17,
  dataInt8Array = 22,
  dataInt16Array = 23,
  dataInt32Array = 24,
  dataInt64Array = 25,
  dataFloatArray = 30,
  dataDoubleArray = 31,
  dataBooleanArray = 32,
  dataStringArray = 33,
};

}  // namespace kel
