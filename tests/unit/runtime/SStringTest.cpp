#include "SString.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

namespace {

std::vector<std::string> split(const SString& text, char separator) {
  const std::unique_ptr<std::vector<SString>> pieces(text.splitAt(separator));
  std::vector<std::string> result;
  for (const SString& piece : *pieces) {
    result.emplace_back(piece.getString());
  }
  return result;
}

using Pieces = std::vector<std::string>;

TEST(SString, withoutArgumentsIsEmpty) {
  const SString text;
  EXPECT_STREQ(text.getString(), "");
  EXPECT_EQ(text.strLen(), 0U);
  EXPECT_EQ(text.storage().getNumBytesStored(), 1U);
}

TEST(SString, isBuiltFromEveryKindOfText) {
  EXPECT_STREQ(SString("abc").getString(), "abc");
  EXPECT_STREQ(SString(std::string("abc")).getString(), "abc");
  const SString original("abc");
  // NOLINTNEXTLINE(performance-unnecessary-copy-initialization): the copy is what is tested
  const SString copy(original);
  EXPECT_STREQ(copy.getString(), "abc");
  EXPECT_NE(copy.getString(), original.getString());
  EXPECT_STREQ(SString("abcdef", 3).getString(), "abc");
  EXPECT_STREQ(SString(static_cast<const char*>(nullptr)).getString(), "");
}

TEST(SString, storesItsCharactersAndOneTerminator) {
  EXPECT_EQ(SString("abc").storage().getNumBytesStored(), 3U + 1U);
  EXPECT_EQ(SString("abcdef", 3).storage().getNumBytesStored(), 3U + 1U);
}

TEST(SString, shorterTextKeepsTheBufferAndTheStoredBytes) {
  SString text("a long enough text");
  const char* const buffer = text.getString();
  const unsigned int bytes = text.storage().getNumBytesStored();
  text = "abc";
  EXPECT_EQ(text.getString(), buffer);
  EXPECT_EQ(text.storage().getNumBytesStored(), bytes);
  EXPECT_EQ(text.strLen(), 3U);
  EXPECT_STREQ(text.getString(), "abc");
}

TEST(SString, takesTextsOfEveryKind) {
  SString text;
  text = "abc";
  EXPECT_EQ(text, "abc");
  text = std::string("de");
  EXPECT_EQ(text, std::string("de"));
  text = SString("f");
  EXPECT_EQ(text, SString("f"));
  const SString& itself = text;
  text = itself;
  EXPECT_EQ(text, "f");
}

TEST(SString, comparesCharacters) {
  const SString text("abc");
  EXPECT_TRUE(text == "abc");
  EXPECT_TRUE(text != "abd");
  EXPECT_TRUE(text == SString("abcdef", 3));
  EXPECT_TRUE(text != SString("ab"));
  EXPECT_TRUE(text == std::string("abc"));
  EXPECT_TRUE(text != std::string("ABC"));
}

TEST(SString, appendsTextsOfEveryKind) {
  SString text("a");
  text += "b";
  text += std::string("c");
  text += SString("d");
  EXPECT_STREQ(text.getString(), "abcd");
  EXPECT_STREQ(text.append("e").getString(), "abcde");
  EXPECT_STREQ(text.append("").getString(), "abcde");
}

TEST(SString, appendsItself) {
  SString text("abc");
  text += text;
  EXPECT_STREQ(text.getString(), "abcabc");
  text += text;
  EXPECT_STREQ(text.getString(), "abcabcabcabc");
}

TEST(SString, plusLeavesBothSidesAlone) {
  const SString left("pub");
  EXPECT_EQ(left + "Lock", "pubLock");
  EXPECT_EQ(left + std::string("Lock"), "pubLock");
  EXPECT_EQ(left + SString("Lock"), "pubLock");
  EXPECT_EQ(left, "pub");
}

TEST(SString, appendAfterAShorterTextFollowsTheNewEnd) {
  SString text("a long enough text");
  text = "ab";
  text += "cd";
  EXPECT_STREQ(text.getString(), "abcd");
}

TEST(SString, convertsToOtherTexts) {
  SString text("abc");
  const std::string standard = static_cast<const std::string>(text);
  EXPECT_EQ(standard, "abc");
  const char* const readable = static_cast<const SString&>(text);
  EXPECT_STREQ(readable, "abc");
  char* const writable = text;
  writable[0] = 'X';
  EXPECT_STREQ(text.getString(), "Xbc");
}

TEST(SString, splitDropsEmptyFields) {
  EXPECT_EQ(split("a||b", '|'), (Pieces{"a", "b"}));
  EXPECT_EQ(split("|", '|'), Pieces{});
  EXPECT_EQ(split("", '|'), Pieces{});
  EXPECT_EQ(split("|a|bc|", '|'), (Pieces{"a", "bc"}));
  EXPECT_EQ(split("abc", '|'), Pieces{"abc"});
}

TEST(SString, splitAtNulLosesTheLastCharacter) {
  EXPECT_EQ(split("abc", '\0'), Pieces{"ab"});
  EXPECT_EQ(split("a", '\0'), Pieces{});
  EXPECT_EQ(split("", '\0'), Pieces{});
}

}  // namespace
