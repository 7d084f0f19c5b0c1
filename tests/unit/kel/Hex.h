// Bytes as people read them.
#pragma once

#include <cstdio>
#include <string>
#include <string_view>

namespace kel::testing {

inline std::string hex(std::string_view bytes) {
  std::string text;
  for (const char c : bytes) {
    char digits[4];
    std::snprintf(digits, sizeof(digits), "%02x", static_cast<unsigned char>(c));
    text += digits;
  }
  return text;
}

/// Blanks are passed over.
inline std::string unhex(std::string_view text) {
  const auto value = [](char c) { return c <= '9' ? c - '0' : (c | 0x20) - 'a' + 10; };
  std::string digits;
  for (const char c : text) {
    if (c != ' ' && c != '\n') digits.push_back(c);
  }
  std::string bytes;
  for (std::size_t i = 0; i + 1 < digits.size(); i += 2) {
    bytes.push_back(static_cast<char>(value(digits[i]) * 16 + value(digits[i + 1])));
  }
  return bytes;
}

}  // namespace kel::testing
