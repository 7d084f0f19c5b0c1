// Any bytes are a record, which then survives being written and read again, or are refused with a reason.
#include <bit>
#include <cstdint>
#include <cstring>
#include <string_view>

#include "Require.h"
#include "data/RecordAccess.h"
#include "wire/RecordCodec.h"

using fuzz::require;

namespace {

bool sameField(const kel::Field& a, const kel::Field& b) {
  if (a.type != b.type) return false;
  if (a.type == kel::typeString) return a.text() == b.text();
  if (a.type == kel::typeStringArray) {
    const auto* left = static_cast<const char* const*>(a.value.data);
    const auto* right = static_cast<const char* const*>(b.value.data);
    if (a.count != b.count) return false;
    for (std::uint32_t i = 0; i < a.count; ++i) {
      if (std::strcmp(left[i], right[i]) != 0) return false;
    }
    return true;
  }
  if (a.type >= kel::typeBoolArray) {
    return a.count == b.count &&
           std::memcmp(a.value.data, b.value.data, a.count * kel::elementSize(a.type)) == 0;
  }
  if (a.type == kel::typeFloat)
    return std::bit_cast<std::uint32_t>(a.value.single) == std::bit_cast<std::uint32_t>(b.value.single);
  if (a.type == kel::typeDouble)
    return std::bit_cast<std::uint64_t>(a.value.real) == std::bit_cast<std::uint64_t>(b.value.real);
  if (a.type == kel::typeBool) return a.value.boolean == b.value.boolean;
  if (a.type == kel::typeByte) return a.value.byte == b.value.byte;
  if (a.type == kel::typeShort) return a.value.int16 == b.value.int16;
  if (a.type == kel::typeInt) return a.value.int32 == b.value.int32;
  return a.value.int64 == b.value.int64;
}

void requireSame(const kel::Record& a, const kel::Record& b) {
  require(a.fields().size() == b.fields().size());
  for (const kel::Field& field : a.fields()) {
    require(std::strlen(field.name) == field.nameSize);
    const kel::Field* other = b.find(field.nameView());
    require(other != nullptr && sameField(field, *other));
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string_view payload(reinterpret_cast<const char*>(data), size);
  const kel::DecodedRecord first = kel::decodeRecord(payload);
  require((first.record == nullptr) == !first.error.empty());
  constexpr std::size_t small = 65'536;
  const kel::DecodedRecord bounded = kel::decodeRecord(payload, small);
  require((bounded.record == nullptr) == !bounded.error.empty());
  require(bounded.record == nullptr || bounded.record->memoryBytes() <= small + 1);
  if (first.record == nullptr) return 0;
  const kel::RecordHeader header{first.record->quality, first.record->time, first.record->publisher,
                                 first.record->reason};
  const kel::EncodedRecord encoded = kel::encodeRecord(*first.record, header);
  const kel::DecodedRecord second = kel::decodeRecord(encoded.bytes);
  require(second.record != nullptr);
  requireSame(*first.record, *second.record);
  require(second.record->quality == first.record->quality);
  require(second.record->time == first.record->time);
  require(std::strcmp(second.record->publisher, first.record->publisher) == 0);
  require(std::strcmp(second.record->reason, first.record->reason) == 0);
  const auto changed = first.record->clone();
  requireSame(*first.record, *changed);
  return 0;
}
