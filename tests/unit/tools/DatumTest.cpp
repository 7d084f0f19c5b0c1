#include "Datum.h"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>

namespace kelgw {
namespace {

std::string throwing(DatumType type, std::string_view text) {
  try {
    (void)parseDatum(type, text);
  } catch (const DatumError& error) {
    return error.what();
  }
  return "nothing was thrown";
}

std::string roundTrip(DatumType type, std::string_view text) {
  return showDatum(parseDatum(type, text));
}

TEST(Datum, ReadsBooleansInTheWordsThatPeopleUse) {
  for (const char* yes : {"true", "1", "on", "yes", " true "}) {
    EXPECT_EQ(roundTrip({Kind::boolean, false}, yes), "true") << yes;
  }
  for (const char* no : {"false", "0", "off", "no"}) {
    EXPECT_EQ(roundTrip({Kind::boolean, false}, no), "false") << no;
  }
  EXPECT_EQ(throwing({Kind::boolean, false}, "TRUE"), "\"TRUE\" is neither true nor false");
}

TEST(Datum, HoldsEveryWholeTypeToItsRange) {
  EXPECT_EQ(roundTrip({Kind::int16, false}, "-32768"), "-32768");
  EXPECT_EQ(throwing({Kind::int16, false}, "32768"), "32768 is not between -32768 and 32767");
  EXPECT_EQ(roundTrip({Kind::int32, false}, "2147483647"), "2147483647");
  EXPECT_EQ(throwing({Kind::int32, false}, "2147483648"),
            "2147483648 is not between -2147483648 and 2147483647");
  EXPECT_EQ(roundTrip({Kind::uint32, false}, "4294967295"), "4294967295");
  EXPECT_EQ(throwing({Kind::uint32, false}, "-1"), "-1 is not between 0 and 4294967295");
  EXPECT_EQ(roundTrip({Kind::int64, false}, "-9223372036854775808"), "-9223372036854775808");
  EXPECT_EQ(roundTrip({Kind::int64, false}, "9223372036854775807"), "9223372036854775807");
  EXPECT_EQ(throwing({Kind::int64, false}, "9223372036854775808"),
            "9223372036854775808 is not between -9223372036854775808 and 9223372036854775807");
  EXPECT_EQ(throwing({Kind::int64, false}, "99999999999999999999"),
            "99999999999999999999 is not between -9223372036854775808 and 9223372036854775807");
}

TEST(Datum, TakesAByteAsAPattern) {
  EXPECT_EQ(roundTrip({Kind::byte8, false}, "255"), "255");
  EXPECT_EQ(roundTrip({Kind::byte8, false}, "-1"), "255");
  EXPECT_EQ(roundTrip({Kind::byte8, false}, "0x7f"), "127");
  EXPECT_EQ(throwing({Kind::byte8, false}, "256"), "256 is not between -128 and 255");
}

TEST(Datum, RefusesWhatIsNoWholeNumber) {
  for (const char* text : {"", "-", "+", "0x", "1.5", "1e3", "12a", "--1", "0x1g"}) {
    EXPECT_NE(throwing({Kind::int32, false}, text).find("is not a whole number"), std::string::npos) << text;
  }
}

TEST(Datum, ShowsBitPatternsInHexadecimal) {
  EXPECT_EQ(roundTrip({Kind::bits32, false}, "0xdeadBEEF"), "0xDEADBEEF");
  EXPECT_EQ(roundTrip({Kind::bits32, false}, "5"), "0x00000005");
}

TEST(Datum, ShowsTheShortestDecimalThatReadsBack) {
  EXPECT_EQ(roundTrip({Kind::float64, false}, "0.1"), "0.1");
  EXPECT_EQ(roundTrip({Kind::float32, false}, "0.1"), "0.1");
  EXPECT_EQ(roundTrip({Kind::float64, false}, "+2.5e-3"), "0.0025");
  EXPECT_EQ(roundTrip({Kind::float64, false}, "nan"), "nan");
  EXPECT_EQ(roundTrip({Kind::float64, false}, "-inf"), "-inf");
  EXPECT_EQ(showDatum({{Kind::float64, false}, {static_cast<double>(0.1F)}}), "0.10000000149011612");
  EXPECT_EQ(throwing({Kind::float32, false}, "1e39"), "1e39 is outside the range of the type");
  EXPECT_EQ(throwing({Kind::float64, false}, "twelve"), "\"twelve\" is not a number");
}

TEST(Datum, ReadsCharactersAsThemselvesOrByNumber) {
  EXPECT_EQ(roundTrip({Kind::char8, false}, "A"), "'A'");
  EXPECT_EQ(roundTrip({Kind::char8, false}, "65"), "'A'");
  EXPECT_EQ(roundTrip({Kind::char8, false}, "7"), "7") << "digits are a number";
  EXPECT_EQ(roundTrip({Kind::char8, false}, "'7'"), "'7'");
  EXPECT_EQ(throwing({Kind::char8, false}, "256"),
            "\"256\" is neither one character nor a number from 0 to 255");
}

TEST(Datum, TakesATextAsItStandsUnlessEscapesAreAskedFor) {
  EXPECT_EQ(std::get<std::string>(parseDatum({Kind::text, false}, "a\\nb").items[0]), "a\\nb");
  EXPECT_EQ(std::get<std::string>(parseDatum({Kind::text, false}, "a\\nb", true).items[0]), "a\nb");
  EXPECT_EQ(std::get<std::string>(parseDatum({Kind::text, false}, "").items[0]), "");
}

TEST(Datum, ReadsListsWithAndWithoutBrackets) {
  EXPECT_EQ(roundTrip({Kind::int32, true}, "[1, 2, 3]"), "[1, 2, 3]");
  EXPECT_EQ(roundTrip({Kind::int32, true}, "1,2,3"), "[1, 2, 3]");
  EXPECT_EQ(roundTrip({Kind::int32, true}, "[]"), "[]");
  EXPECT_EQ(roundTrip({Kind::int32, true}, ""), "[]");
  EXPECT_EQ(roundTrip({Kind::text, true}, "a, \"b, c\" ,\"\\x1a\\\"\""), R"(["a", "b, c", "\x1a\""])");
  EXPECT_EQ(roundTrip({Kind::text, true}, "a,"), R"(["a", ""])");
}

TEST(Datum, SaysWhatIsWrongWithAList) {
  EXPECT_EQ(throwing({Kind::int32, true}, "[1, 2"), "the list begins with [ and does not end with ]");
  EXPECT_EQ(throwing({Kind::text, true}, "\"open"), "a quoted item of the list is not closed");
  EXPECT_EQ(throwing({Kind::text, true}, "\"open\\"), "a quoted item of the list is not closed");
  EXPECT_EQ(throwing({Kind::text, true}, "\"a\" b"), "expected a comma before \"b\"");
  EXPECT_EQ(throwing({Kind::int32, true}, "1,,2"), "\"\" is not a whole number");
}

TEST(Datum, EscapesWhatATerminalMustNotGet) {
  EXPECT_EQ(escapeText("plain"), "plain");
  EXPECT_EQ(escapeText("a\x1B[31mb\x1A\n\t\x7F"), "a\\x1b[31mb\\x1a\\n\\t\\x7f");
  EXPECT_EQ(escapeText("Temperatur \xC3\xBC \xF0\x9F\x94\xA5"), "Temperatur \xC3\xBC \xF0\x9F\x94\xA5");
  EXPECT_EQ(escapeText("\xFF\xC3"), "\\xff\\xc3");
  EXPECT_EQ(escapeText("\xC2\x85"), "\\xc2\\x85") << "a control character above ASCII";
  EXPECT_EQ(escapeText("\xE2\x80\xAE"), "\\xe2\\x80\\xae") << "turns the direction of the text";
  EXPECT_EQ(escapeText("\xED\xA0\x80"), "\\xed\\xa0\\x80") << "half of a pair";
  EXPECT_EQ(escapeText("\xC0\xAF"), "\\xc0\\xaf") << "overlong";
}

TEST(Datum, UndoesItsOwnEscapesForEveryByte) {
  std::string all;
  for (int byte = 0; byte < 256; ++byte) {
    all += static_cast<char>(byte);
  }
  EXPECT_EQ(unescapeText(escapeText(all)), all);
  EXPECT_THROW((void)unescapeText("\\q"), DatumError);
  EXPECT_THROW((void)unescapeText("\\x1"), DatumError);
  EXPECT_THROW((void)unescapeText("end\\"), DatumError);
}

TEST(Datum, ShortensLongValuesAndSaysHowLongAListIs) {
  Datum list{{Kind::int32, true}, {}};
  for (std::int64_t item = 0; item < 100000; ++item) {
    list.items.emplace_back(item);
  }
  EXPECT_EQ(showDatum(list, 20), "[0, 1, 2, 3, 4, 5... (100000 items)");
  EXPECT_EQ(showDatum({{Kind::text, false}, {std::string(50, 'x')}}, 10), "\"xxxxxx...");
  EXPECT_EQ(showDatum({{Kind::text, false}, {std::string("\xC3\xBC\xC3\xBC\xC3\xBC\xC3\xBC\xC3\xBC")}}, 9),
            "\"\xC3\xBC\xC3\xBC...")
      << "never inside a character";
}

}  // namespace
}  // namespace kelgw
