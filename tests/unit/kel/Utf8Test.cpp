#include "wire/Utf8.h"

#include <gtest/gtest.h>

#include <string>

namespace kel {
namespace {

TEST(Utf8, TakesEveryLengthOfCharacter) {
  EXPECT_TRUE(isUtf8(""));
  EXPECT_TRUE(isUtf8("plain text that is longer than a word"));
  EXPECT_TRUE(
      isUtf8("\xC2\x80 \xDF\xBF \xE0\xA0\x80 \xED\x9F\xBF \xEE\x80\x80 \xF0\x90\x80\x80 \xF4\x8F\xBF\xBF"));
  EXPECT_TRUE(isUtf8(std::string_view("a\0b", 3)));
}

TEST(Utf8, RefusesEveryWayOfBeingWrong) {
  for (const char* bad : {"\x80", "\xBF", "\xC0\x80", "\xC1\xBF", "\xC2", "\xC2\x41", "\xE0\x9F\xBF",
                          "\xE1\x80", "\xED\xA0\x80", "\xF0\x8F\xBF\xBF", "\xF0\x90\x80", "\xF4\x90\x80\x80",
                          "\xF5\x80\x80\x80", "\xFF", "12345678\xFF", "1234567\xC3"}) {
    EXPECT_FALSE(isUtf8(bad)) << bad;
  }
}

}  // namespace
}  // namespace kel
