// What a plant file's errors are for a command: those of the file, and names that the Kel side cannot carry.
#include "PlantState.h"

#include <gmock/gmock.h>

namespace kelgw {
namespace {

std::string levels(std::size_t count) {
  std::string name = "l0";
  for (std::size_t level = 1; level < count; ++level) {
    name += "/l" + std::to_string(level);
  }
  return name;
}

/// A plant that subscribes to one name in line 5 and sends another in line 8; explicit keys may be long.
std::string plantOf(const std::string& subscribed, const std::string& sent) {
  return "elements:\n  A.x: int\n  B.y: int\nsubscribe:\n  ? \"" + subscribed +
         "\"\n  : {t: A.x}\npublish:\n  ? \"" + sent + "\"\n  : {bufferTime: 0, fields: {t: B.y}}\n" +
         "lists: {clients: Gw.clients, publications: Gw.pubs}\n";
}

std::vector<std::string> errorsOf(const std::string& text) {
  std::vector<std::string> errors;
  for (const pvss::PlantFile::Error& error : parsePlant(text).errors) {
    errors.push_back(std::to_string(error.line) + ": " + error.what);
  }
  return errors;
}

using testing::ElementsAre;
using testing::IsEmpty;

TEST(PlantState, TakesNamesThatCanBe) {
  EXPECT_THAT(errorsOf(plantOf("plant/boiler 1", "plant/pump1")), IsEmpty());
  EXPECT_THAT(errorsOf(plantOf(levels(180), std::string(60'000, 'x'))), IsEmpty());
}

TEST(PlantState, RefusesNamesOfTooManyLevelsInBothDirections) {
  const std::string name = levels(200);
  const std::string what = ": publication \"" + name.substr(0, 60) + "...\" (" + std::to_string(name.size()) +
                           " bytes) cannot be: the name has more than 180 levels";
  EXPECT_THAT(errorsOf(plantOf(name, "good")), ElementsAre("5" + what));
  EXPECT_THAT(errorsOf(plantOf("good", name)), ElementsAre("8" + what));
  EXPECT_THAT(errorsOf(plantOf(name, name)), ElementsAre("5" + what, "8" + what));
}

TEST(PlantState, RefusesNamesThatAreTooLongInBothDirections) {
  const std::string name(70'000, 'x');
  const std::string what =
      ": publication \"" + name.substr(0, 60) +
      "...\" (70000 bytes) cannot be: the name is longer than a topic may be (60000 bytes)";
  EXPECT_THAT(errorsOf(plantOf(name, "good")), ElementsAre("5" + what));
  EXPECT_THAT(errorsOf(plantOf("good", name)), ElementsAre("8" + what));
}

TEST(PlantState, RefusesEmptyNamesInBothDirectionsOnce) {
  EXPECT_THAT(errorsOf(plantOf("", "good")), ElementsAre(testing::StartsWith("5: ")));
  EXPECT_THAT(errorsOf(plantOf("good", "")), ElementsAre(testing::StartsWith("8: ")));
}

}  // namespace
}  // namespace kelgw
