#include "CdpeWrapper.h"

#include <pvss/DpIdentification.h>
#include <pvss/IntegerVar.h>
#include <pvss/Manager.h>
#include <pvss/TextVar.h>

#include <array>
#include <cstring>

#include "CkelDataMapping.h"
#include "platformDependant.h"

namespace {

constexpr runtime::Report<const char*> addressMissing{"CdpeWrapper", 54,
                                                      "Address config does not exist for %s\n"};
constexpr runtime::Report<const char*> addressNotListed{
    "CdpeWrapper", 66, "Failed to build dpList to get address info for %s\n"};
constexpr runtime::Report<const char*, const char*> badDriver{"CdpeWrapper", 92,
                                                              "DPE %s has bad driver id %s\n"};
constexpr runtime::Report<const char*> referenceEmpty{"CdpeWrapper", 104, "DPE %s has empty reference\n"};

constexpr const char* driverName = "KEL";

/// The characters of a text value, the empty text when it has none.
const char* textOf(const Variable& value) {
  const char* const text = static_cast<const TextVar&>(value).getValue();
  return text != nullptr ? text : "";
}

bool contains(const CharString& text, const CharString& part) {
  return std::strstr(text, part) != nullptr;
}

}  // namespace

CdpeWrapper::CdpeWrapper(const CharString& dpeName)
    : CsimpleDPEWrapper(dpeName), mapping(nullptr), shownStateHeld(false) {}

CdpeWrapper::~CdpeWrapper() = default;

const CharString CdpeWrapper::getDPESourceName() const {
  return "original";
}

const CharString CdpeWrapper::getValidAttribName() const {
  return "exp_inv";
}

bool CdpeWrapper::revalidateDPE() {
  valid = resolve();
  if (mapping != nullptr && !shownStateHeld) {
    mapping->showDpe();
  }
  return valid;
}

bool CdpeWrapper::resolve() {
  const CharString bit1Name = attributeName("userbit1");
  const CharString bit2Name = attributeName("userbit2");
  if (!CsimpleDPEWrapper::revalidateDPE() || !retriveKELAddress(nameOfKELPublication)) {
    return false;
  }
  if (DpIdentifier id; Manager::getId(bit1Name, id)) {
    dpId_usrBit1 = id;
  } else {
    return false;
  }
  if (DpIdentifier id; Manager::getId(bit2Name, id)) {
    dpId_usrBit2 = id;
  } else {
    return false;
  }
  return true;
}

bool CdpeWrapper::retriveKELAddress(CharString& address) const {
  const CharString typeName = name + ":_address.._type";
  const CharString driverAttribute = name + ":_address.._drv_ident";
  const CharString referenceAttribute = name + ":_address.._reference";
  address = "";

  DpIdentList typeList;
  if (makeListOfDPEs(typeList, &typeName, 1) != 1) {
    return false;
  }
  CdpGetCallBackHandler typeAnswer;
  getValuesOfDPEs(typeAnswer, typeList);
  const DpVCItem* const typeItem = typeAnswer.getListOfResponses().getFirstItem();
  if (static_cast<const IntegerVar*>(typeItem->getValuePtr())->getValue() == 0) {
    runtime::report(addressMissing, name);
    return false;
  }

  const std::array names{driverAttribute, referenceAttribute};
  DpIdentList addressList;
  if (makeListOfDPEs(addressList, names.data(), static_cast<int>(names.size())) !=
      static_cast<int>(names.size())) {
    runtime::report(addressNotListed, name);
    return false;
  }
  CdpGetCallBackHandler addressAnswer;
  getValuesOfDPEs(addressAnswer, addressList);

  bool result = false;
  const DpIdValueList& answers = addressAnswer.getListOfResponses();
  for (const DpVCItem* item = answers.getFirstItem(); item != nullptr; item = answers.getNextItem()) {
    CharString answerName;
    Manager::getLIName(item->getDpIdentifier(), answerName, DpIdentification::getDefaultSystem());
    const Variable* const value = item->getValuePtr();
    if (contains(answerName, driverAttribute)) {
      const char* const driver = value != nullptr ? textOf(*value) : "missing";
      if (value == nullptr || std::strcmp(driver, driverName) != 0) {
        runtime::report(badDriver, name, driver);
        return false;
      }
    } else if (contains(answerName, referenceAttribute)) {
      result = value != nullptr;
      if (result) {
        address = textOf(*value);
      } else {
        runtime::report(referenceEmpty, name);
      }
    }
  }
  return result;
}

void CdpeWrapper::holdShownState() {
  shownStateHeld = true;
}

void CdpeWrapper::showState() {
  shownStateHeld = false;
  if (mapping != nullptr) {
    mapping->showDpe();
  }
}
