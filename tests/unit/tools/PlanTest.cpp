#include "Plan.h"

#include <gmock/gmock.h>

#include "DpValue.h"
#include "Pairs.h"

namespace kelgw {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

std::string entry(std::initializer_list<const char*> fields) {
  std::string text;
  for (const char* field : fields) {
    text += (text.empty() ? "" : std::string(1, fieldSeparator)) + field;
  }
  return text;
}

pvss::StoreElement element(const char* name, DpElementType type, const std::string& reference = {}) {
  pvss::StoreElement made;
  made.name = name;
  made.type = type;
  if (!reference.empty()) {
    made.addressType = 1;
    made.driver = "KEL";
    made.reference = reference;
  }
  return made;
}

std::shared_ptr<const Variable> number(double value) {
  return variableOf({{Kind::float64, false}, {value}});
}

std::shared_ptr<const Variable> texts(const std::vector<std::string>& list) {
  Datum datum{{Kind::text, true}, {}};
  datum.items.assign(list.begin(), list.end());
  return variableOf(datum);
}

pvss::StoreReading reading(const char* name, DpElementType type, std::shared_ptr<const Variable> value) {
  pvss::StoreReading made;
  made.name = name;
  made.type = type;
  made.value = std::move(value);
  return made;
}

WantedState wantedState() {
  WantedState wanted;
  wanted.elements = {element("Boiler1.temperature", DPELEMENT_FLOAT, entry({"plant/boiler1", "temperature"})),
                     element("Pump1.speed", DPELEMENT_FLOAT), element("Gw.clients", DPELEMENT_DYNTEXT),
                     element("Gw.publications", DPELEMENT_DYNTEXT)};
  wanted.values = {{"Pump1.speed", number(3.5)}};
  wanted.clientList = "Gw.clients";
  wanted.clients = {"Boiler1.temperature"};
  wanted.publicationList = "Gw.publications";
  wanted.publications = {entry({"plant/pump1", "100", "Pump1.speed", "speed"})};
  return wanted;
}

/// The store as it is after the plan for it was carried out.
FoundState done(const WantedState& wanted) {
  FoundState found;
  found.elements = wanted.elements;
  found.readings = {reading("Pump1.speed", DPELEMENT_FLOAT, wanted.values.at(0).second),
                    reading("Gw.clients", DPELEMENT_DYNTEXT, texts(wanted.clients)),
                    reading("Gw.publications", DPELEMENT_DYNTEXT, texts(wanted.publications))};
  return found;
}

std::vector<std::string> stepsOf(const Plan& plan) {
  std::vector<std::string> steps;
  for (const PlanStep& step : plan.steps) {
    steps.push_back(std::string(wordOf(step.action)) + " " + step.name);
  }
  return steps;
}

std::vector<std::string> restartsOf(const Plan& plan) {
  std::vector<std::string> names;
  for (const RestartNote& note : plan.restarts) {
    names.push_back(note.publication + ": " + note.reason);
  }
  return names;
}

TEST(Plan, FillsAnEmptyStoreCatalogueFirstThenValuesThenLists) {
  const Plan plan = makePlan(wantedState(), {}, {});
  EXPECT_THAT(stepsOf(plan), ElementsAre("create Boiler1.temperature", "create Pump1.speed",
                                         "create Gw.clients", "create Gw.publications", "value Pump1.speed",
                                         "list Gw.clients", "list Gw.publications"));
  EXPECT_EQ(plan.work.put, wantedState().elements);
  ASSERT_EQ(plan.work.values.size(), 1U);
  ASSERT_EQ(plan.work.lists.size(), 2U);
  EXPECT_TRUE(sameValue(plan.work.lists[1].value.get(), texts(wantedState().publications).get()));
  EXPECT_THAT(plan.restarts, IsEmpty());
}

TEST(Plan, FindsNothingToDoTheSecondTime) {
  const Plan plan = makePlan(wantedState(), done(wantedState()), {});
  EXPECT_TRUE(plan.nothingToDo());
  EXPECT_THAT(plan.work.put, IsEmpty());
  EXPECT_THAT(plan.work.lists, IsEmpty());
}

TEST(Plan, WritesAnUnchangedListAgainWhenAnAddressInItChanged) {
  FoundState found = done(wantedState());
  found.elements[0].reference = entry({"plant/old", "temperature"});
  const Plan plan = makePlan(wantedState(), found, {});
  EXPECT_THAT(stepsOf(plan), ElementsAre("address Boiler1.temperature", "list again Gw.clients"));
  EXPECT_EQ(plan.steps[0].detail, "plant/old -> temperature becomes plant/boiler1 -> temperature");
  ASSERT_EQ(plan.work.lists.size(), 1U);
  EXPECT_TRUE(sameValue(plan.work.lists[0].value.get(), texts({"Boiler1.temperature"}).get()));
}

TEST(Plan, LeavesTheListAloneWhenAnAddressOutsideItChanged) {
  WantedState wanted = wantedState();
  wanted.clients.clear();
  FoundState found = done(wanted);
  found.elements[0].reference = "other";
  EXPECT_THAT(stepsOf(makePlan(wanted, found, {})), ElementsAre("address Boiler1.temperature"));
}

TEST(Plan, WritesTheListAgainForAListedElementThatWasMissing) {
  FoundState found = done(wantedState());
  found.elements.erase(found.elements.begin(), found.elements.begin() + 2);
  found.readings[0].value = nullptr;
  EXPECT_THAT(stepsOf(makePlan(wantedState(), found, {})),
              ElementsAre("create Boiler1.temperature", "create Pump1.speed", "value Pump1.speed",
                          "list again Gw.clients", "list again Gw.publications"));
}

TEST(Plan, TakesAwayAnAddressThatThePlantNoLongerHas) {
  WantedState wanted = wantedState();
  wanted.elements[0] = element("Boiler1.temperature", DPELEMENT_FLOAT);
  wanted.clients.clear();
  const Plan plan = makePlan(wanted, done(wantedState()), {});
  EXPECT_THAT(stepsOf(plan), ElementsAre("address Boiler1.temperature", "list Gw.clients"));
  EXPECT_EQ(plan.steps[0].detail, "plant/boiler1 -> temperature becomes no address");
  EXPECT_EQ(plan.work.put[0].addressType, 0);
}

TEST(Plan, KeepsAValueThatSomebodySetUnlessAskedToResetIt) {
  FoundState found = done(wantedState());
  found.readings[0].value = number(9.0);
  const Plan kept = makePlan(wantedState(), found, {});
  EXPECT_TRUE(kept.nothingToDo());
  EXPECT_EQ(kept.keptValues, 1U);
  const Plan reset = makePlan(wantedState(), found, {false, true});
  EXPECT_THAT(stepsOf(reset), ElementsAre("value Pump1.speed"));
  EXPECT_EQ(reset.steps[0].detail, "3.5 (was 9)");
}

TEST(Plan, GivesAnElementWhoseTypeChangesItsInitialValueAgain) {
  FoundState found = done(wantedState());
  found.elements[1].type = DPELEMENT_INT;
  found.readings[0] =
      reading("Pump1.speed", DPELEMENT_INT, variableOf({{Kind::int32, false}, {std::int64_t{7}}}));
  const Plan plan = makePlan(wantedState(), found, {});
  EXPECT_THAT(stepsOf(plan), ElementsAre("type Pump1.speed", "value Pump1.speed"));
  EXPECT_THAT(restartsOf(plan), ElementsAre("plant/pump1: the type of Pump1.speed changed"));
}

TEST(Plan, KeepsAttributesThatAreSwitchedOff) {
  FoundState found = done(wantedState());
  found.elements[0].disabled = 4;
  EXPECT_TRUE(makePlan(wantedState(), found, {}).nothingToDo());
  found.elements[0].reference = "other";
  EXPECT_EQ(makePlan(wantedState(), found, {}).work.put.at(0).disabled, 4U);
}

TEST(Plan, NamesThePublicationsThatNeedARestart) {
  WantedState before = wantedState();
  before.publications = {entry({"kept", "0", "Pump1.speed", "speed"}),
                         entry({"changed", "0", "Pump1.speed", "speed"}), entry({"gone", "0", "Pump1.speed"}),
                         entry({"was", "malformed"})};
  WantedState wanted = wantedState();
  wanted.publications = {
      entry({"kept", "0", "Pump1.speed", "speed"}), entry({"changed", "5", "Pump1.speed", "speed"}),
      entry({"new", "0", "Pump1.speed", "speed"}), entry({"was", "0", "Pump1.speed", "speed"})};
  const Plan plan = makePlan(wanted, done(before), {});
  EXPECT_THAT(stepsOf(plan), ElementsAre("list Gw.publications"));
  EXPECT_THAT(restartsOf(plan),
              ElementsAre("changed: its entry changed",
                          "gone: it is no longer in the list and goes on publishing until then"));
}

TEST(Plan, DeletesOnlyWithPruneAndAfterTheLists) {
  FoundState found = done(wantedState());
  found.elements.push_back(element("Old.thing", DPELEMENT_TEXT));
  EXPECT_TRUE(makePlan(wantedState(), found, {}).nothingToDo());
  const Plan plan = makePlan(wantedState(), found, {true, false});
  EXPECT_THAT(stepsOf(plan), ElementsAre("delete Old.thing"));
  EXPECT_THAT(plan.removals, ElementsAre("Old.thing"));
  EXPECT_THAT(plan.work.remove, IsEmpty());
}

TEST(Plan, SplitsAnEntryAsTheGatewayDoes) {
  EXPECT_THAT(splitEntry(""), IsEmpty());
  EXPECT_THAT(splitEntry("a"), ElementsAre("a"));
  EXPECT_THAT(splitEntry("a\x1A"), ElementsAre("a"));
  EXPECT_THAT(splitEntry("\x1A"), ElementsAre(""));
  EXPECT_THAT(splitEntry("\x1A"
                         "a"),
              ElementsAre("", "a"));
  EXPECT_THAT(splitEntry("a\x1A\x1A"
                         "b"),
              ElementsAre("a", "", "b"));
}

TEST(DpValue, ReadsNamesAsPeopleWriteThem) {
  EXPECT_EQ(elementName("Boiler1.temperature"), "Boiler1.temperature");
  EXPECT_EQ(elementName("System1:Boiler1.temperature"), "Boiler1.temperature");
  EXPECT_EQ(elementName("Boiler1.temperature:_original.._value"), "Boiler1.temperature");
  EXPECT_EQ(elementName("System1:Boiler1.temperature:_online.._value"), "Boiler1.temperature");
}

TEST(DpValue, TellsEqualValuesApartFromTheirLookAlikes) {
  EXPECT_TRUE(sameValue(number(std::nan("")).get(), number(std::nan("")).get()));
  EXPECT_FALSE(sameValue(number(0.0).get(), number(-0.0).get()));
  EXPECT_FALSE(sameValue(number(1.0).get(), variableOf({{Kind::int32, false}, {std::int64_t{1}}}).get()));
  EXPECT_FALSE(sameValue(texts({"a"}).get(), texts({"a", ""}).get()));
  EXPECT_FALSE(sameValue(nullptr, number(0).get()));
  EXPECT_TRUE(sameValue(nullptr, nullptr));
}

TEST(DpValue, RefusesATextWithAZeroByte) {
  EXPECT_THROW((void)variableOf({{Kind::text, false}, {std::string("a\0b", 3)}}), DatumError);
}

class EveryElementType : public testing::TestWithParam<std::pair<DpElementType, const char*>> {};

TEST_P(EveryElementType, ReadsAndShowsItsValues) {
  const auto& [type, text] = GetParam();
  const auto datumType = datumTypeOf(type);
  ASSERT_TRUE(datumType.has_value());
  const auto value = variableOf(parseDatum(*datumType, text));
  EXPECT_EQ(datumOf(*value).type, *datumType);
  EXPECT_EQ(showDatum(datumOf(*value)), text);
}

INSTANTIATE_TEST_SUITE_P(
    Fourteen, EveryElementType,
    testing::Values(std::pair{DPELEMENT_BIT, "true"}, std::pair{DPELEMENT_INT, "-2147483648"},
                    std::pair{DPELEMENT_UINT, "4294967295"}, std::pair{DPELEMENT_32BIT, "0xFFFFFFFF"},
                    std::pair{DPELEMENT_FLOAT, "0.1"}, std::pair{DPELEMENT_CHAR, "200"},
                    std::pair{DPELEMENT_DYNBIT, "[true, false]"}, std::pair{DPELEMENT_DYNINT, "[1, -2]"},
                    std::pair{DPELEMENT_DYNUINT, "[4294967295]"},
                    std::pair{DPELEMENT_DYN32BIT, "[0x00000001]"},
                    std::pair{DPELEMENT_DYNFLOAT, "[nan, inf]"}, std::pair{DPELEMENT_DYNCHAR, "['A', 0]"},
                    std::pair{DPELEMENT_DYNTEXT, "[\"a, b\", \"\"]"}, std::pair{DPELEMENT_DYNTEXT, "[]"}));

TEST(Pairs, FeedOneElementTypeForEachKelType) {
  EXPECT_TRUE(kelFeeds(2, DPELEMENT_32BIT));
  EXPECT_FALSE(kelFeeds(2, DPELEMENT_INT));
  EXPECT_FALSE(kelFeeds(4, DPELEMENT_FLOAT));
  EXPECT_FALSE(kelFeeds(9, DPELEMENT_TEXT));
  EXPECT_EQ(elementTypeFedBy(50), "dyn_int");
  EXPECT_EQ(elementTypeFedBy(0), "no element");
}

}  // namespace
}  // namespace kelgw
