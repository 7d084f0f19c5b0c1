// Plant files: what they mean, and what they are refused for.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "pvss/BitVar.h"
#include "pvss/PlantFile.h"
#include "store/ValueCodec.h"

namespace pvss {
namespace {

using ::testing::ElementsAre;

std::string errorsOf(const std::string& text) {
  return PlantFile::parse(text).errorText("p");
}

const char* const plantText = R"(elements:
  Boiler1.temperature: float
  Boiler1.on: {type: bit, value: true}
  Pump1.speed: {type: float, value: 3.5}
  Pump1.names: {type: dyn_text, value: ["a,b", ""]}
  Pump1.state: {value: .inf, type: float}
lists: {clients: KelGateway.clients, publications: KelGateway.publications}
subscribe:
  plant/boiler1: {temperature: Boiler1.temperature, "": Boiler1.on}
publish:
  plant/pump1:
    bufferTime: 100
    fields: {speed: Pump1.speed, names: Pump1.names}
  plant/single:
    fields: {"": Pump1.speed}
)";

TEST(PlantFile, ElementsHaveTypeValueAndLine) {
  const PlantFile plant = PlantFile::parse(plantText);
  ASSERT_EQ(plant.errorText("p"), "");
  const PlantFile::Element* element = plant.find("Boiler1.on");
  ASSERT_NE(element, nullptr);
  EXPECT_EQ(element->type, DPELEMENT_BIT);
  EXPECT_TRUE(element->value && element->value->isTrue());
  EXPECT_EQ(element->line, 3);
  EXPECT_EQ(valueText(*plant.find("Pump1.speed")->value), "3.5");
  EXPECT_EQ(valueText(*plant.find("Pump1.names")->value), "3:a,b0:");
  EXPECT_EQ(valueText(*plant.find("Pump1.state")->value), "inf");
  EXPECT_EQ(plant.find("Boiler1.temperature")->value, nullptr);
  EXPECT_EQ(plant.find("Not.there"), nullptr);
}

TEST(PlantFile, ListElementsAreMadeAsDynText) {
  const PlantFile plant = PlantFile::parse(plantText);
  EXPECT_EQ(plant.clientList, "KelGateway.clients");
  EXPECT_EQ(plant.publicationList, "KelGateway.publications");
  ASSERT_NE(plant.find("KelGateway.clients"), nullptr);
  EXPECT_EQ(plant.find("KelGateway.clients")->type, DPELEMENT_DYNTEXT);
  EXPECT_EQ(PlantFile::parse("elements: {L.c: dyn_text}\nlists: {clients: L.c}").errorText("p"), "");
}

TEST(PlantFile, SubscriptionsBecomeReferencesAndTheClientList) {
  const PlantFile plant = PlantFile::parse(plantText);
  EXPECT_EQ(plant.find("Boiler1.temperature")->reference(), "plant/boiler1\x1atemperature");
  EXPECT_EQ(plant.find("Boiler1.on")->reference(), "plant/boiler1");
  EXPECT_EQ(plant.find("Pump1.speed")->reference(), "");
  EXPECT_THAT(plant.clientTexts(), ElementsAre("Boiler1.temperature", "Boiler1.on"));
}

TEST(PlantFile, PublicationsBecomeTextsOfTheList) {
  const PlantFile plant = PlantFile::parse(plantText);
  EXPECT_THAT(plant.publicationTexts(), ElementsAre("plant/pump1\x1a"
                                                    "100\x1aPump1.speed\x1aspeed\x1aPump1.names\x1anames",
                                                    "plant/single\x1a"
                                                    "0\x1aPump1.speed"));
}

TEST(PlantFile, AnEmptyFileIsAnEmptyPlant) {
  for (const char* text : {"", "# nothing\n", "elements:\nsubscribe:\n", "elements: {}\n"}) {
    const PlantFile plant = PlantFile::parse(text);
    EXPECT_EQ(plant.errorText("p"), "") << text;
    EXPECT_TRUE(plant.elements.empty());
  }
}

TEST(PlantFile, EveryTypeTakesItsValues) {
  const PlantFile plant = PlantFile::parse(R"(elements:
  a.bit: {type: bit, value: 0}
  a.char: {type: char, value: A}
  a.char2: {type: char, value: 200}
  a.int: {type: int, value: -5}
  a.uint: {type: uint, value: 4294967295}
  a.bit32: {type: bit32, value: 255}
  a.text: {type: text, value: "3.5"}
  a.dbit: {type: dyn_bit, value: [true, 0]}
  a.dchar: {type: dyn_char, value: [B]}
  a.dint: {type: dyn_int, value: []}
  a.duint: {type: dyn_uint, value: [1, 2]}
  a.dbit32: {type: dyn_bit32, value: [1]}
  a.dfloat: {type: dyn_float, value: [.nan, -.inf, 1e3]}
)");
  ASSERT_EQ(plant.errorText("p"), "");
  std::vector<std::string> texts;
  for (const PlantFile::Element& element : plant.elements) {
    texts.push_back(valueText(*element.value));
  }
  EXPECT_THAT(texts, ElementsAre("0", "65", "200", "-5", "4294967295", "255", "3.5", "1,0", "66", "", "1,2",
                                 "1", "nan,-inf,1000"));
}

TEST(PlantFile, BadElementsAreRefusedWithTheirLine) {
  EXPECT_EQ(errorsOf("elements:\n  A.x: flaot\n"),
            "p:2: element 'A.x': unknown type 'flaot': it must be bit, char, int, uint, bit32, float or "
            "text, or one "
            "of these with dyn_ before it");
  EXPECT_EQ(errorsOf("elements:\n  A.x: float\n  A.y: int\n  A.x: int\n"),
            "p:4: element 'A.x' is defined twice");
  EXPECT_EQ(errorsOf("elements:\n  \"A\\x1ax\": float\n"), "p:2: element name 'A?x' has a control character");
  EXPECT_EQ(errorsOf("elements:\n  \"A\\nx\": float\n"), "p:2: element name 'A?x' has a control character");
  EXPECT_EQ(errorsOf("elements:\n  \"\": float\n"), "p:2: empty element name");
  EXPECT_EQ(errorsOf("elements:\n  \"S:A.x\": float\n"), "p:2: element name 'S:A.x' has a ':'");
  EXPECT_EQ(errorsOf("elements:\n  A.x: {value: 1}\n"), "p:2: element 'A.x' has no type");
  EXPECT_EQ(errorsOf("elements:\n  A.x:\n    type: int\n    value: 1.5\n"),
            "p:4: element 'A.x': '1.5' is not a whole number from -2147483648 to 2147483647");
  EXPECT_EQ(errorsOf("elements:\n  A.x: {type: int, value: [1]}\n"),
            "p:2: element 'A.x': a value of type int must be a single one");
  EXPECT_EQ(errorsOf("elements:\n  A.x: {type: dyn_int, value: 1}\n"),
            "p:2: element 'A.x': a value of type dyn_int must be a list, [ ... ]");
  EXPECT_EQ(errorsOf("elements:\n  A.x: {type: int, unit: m}\n"),
            "p:2: element 'A.x': unknown property 'unit': it must be type or value");
  EXPECT_EQ(errorsOf("elements:\n  A.x: {type: int, type: int}\n"),
            "p:2: element 'A.x': type stands here twice");
}

TEST(PlantFile, BadSubscriptionsAreRefusedWithTheirLine) {
  const std::string elements =
      "elements: {A.x: float, A.c: char, A.u: uint, A.dc: dyn_char, A.du: dyn_uint, A.y: float}\n";
  EXPECT_EQ(errorsOf(elements + "subscribe:\n  pub: {t: A.z}\n"), "p:3: there is no element 'A.z'");
  EXPECT_EQ(errorsOf(elements + "subscribe:\n  pub: {t: A.x}\n  pub2: {u: A.x}\n"),
            "p:4: element 'A.x' is fed from two places, also from publication 'pub' tag 't'");
  EXPECT_EQ(errorsOf(elements + "subscribe:\n  pub: {a: A.c, b: A.u, c: A.dc, d: A.du}\n"),
            "p:3: element 'A.c' cannot be fed: no Kel type reaches char\n"
            "p:3: element 'A.u' cannot be fed: no Kel type reaches uint\n"
            "p:3: element 'A.dc' cannot be fed: no Kel type reaches dyn_char\n"
            "p:3: element 'A.du' cannot be fed: no Kel type reaches dyn_uint");
  EXPECT_EQ(errorsOf(elements + "subscribe:\n  pub: {t: A.x}\n  pub: {u: A.y}\n"),
            "p:4: publication 'pub' is subscribed to twice");
  EXPECT_EQ(errorsOf(elements + "subscribe:\n  pub:\n    t: A.x\n    t: A.y\n"),
            "p:5: publication 'pub': tag 't' stands here twice");
  EXPECT_EQ(errorsOf(elements + "subscribe:\n  \"p\\x1a\": {t: A.x}\n"),
            "p:3: publication name 'p?' has a control character");
  EXPECT_EQ(errorsOf(elements + "subscribe:\n  pub: {\"t\\x1a\": A.x}\n"),
            "p:3: tag 't?' has a control character");
  EXPECT_EQ(errorsOf(elements + "subscribe:\n  \"\": {t: A.x}\n"), "p:3: empty publication name");
  EXPECT_EQ(errorsOf(elements + "subscribe:\n  pub:\n"),
            "p:3: publication 'pub' needs fields: \"tag: element\"");
  EXPECT_EQ(errorsOf("lists: {clients: L.c}\nsubscribe: {pub: {t: L.c}}\n"),
            "p:2: element 'L.c' cannot be fed: it holds a list of the gateway");
}

TEST(PlantFile, BadPublicationsAreRefusedWithTheirLine) {
  const std::string elements = "elements: {A.x: float, A.y: float}\npublish:\n";
  EXPECT_EQ(errorsOf(elements + "  pub:\n    fields: {a: A.x, b: A.x}\n"),
            "p:4: publication 'pub': element 'A.x' stands here twice");
  EXPECT_EQ(errorsOf(elements + "  pub:\n    fields: {a: A.x, a: A.y}\n"),
            "p:4: publication 'pub': tag 'a' stands here twice");
  EXPECT_EQ(errorsOf(elements + "  pub:\n    bufferTime: -1\n    fields: {a: A.x}\n"),
            "p:4: publication 'pub': bufferTime cannot be negative");
  EXPECT_EQ(errorsOf(elements + "  pub:\n    bufferTime: soon\n    fields: {a: A.x}\n"),
            "p:4: publication 'pub': bufferTime 'soon' is not a whole number from -2147483648 to 2147483647");
  EXPECT_EQ(errorsOf(elements + "  \"\": {fields: {a: A.x}}\n"), "p:3: empty publication name");
  EXPECT_EQ(errorsOf(elements + "  pub: {fields: {a: A.x, \"\": A.y}}\n"),
            "p:3: publication 'pub': an empty tag must be the only one");
  EXPECT_EQ(errorsOf(elements + "  pub: {bufferTime: 5}\n"), "p:3: publication 'pub' has no fields");
  EXPECT_EQ(errorsOf(elements + "  pub: {fields: {}}\n"),
            "p:3: publication 'pub' needs fields: \"tag: element\"");
  EXPECT_EQ(errorsOf(elements + "  pub: {fields: {a: A.x}}\n  pub: {fields: {a: A.y}}\n"),
            "p:4: publication 'pub' is defined twice");
  EXPECT_EQ(errorsOf(elements + "  pub: {field: {a: A.x}}\n"),
            "p:3: publication 'pub': unknown property 'field': it must be bufferTime or fields\n"
            "p:3: publication 'pub' has no fields");
  EXPECT_EQ(errorsOf(elements + "  pub: {fields: {a: A.z}}\n"), "p:3: there is no element 'A.z'");
}

TEST(PlantFile, BadListsAreRefusedWithTheirLine) {
  EXPECT_EQ(errorsOf("elements: {L.c: text}\nlists:\n  clients: L.c\n"),
            "p:3: list element 'L.c' must be dyn_text, it is text");
  EXPECT_EQ(errorsOf("elements: {L.c: {type: dyn_text, value: [a]}}\nlists:\n  clients: L.c\n"),
            "p:3: list element 'L.c' cannot have a value of its own");
  EXPECT_EQ(errorsOf("lists:\n  clients: L.c\n  publications: L.c\n"),
            "p:3: element 'L.c' cannot hold both lists");
  EXPECT_EQ(errorsOf("lists:\n  clients: \"\"\n"), "p:2: empty name of the element of list 'clients'");
  EXPECT_EQ(errorsOf("lists:\n  client: L.c\n"),
            "p:2: unknown list 'client': it must be clients or publications");
  EXPECT_EQ(errorsOf("lists:\n  clients: L.c\n  clients: L.d\n"), "p:3: list 'clients' stands here twice");
}

TEST(PlantFile, WhatIsNoPlantIsRefused) {
  EXPECT_EQ(errorsOf("- a\n"), "p:1: a plant must be a list of \"name: ...\"");
  EXPECT_EQ(errorsOf("plants:\n"),
            "p:1: unknown part 'plants': it must be elements, lists, subscribe or publish");
  EXPECT_EQ(errorsOf("elements: {}\nelements: {}\n"), "p:2: 'elements' stands here twice");
  EXPECT_EQ(errorsOf("elements: [a]\n"), "p:1: elements must be a list of \"name: ...\"");
  EXPECT_THAT(errorsOf("elements: {A.x: float\n"), ::testing::MatchesRegex("p:[0-9]+: not YAML: .*"));
  EXPECT_THAT(errorsOf("elements: {? {a: b} : float}\n"), ::testing::HasSubstr("must be a plain text"));
  EXPECT_THAT(errorsOf("elements:\n  A.x: *nothing\n"), ::testing::HasSubstr("not YAML"));
}

TEST(PlantFile, AllErrorsAreListedInTheOrderOfTheLines) {
  EXPECT_EQ(
      errorsOf("publish:\n  pub: {fields: {a: A.z}}\nelements:\n  A.x: what\n  A.y: {type: int, value: x}\n"),
      "p:2: there is no element 'A.z'\n"
      "p:4: element 'A.x': unknown type 'what': it must be bit, char, int, uint, bit32, float or text, or "
      "one "
      "of these with dyn_ before it\n"
      "p:5: element 'A.y': 'x' is not a whole number from -2147483648 to 2147483647");
}

TEST(PlantFile, AFileThatCannotBeReadIsItsError) {
  EXPECT_EQ(PlantFile::read("/no/such/file").errorText("/no/such/file"),
            "/no/such/file: No such file or directory");
  EXPECT_EQ(PlantFile::read("/").errorText("/"), "/: Is a directory");
}

}  // namespace
}  // namespace pvss
