#include "pubDpeWrapper.h"

#include <pvss/Manager.h>

CpubDpeWrapper::CpubDpeWrapper(const CharString& dpeName) : CsimpleDPEWrapper(dpeName), invalid(false) {}

CpubDpeWrapper::~CpubDpeWrapper() = default;

const CharString CpubDpeWrapper::getDPESourceName() const {
  return "online";
}

const CharString CpubDpeWrapper::getValidAttribName() const {
  return "invalid";
}

bool CpubDpeWrapper::revalidateDPE() {
  const CharString timeName = attributeName("stime");
  valid = CsimpleDPEWrapper::revalidateDPE();
  if (valid) {
    DpIdentifier id;
    valid = Manager::getId(timeName, id);
    if (valid) {
      dpId_timeStamp = id;
    }
  }
  return valid;
}

void CpubDpeWrapper::storeInvalidAttribute(const Variable* value) {
  if (value != nullptr) {
    invalid = value->isTrue();
  }
}
