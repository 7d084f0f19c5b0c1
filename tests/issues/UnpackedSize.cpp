// A legal record of 2 MiB, an array of empty texts, took 311 MB by the time that it was written, and came
// again after every restart. What a record would cost is known before anything of it is unpacked.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cstddef>
#include <cstdlib>
#include <new>
#include <string>

#include "data/Record.h"
#include "wire/RecordCodec.h"

namespace {

std::atomic<std::size_t> live{0};
std::atomic<std::size_t> peak{0};

constexpr std::size_t head = alignof(std::max_align_t);

}  // namespace

// Everything that this process takes from the heap is counted.
void* operator new(std::size_t size) {
  void* whole = std::malloc(size + head);
  if (whole == nullptr) throw std::bad_alloc();
  *static_cast<std::size_t*>(whole) = size;
  const std::size_t now = live += size;
  std::size_t before = peak;
  while (before < now && !peak.compare_exchange_weak(before, now)) {
  }
  return static_cast<char*>(whole) + head;
}
void* operator new[](std::size_t size) {
  return operator new(size);
}
void operator delete(void* at) noexcept {
  if (at == nullptr) return;
  void* whole = static_cast<char*>(at) - head;
  live -= *static_cast<std::size_t*>(whole);
  std::free(whole);
}
void operator delete(void* at, std::size_t /*size*/) noexcept {
  operator delete(at);
}
// The library's own would do, but a sanitizer has others.
void operator delete[](void* at) noexcept {
  operator delete(at);
}
void operator delete[](void* at, std::size_t /*size*/) noexcept {
  operator delete(at);
}

namespace {

using namespace kel;

/// The most that decoding takes beyond what there was before.
std::size_t costOf(const std::string& payload, std::size_t limit, DecodedRecord& decoded) {
  const std::size_t before = live;
  peak = before;
  decoded = decodeRecord(payload, limit);
  return peak - before;
}

std::string payloadOf(const std::string& tag, KelType type, std::size_t count) {
  Record record;
  Field& field = record.put(tag);
  if (type == typeStringArray) {
    record.setTexts(field, std::vector<std::string_view>(count));
  } else {
    auto* room = static_cast<char*>(record.setArray(field, type, count));
    std::fill(room, room + count * elementSize(type), '\0');
  }
  return encodeFields(record, 1);
}

std::string payloadOfFields(std::size_t count) {
  Record record;
  for (std::size_t i = 0; i < count; ++i) record.putScalar(std::to_string(i), typeBool);
  return encodeFields(record, 1);
}

TEST(UnpackedSize, IsKnownBeforeAnythingIsUnpacked) {
  const std::string payload = payloadOf("x", typeStringArray, 2U << 20U);
  DecodedRecord decoded;
  EXPECT_LT(costOf(payload, defaultRecordBytes, decoded), 64U << 10U);
  EXPECT_FALSE(decoded.record);
  EXPECT_NE(decoded.error.find("the limit is 16777216 (option recordBytes)"), std::string::npos)
      << decoded.error;
  EXPECT_GT(costOf(payload, std::size_t{1} << 30U, decoded), 16U << 20U) << "the count counts";
  EXPECT_TRUE(decoded.record) << decoded.error;
}

TEST(UnpackedSize, OfBooleansAndOfManyFieldsIsBoundedToo) {
  DecodedRecord decoded;
  EXPECT_LT(costOf(payloadOf("x", typeBoolArray, 8U << 20U), defaultRecordBytes, decoded), 64U << 10U);
  EXPECT_FALSE(decoded.record);
  EXPECT_LT(costOf(payloadOfFields(20'000), 1U << 20U, decoded), 64U << 10U);
  EXPECT_FALSE(decoded.record);
}

TEST(UnpackedSize, NeverPassesTheLimit) {
  for (const KelType type :
       {typeStringArray, typeBoolArray, typeByteArray, typeShortArray, typeDoubleArray}) {
    // Around the place where a payload is small enough not to be looked at twice.
    for (const std::size_t count : {10U, 400U, 500U, 1000U, 3000U, 4000U, 5000U, 50'000U}) {
      DecodedRecord decoded;
      const std::size_t cost = costOf(payloadOf("x", type, count), 65'536, decoded);
      EXPECT_LT(cost, 65'536U + 2048) << int{type} << ' ' << count;
      EXPECT_EQ(decoded.record != nullptr, decoded.error.empty());
    }
  }
  for (const std::size_t count : {10U, 100U, 400U, 600U, 1000U}) {
    DecodedRecord decoded;
    EXPECT_LT(costOf(payloadOfFields(count), 65'536, decoded), 65'536U + 2048) << count;
  }
}

TEST(UnpackedSize, OfWhatAPlantSendsIsFarFromTheLimit) {
  DecodedRecord decoded;
  costOf(payloadOf("x", typeDoubleArray, 400'000), defaultRecordBytes, decoded);
  EXPECT_TRUE(decoded.record) << decoded.error;
  costOf(payloadOf("x", typeStringArray, 200'000), defaultRecordBytes, decoded);
  EXPECT_TRUE(decoded.record) << decoded.error;
  costOf(payloadOfFields(60'000), defaultRecordBytes, decoded);
  EXPECT_TRUE(decoded.record) << decoded.error;
  Record text;
  text.setText(text.put("x"), std::string(15U << 20U, 'x'));
  costOf(encodeFields(text, 1), defaultRecordBytes, decoded);
  EXPECT_TRUE(decoded.record) << decoded.error;
}

TEST(UnpackedSize, OfANameOfAPublisherIsBounded) {
  const auto with = [](std::size_t size) {
    const std::string id = std::string(size - 2, 'n') + "/1";
    return decodeRecord(encodeRecord(Record(), {1, KelTimestamp(1), id, {}}).bytes);
  };
  EXPECT_TRUE(with(longestPublisher).record);
  EXPECT_EQ(with(longestPublisher + 1).error,
            "metric '_publisher' is not what this reserved name must carry");
}

}  // namespace
