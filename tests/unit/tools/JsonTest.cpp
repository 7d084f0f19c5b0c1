#include "Json.h"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>

namespace kelgw {
namespace {

TEST(Json, KeepsTheOrderOfMembersAndEveryNumberWhole) {
  const Json json = Json::Object{{"z", Json(std::int64_t{9'223'372'036'854'775'807})},
                                 {"a", Json(std::uint64_t{18'446'744'073'709'551'615U})},
                                 {"none", Json()}};
  EXPECT_EQ(json.line(), R"({"z":9223372036854775807,"a":18446744073709551615,"none":null})");
}

TEST(Json, WritesWhatNumbersCannotSayAsText) {
  const Json json = Json::Array{Json(std::nan("")), Json(std::numeric_limits<double>::infinity()),
                                Json(-std::numeric_limits<double>::infinity()),
                                Json(std::numeric_limits<float>::infinity())};
  EXPECT_EQ(json.line(), R"(["nan","inf","-inf","inf"])");
}

TEST(Json, ShowsAFloatAsTheDecimalThatItWasReadFrom) {
  EXPECT_EQ(Json(0.1F).line(), "0.1");
}

TEST(Json, WritesBytesThatAreNoTextInHexadecimal) {
  EXPECT_EQ(Json(std::string("\xFF\x01")).line(), R"({"hex":"ff01"})");
  EXPECT_EQ(Json(std::string("\x1A")).line(), R"("\u001a")");
  const Json key = Json::Object{{"\xFF", Json(1)}};
  EXPECT_EQ(key.line(), R"({"\\xff":1})");
}

TEST(Json, TakesListsAndScalars) {
  const Datum list{{Kind::boolean, true}, {true, false}};
  const Datum empty{{Kind::text, true}, {}};
  const Datum scalar{{Kind::bits32, false}, {std::int64_t{4'294'967'295}}};
  EXPECT_EQ(Json(list).line(), "[true,false]");
  EXPECT_EQ(Json(empty).line(), "[]");
  EXPECT_EQ(Json(scalar).line(), "4294967295");
}

}  // namespace
}  // namespace kelgw
