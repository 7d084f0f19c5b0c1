// Names, identifiers and types.
#include <gtest/gtest.h>

#include "core/Catalogue.h"

namespace pvss {
namespace {

CatalogueEntry entry(const char* name, DpElementType type) {
  CatalogueEntry made;
  made.name = name;
  made.type = type;
  return made;
}

class CatalogueTest : public ::testing::Test {
 protected:
  CatalogueTest() {
    catalogue.load({entry("Boiler1.temperature", DPELEMENT_FLOAT), entry("_Odd.one", DPELEMENT_INT)});
  }
  Catalogue catalogue{"System1"};
};

TEST_F(CatalogueTest, EveryAttributeHasItsFullName) {
  const std::vector<std::string> attributes{
      "_original.._value",    "_original.._stime",    "_original.._exp_inv", "_original.._userbit1",
      "_original.._userbit2", "_online.._value",      "_online.._stime",     "_online.._invalid",
      "_address.._type",      "_address.._drv_ident", "_address.._reference"};
  for (const std::string& attribute : attributes) {
    const DpIdentifier id = catalogue.resolve("Boiler1.temperature:" + attribute);
    ASSERT_FALSE(id.isNull()) << attribute;
    EXPECT_EQ(catalogue.liName(id), "System1:Boiler1.temperature:" + attribute);
    EXPECT_EQ(catalogue.resolve(catalogue.liName(id)), id);
  }
}

TEST_F(CatalogueTest, SpellingsOfOneAttributeAreOneIdentifier) {
  const DpIdentifier id = catalogue.resolve("Boiler1.temperature");
  EXPECT_EQ(id, catalogue.resolve("System1:Boiler1.temperature"));
  EXPECT_EQ(id, catalogue.resolve("System1:Boiler1.temperature:_online.._value"));
  EXPECT_NE(id, catalogue.resolve("Boiler1.temperature:_original.._value"));
  EXPECT_FALSE(catalogue.resolve("System1:_Odd.one").isNull());
  EXPECT_FALSE(catalogue.resolve("_Odd.one").isNull());
}

TEST_F(CatalogueTest, WhatDoesNotExistResolvesToNothing) {
  for (const char* name :
       {"", ":", "::", "Boiler1", "Boiler1.temperature.", "boiler1.temperature",
        "Boiler1.temperature:", "Boiler1.temperature:_online", "Boiler1.temperature:_online.._exp_inv",
        "Boiler1.temperature:_original.._invalid", "Boiler1.temperature:_address.._active",
        "Other:Boiler1.temperature", ":_online.._value", "System1:System1:Boiler1.temperature"}) {
    EXPECT_TRUE(catalogue.resolve(name).isNull()) << name;
  }
  EXPECT_EQ(catalogue.liName(DpIdentifier()), "");
  EXPECT_EQ(catalogue.liName(DpIdentifier(4711, 1)), "");
}

TEST_F(CatalogueTest, IdsSurviveADeletionAndAReturn) {
  const DpIdentifier id = catalogue.resolve("Boiler1.temperature");
  ElementId element = 0;
  EXPECT_TRUE(catalogue.change(entry("Boiler1.temperature", DPELEMENT_NOELEMENT), element));
  EXPECT_EQ(element, id.getEl());
  EXPECT_TRUE(catalogue.resolve("Boiler1.temperature").isNull());
  EXPECT_EQ(catalogue.typeOf(element), DPELEMENT_NOELEMENT);
  EXPECT_EQ(catalogue.at(element).lastType, DPELEMENT_FLOAT);
  EXPECT_EQ(catalogue.liName(id), "System1:Boiler1.temperature:_online.._value");
  EXPECT_TRUE(catalogue.change(entry("Boiler1.temperature", DPELEMENT_TEXT), element));
  EXPECT_EQ(catalogue.resolve("Boiler1.temperature"), id);
  EXPECT_EQ(catalogue.typeOf(element), DPELEMENT_TEXT);
}

TEST_F(CatalogueTest, LoadingMakesItExactlyWhatIsGiven) {
  const ElementId boiler = catalogue.intern("Boiler1.temperature");
  const ElementId odd = catalogue.intern("_Odd.one");
  const std::vector<ElementId> touched =
      catalogue.load({entry("Boiler1.temperature", DPELEMENT_FLOAT), entry("New.one", DPELEMENT_BIT)});
  EXPECT_EQ(catalogue.typeOf(boiler), DPELEMENT_FLOAT);
  EXPECT_EQ(catalogue.typeOf(odd), DPELEMENT_NOELEMENT);
  EXPECT_EQ(touched, (std::vector<ElementId>{catalogue.intern("New.one"), odd}));
  EXPECT_TRUE(catalogue.load({entry("Boiler1.temperature", DPELEMENT_FLOAT), entry("New.one", DPELEMENT_BIT)})
                  .empty());
}

TEST_F(CatalogueTest, InterningANameDoesNotMakeAnElement) {
  const ElementId element = catalogue.intern("Not.there");
  EXPECT_EQ(catalogue.intern("Not.there"), element);
  EXPECT_EQ(catalogue.nameOf(element), "Not.there");
  EXPECT_TRUE(catalogue.resolve("Not.there").isNull());
}

TEST_F(CatalogueTest, AnAttributeSwitchedOffIsGoneAndTheOthersStay) {
  CatalogueEntry changed = entry("Boiler1.temperature", DPELEMENT_FLOAT);
  changed.disabled = disabledBit(AttributeCode::onlineStime);
  ElementId element = 0;
  EXPECT_TRUE(catalogue.change(changed, element));
  EXPECT_TRUE(catalogue.resolve("Boiler1.temperature:_online.._stime").isNull());
  EXPECT_FALSE(catalogue.resolve("Boiler1.temperature:_online.._value").isNull());
  EXPECT_FALSE(catalogue.change(changed, element));
}

}  // namespace
}  // namespace pvss
