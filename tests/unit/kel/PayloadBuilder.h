// Makes payloads field by field, right or wrong, without the codec under test.
#pragma once

#include <cstdint>
#include <cstring>
#include <string>
#include <string_view>

namespace kel::testing {

inline std::string varint(std::uint64_t value) {
  std::string bytes;
  do {
    bytes.push_back(static_cast<char>((value & 0x7FU) | (value > 0x7FU ? 0x80U : 0U)));
    value >>= 7U;
  } while (value != 0);
  return bytes;
}
inline std::string number(std::uint32_t field, std::uint64_t value) {
  return varint(field << 3U) + varint(value);
}
inline std::string delimited(std::uint32_t field, std::string_view bytes) {
  return varint(field << 3U | 2U) + varint(bytes.size()) + std::string(bytes);
}
template <class Number>
std::string fixed(std::uint32_t field, Number value) {
  std::string bytes(sizeof(value), '\0');
  std::memcpy(bytes.data(), &value, sizeof(value));
  return varint(field << 3U | (sizeof(value) == 4 ? 5U : 1U)) + bytes;
}
/// A metric of a payload: its name, its datatype, and its value already encoded.
inline std::string metric(std::string_view name, std::uint32_t datatype, const std::string& value) {
  return delimited(2, delimited(1, name) + number(4, datatype) + value);
}
inline std::string intMetric(std::string_view name, std::uint32_t value) {
  return metric(name, 3, number(10, value));
}

}  // namespace kel::testing
