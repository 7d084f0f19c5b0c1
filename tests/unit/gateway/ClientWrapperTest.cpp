// The client's wrapper and its address configuration.
#include "CdpeWrapper.h"
#include "Gateway.h"

namespace gateway_test {
namespace {

class ClientWrapper : public Gateway {
 protected:
  /// Validates a wrapper of A.v and gives what it printed, without the lines of its life.
  std::string validated(bool expected) {
    CdpeWrapper wrapper("A.v");
    return printedBy([&] { EXPECT_EQ(wrapper.revalidateDPE(), expected); });
  }
};

std::string nameOf(const DpIdentifier& id) {
  CharString name;
  Manager::getLIName(id, name, 1);
  return name.str();
}

TEST_F(ClientWrapper, resolvesFourElementsAndTheAddress) {
  addClient("A.v", DPELEMENT_INT, "P", "t");
  start();
  CdpeWrapper wrapper("A.v");
  EXPECT_EQ(printedBy([&] { EXPECT_TRUE(wrapper.revalidateDPE()); }), "");
  EXPECT_EQ(nameOf(wrapper.getKELValueID()), "System1:A.v:_original.._value");
  EXPECT_EQ(nameOf(wrapper.getKELusrBit1ID()), "System1:A.v:_original.._userbit1");
  EXPECT_EQ(nameOf(wrapper.getKELusrBit2ID()), "System1:A.v:_original.._userbit2");
  EXPECT_EQ(nameOf(wrapper.getKELinvalidBit()), "System1:A.v:_original.._exp_inv");
  EXPECT_EQ(wrapper.getTypeOfValueID(), DPELEMENT_INT);
  EXPECT_EQ(wrapper.getKelAddress().str(), reference("P", "t"));
}

TEST_F(ClientWrapper, readsTypeFirstThenDriverAndReferenceInOneRequest) {
  addClient("A.v", DPELEMENT_INT, "P", "t");
  start();
  plant.clearRecords();
  CdpeWrapper wrapper("A.v");
  ASSERT_TRUE(wrapper.revalidateDPE());
  ASSERT_EQ(plant.gets().size(), 2U);
  EXPECT_EQ(plant.gets()[0].names, Lines{"System1:A.v:_address.._type"});
  EXPECT_EQ(plant.gets()[1].names,
            (Lines{"System1:A.v:_address.._drv_ident", "System1:A.v:_address.._reference"}));
}

TEST_F(ClientWrapper, isEmptyAndNotValidBeforeItWasValidated) {
  CdpeWrapper wrapper("A.v");
  EXPECT_FALSE(wrapper.isValid());
  EXPECT_EQ(wrapper.getMapping(), nullptr);
  EXPECT_NO_THROW(wrapper.setMapping(nullptr));
  EXPECT_THROW(static_cast<void>(wrapper.getKELusrBit1ID()), CdepException);
  EXPECT_THROW(static_cast<void>(wrapper.getKELusrBit2ID()), CdepException);
  EXPECT_THROW(static_cast<void>(wrapper.getKelAddress()), CdepException);
}

TEST_F(ClientWrapper, elementWithoutAddressIsRefused) {
  plant.addElement("A.v", DPELEMENT_INT);
  start();
  EXPECT_EQ(validated(false), "ERROR: CdpeWrapper 54 Address config does not exist for A.v\n");
}

TEST_F(ClientWrapper, addressThatCannotBeReadIsEmpty) {
  plant.addElement("A.v", DPELEMENT_INT);
  start();
  const CdpeWrapper wrapper("A.v");
  CharString address("of before");
  printedBy([&] { EXPECT_FALSE(wrapper.retriveKELAddress(address)); });
  EXPECT_EQ(address, "");
}

TEST_F(ClientWrapper, anyTypeNumberButZeroIsAnAddress) {
  plant.addElement("A.v", DPELEMENT_INT);
  plant.setAddress("A.v", 7, "KEL", "P");
  start();
  EXPECT_EQ(validated(true), "");
}

TEST_F(ClientWrapper, onlyTheExactDriverNamePasses) {
  plant.addElement("A.v", DPELEMENT_INT);
  start();
  for (const std::string driver : {"kel", "Kel", "KEL ", " KEL", "KELX", "KE", ""}) {
    plant.setAddress("A.v", 1, driver, reference("P", "t"));
    settle();
    EXPECT_EQ(validated(false), "ERROR: CdpeWrapper 92 DPE A.v has bad driver id " + driver + "\n");
  }
  plant.setAddress("A.v", 1, "KEL", reference("P", "t"));
  settle();
  EXPECT_EQ(validated(true), "");
}

TEST_F(ClientWrapper, emptyReferenceIsAnEmptyAddress) {
  plant.addElement("A.v", DPELEMENT_INT);
  plant.setAddress("A.v", 1, "KEL", "");
  start();
  CdpeWrapper wrapper("A.v");
  EXPECT_EQ(printedBy([&] { EXPECT_TRUE(wrapper.revalidateDPE()); }), "");
  EXPECT_EQ(wrapper.getKelAddress(), "");
}

TEST_F(ClientWrapper, missingUserBitIsRefusedSilently) {
  for (const char* const bit : {"A.v:_original.._userbit1", "A.v:_original.._userbit2"}) {
    addClient("A.v", DPELEMENT_INT, "P", "t");
    plant.switchOff(bit);
    start();
    EXPECT_EQ(validated(false), "");
    plant.switchOn(bit);
    settle();
    EXPECT_EQ(validated(true), "");
  }
}

TEST_F(ClientWrapper, resolvingStopsAtTheFirstFailure) {
  class Asked final : public pvss::testing::ManagerObserver {
   public:
    void onGetId(const char* name, bool /*found*/) override { names.emplace_back(name); }
    Lines names;
  };
  addClient("A.v", DPELEMENT_INT, "P", "t");
  start();
  const auto namesAsked = [this](const char* missing) {
    plant.switchOff(missing);
    settle();
    Asked asked;
    plant.observe(&asked);
    validated(false);
    plant.observe(nullptr);
    plant.switchOn(missing);
    settle();
    return asked.names;
  };
  Lines names{"A.v:_original.._value", "A.v:_original.._exp_inv"};
  EXPECT_EQ(namesAsked("A.v:_original.._exp_inv"), names);
  names.insert(names.end(), {"A.v:_address.._type", "A.v:_address.._drv_ident"});
  EXPECT_EQ(namesAsked("A.v:_address.._drv_ident"), names);
  names.insert(names.end(), {"A.v:_address.._reference", "A.v:_original.._userbit1"});
  EXPECT_EQ(namesAsked("A.v:_original.._userbit1"), names);
  names.emplace_back("A.v:_original.._userbit2");
  EXPECT_EQ(namesAsked("A.v:_original.._userbit2"), names);
}

TEST_F(ClientWrapper, missingTypeAttributeIsReportedByTheListAlone) {
  addClient("A.v", DPELEMENT_INT, "P", "t");
  plant.switchOff("A.v:_address.._type");
  start();
  EXPECT_EQ(validated(false), "ERROR: simpleDPEWrapper 82 Failed to get dpID for A.v:_address.._type\n");
}

TEST_F(ClientWrapper, missingReferenceAttributeIsReportedTwice) {
  addClient("A.v", DPELEMENT_INT, "P", "t");
  plant.switchOff("A.v:_address.._reference");
  start();
  plant.clearRecords();
  EXPECT_EQ(validated(false),
            "ERROR: simpleDPEWrapper 82 Failed to get dpID for A.v:_address.._reference\n"
            "ERROR: CdpeWrapper 66 Failed to build dpList to get address info for A.v\n");
  EXPECT_EQ(plant.gets().size(), 1U);  // the type alone
}

TEST_F(ClientWrapper, unknownElementIsRefusedSilently) {
  start();
  EXPECT_EQ(validated(false), "");
}

TEST_F(ClientWrapper, revalidationFollowsTheAddress) {
  addClient("A.v", DPELEMENT_INT, "P", "t");
  start();
  CdpeWrapper wrapper("A.v");
  ASSERT_TRUE(wrapper.revalidateDPE());
  plant.setAddress("A.v", 1, "KEL", reference("Q", "u"));
  settle();
  ASSERT_TRUE(wrapper.revalidateDPE());
  EXPECT_EQ(wrapper.getKelAddress().str(), reference("Q", "u"));
  plant.setAddress("A.v", 0, "", "");
  settle();
  EXPECT_FALSE(wrapper.revalidateDPE());
  EXPECT_FALSE(wrapper.isValid());
}

TEST_F(ClientWrapper, namesWithTheSystemWorkToo) {
  addClient("A.v", DPELEMENT_INT, "P", "t");
  start();
  CdpeWrapper wrapper("System1:A.v");
  EXPECT_EQ(printedBy([&] { EXPECT_TRUE(wrapper.revalidateDPE()); }), "");
  EXPECT_EQ(wrapper.getKelAddress().str(), reference("P", "t"));
}

}  // namespace
}  // namespace gateway_test
