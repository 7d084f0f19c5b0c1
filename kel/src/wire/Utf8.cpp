#include "wire/Utf8.h"

#include <cstdint>
#include <cstring>

namespace kel {

bool isUtf8(std::string_view bytes) {
  const auto* at = reinterpret_cast<const unsigned char*>(bytes.data());
  const auto* const end = at + bytes.size();
  const auto continues = [&](int number) {
    for (int i = 1; i <= number; ++i) {
      if (at + i >= end || (at[i] & 0xC0U) != 0x80U) return false;
    }
    return true;
  };
  while (at < end) {
    while (end - at >= 8) {
      std::uint64_t word = 0;
      std::memcpy(&word, at, sizeof(word));
      if ((word & 0x8080808080808080U) != 0) break;
      at += 8;
    }
    if (at == end) return true;
    const unsigned char first = *at;
    if (first < 0x80) {
      ++at;
    } else if (first >= 0xC2 && first <= 0xDF) {
      if (!continues(1)) return false;
      at += 2;
    } else if (first >= 0xE0 && first <= 0xEF) {
      if (!continues(2)) return false;
      if (first == 0xE0 && at[1] < 0xA0) return false;
      if (first == 0xED && at[1] > 0x9F) return false;
      at += 3;
    } else if (first >= 0xF0 && first <= 0xF4) {
      if (!continues(3)) return false;
      if (first == 0xF0 && at[1] < 0x90) return false;
      if (first == 0xF4 && at[1] > 0x8F) return false;
      at += 4;
    } else {
      return false;
    }
  }
  return true;
}

}  // namespace kel
