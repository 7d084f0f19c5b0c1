#include <gtest/gtest.h>
#include <kel/KelData.h>

#include "KelValue.h"

namespace kelgw {
namespace {

std::string throwing(std::string_view text) {
  try {
    (void)parseKelField(text, false);
  } catch (const DatumError& error) {
    return error.what();
  }
  return "nothing was thrown";
}

TEST(KelField, ReadsTagTypeAndValue) {
  const KelField field = parseKelField("speed=float:12.5", false);
  EXPECT_EQ(field.tag, "speed");
  EXPECT_EQ(field.value.type, (DatumType{Kind::float32, false}));
  EXPECT_EQ(showKelField(field, 0), "speed=float:12.5");
}

TEST(KelField, TakesAnEmptyTagAsTheUnnamedValue) {
  EXPECT_EQ(parseKelField("=int:3", false).tag, "");
}

TEST(KelField, FindsTheTypeWhateverTagAndValueHold) {
  EXPECT_EQ(parseKelField("a=b=string:x", false).tag, "a=b");
  EXPECT_EQ(parseKelField("a:b=int:3", false).tag, "a:b");
  const KelField field = parseKelField("t=string:u=int:3", false);
  EXPECT_EQ(field.tag, "t");
  EXPECT_EQ(showDatum(field.value), "\"u=int:3\"");
}

TEST(KelField, SaysWhatIsWrong) {
  EXPECT_EQ(throwing("speed"), "\"speed\" is not TAG=TYPE:VALUE, for example speed=float:12.5");
  EXPECT_EQ(throwing("speed=12.5"), "\"speed=12.5\" is not TAG=TYPE:VALUE, for example speed=float:12.5");
  EXPECT_EQ(
      throwing("speed=real:12.5"),
      "field \"speed\": \"real\" is no Kel type: boolean byte short int long float double string, or one of "
      "them with [] behind");
  EXPECT_EQ(throwing("speed=float:fast"), "field \"speed\": \"fast\" is not a number");
}

class EveryKelType : public testing::TestWithParam<std::pair<const char*, int>> {};

TEST_P(EveryKelType, GoesIntoARecordAndComesBack) {
  const auto& [text, id] = GetParam();
  KelData record;
  insertField(record, parseKelField(text, false));
  ASSERT_EQ(record.size(), 1U);
  EXPECT_EQ(record.getValueType("t"), id);
  ASSERT_EQ(fieldsOf(record).size(), 1U);
  // A string is taken as it stands and shown in quotes.
  EXPECT_EQ(showKelField(fieldsOf(record)[0], 0), id == 8 ? "t=string:\"5\"" : text);
}

INSTANTIATE_TEST_SUITE_P(
    Sixteen, EveryKelType,
    testing::Values(std::pair{"t=boolean:true", 1}, std::pair{"t=byte:255", 2},
                    std::pair{"t=short:-32768", 3}, std::pair{"t=int:-2147483648", 4},
                    std::pair{"t=long:-9223372036854775808", 5}, std::pair{"t=float:0.1", 6},
                    std::pair{"t=double:1e-300", 7}, std::pair{"t=string:5", 8},
                    std::pair{"t=boolean[]:[true, false]", 10}, std::pair{"t=byte[]:[0, 255]", 20},
                    std::pair{"t=short[]:[-1]", 30}, std::pair{"t=int[]:[]", 40},
                    std::pair{"t=long[]:[9223372036854775807]", 50}, std::pair{"t=float[]:[0.1, nan]", 60},
                    std::pair{"t=double[]:[0.1, -inf]", 70}, std::pair{"t=string[]:[\"a, b\", \"\"]", 80}));

TEST(KelRecord, ShowsQualityTimeAndFieldsForScripts) {
  KelData record;
  insertField(record, parseKelField("a=int:1", false));
  insertField(record, parseKelField("=string[]:x,y", false));
  const std::string line = jsonOf(record).line();
  EXPECT_NE(line.find(R"("fields":{)"), std::string::npos) << line;
  EXPECT_NE(line.find(R"("a":{"type":"int","value":1})"), std::string::npos) << line;
  EXPECT_NE(line.find(R"("":{"type":"string[]","value":["x","y"]})"), std::string::npos) << line;
}

}  // namespace
}  // namespace kelgw
