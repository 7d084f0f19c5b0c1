// The protobuf wire format, as far as the payload needs it: varints, fixed32, fixed64 and length-delimited
// fields, read from a view and written into room that is known to be enough.
#pragma once

#include <bit>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string_view>

namespace kel::proto {

static_assert(std::endian::native == std::endian::little, "numbers are copied as they lie in memory");

enum WireType : std::uint32_t { varint = 0, fixed64 = 1, delimited = 2, fixed32 = 5 };

[[nodiscard]] constexpr std::uint32_t key(std::uint32_t field, WireType type) {
  return field << 3U | type;
}

[[nodiscard]] constexpr std::size_t varintSize(std::uint64_t value) {
  return (static_cast<std::size_t>(std::bit_width(value | 1U)) + 6) / 7;
}

/// Reads forwards; after a failure ok() is false and every further read gives zero or nothing.
class Reader {
 public:
  explicit Reader(std::string_view bytes) : at_(bytes.data()), end_(at_ + bytes.size()) {}

  [[nodiscard]] bool ok() const { return ok_; }
  [[nodiscard]] bool atEnd() const { return at_ == end_; }

  std::uint64_t readVarint() {
    if (at_ < end_ && static_cast<unsigned char>(*at_) < 0x80) return static_cast<unsigned char>(*at_++);
    return readLongVarint();
  }

  template <class Number>
  Number readFixed() {
    Number number{};
    if (static_cast<std::size_t>(end_ - at_) < sizeof(Number)) {
      fail();
      return number;
    }
    std::memcpy(&number, at_, sizeof(Number));
    at_ += sizeof(Number);
    return number;
  }

  std::string_view readDelimited() {
    const std::uint64_t size = readVarint();
    if (!ok_ || size > static_cast<std::uint64_t>(end_ - at_)) {
      fail();
      return {};
    }
    const std::string_view bytes(at_, static_cast<std::size_t>(size));
    at_ += size;
    return bytes;
  }

  /// Steps over a field that is not known. Groups are not part of this format.
  void skip(std::uint32_t wireType) {
    switch (wireType) {
      case varint:
        readVarint();
        break;
      case fixed64:
        readFixed<std::uint64_t>();
        break;
      case delimited:
        readDelimited();
        break;
      case fixed32:
        readFixed<std::uint32_t>();
        break;
      default:
        fail();
        break;
    }
  }

 private:
  std::uint64_t readLongVarint() {
    std::uint64_t value = 0;
    for (unsigned shift = 0; shift < 64; shift += 7) {
      if (at_ == end_) break;
      const auto byte = static_cast<unsigned char>(*at_++);
      if (shift == 63 && byte > 1) break;
      value |= static_cast<std::uint64_t>(byte & 0x7FU) << shift;
      if (byte < 0x80) return value;
    }
    fail();
    return 0;
  }

  void fail() {
    ok_ = false;
    at_ = end_;
  }

  const char* at_;
  const char* end_;
  bool ok_ = true;
};

/// Writes forwards without looking: the caller has counted.
class Writer {
 public:
  explicit Writer(char* at) : at_(at) {}

  void varintValue(std::uint64_t value) {
    while (value >= 0x80) {
      *at_++ = static_cast<char>(value | 0x80U);
      value >>= 7U;
    }
    *at_++ = static_cast<char>(value);
  }
  template <class Number>
  void fixedValue(Number number) {
    std::memcpy(at_, &number, sizeof(Number));
    at_ += sizeof(Number);
  }
  void bytes(std::string_view value) {
    if (!value.empty()) std::memcpy(at_, value.data(), value.size());
    at_ += value.size();
  }
  void byte(unsigned char value) { *at_++ = static_cast<char>(value); }

  [[nodiscard]] char* at() const { return at_; }

 private:
  char* at_;
};

}  // namespace kel::proto
