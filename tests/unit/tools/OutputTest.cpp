#include "Output.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include "Pattern.h"

namespace kelgw {
namespace {

TEST(Table, AlignsColumnsByCharactersAndLeavesNoBlanksAtTheEnd) {
  Table table({"NAME", "COUNT", "TEXT"});
  table.row({"a", Cell("5", Style::plain, true), "x"});
  table.row({"\xC3\xBC\xC3\xBC\xC3\xBC\xC3\xBC\xC3\xBC", Cell("1234567", Style::plain, true), ""});
  EXPECT_EQ(table.text(false),
            "NAME     COUNT  TEXT\n"
            "a            5  x\n"
            "\xC3\xBC\xC3\xBC\xC3\xBC\xC3\xBC\xC3\xBC  1234567\n");
}

TEST(Table, HasColoursOnlyWhenAsked) {
  Table table({"A"});
  table.row({Cell("bad", Style::bad)});
  EXPECT_EQ(table.text(false).find('\x1B'), std::string::npos);
  EXPECT_NE(table.text(true).find("\x1B[31mbad\x1B[0m"), std::string::npos);
}

TEST(Output, SaysThatNobodyReadsAnyMore) {
  std::FILE* const full = std::fopen("/dev/full", "w");
  ASSERT_NE(full, nullptr);
  Output out(full, full, true);
  EXPECT_FALSE(out.line("lost"));
  std::fclose(full);
}

TEST(Output, NoticesThatTheReaderOfAPipeHasGone) {
  int ends[2];
  ASSERT_EQ(::pipe(ends), 0);
  std::FILE* const writer = ::fdopen(ends[1], "w");
  const Output out(writer, writer, true);
  EXPECT_FALSE(out.readerGone());
  ::close(ends[0]);
  EXPECT_TRUE(out.readerGone());
  std::fclose(writer);
}

TEST(Pattern, MatchesAsAShellDoes) {
  EXPECT_TRUE(matches("*", ""));
  EXPECT_TRUE(matches("Boiler?.*", "Boiler1.temperature"));
  EXPECT_FALSE(matches("Boiler?.*", "Boiler12.temperature"));
  EXPECT_TRUE(matches("*a*b*", "xxaxxbxx"));
  EXPECT_FALSE(matches("*a*b", "xxaxxbx"));
  EXPECT_FALSE(matches("abc", "abcd"));
  EXPECT_TRUE(isPattern("a*"));
  EXPECT_FALSE(isPattern("a.b"));
}

TEST(Pattern, StaysQuickOnManyStars) {
  const std::string name(2000, 'a');
  EXPECT_FALSE(matches("*a*a*a*a*a*a*a*a*a*a*a*a*b", name));
}

}  // namespace
}  // namespace kelgw
