#include "simpleDPEWrapper.h"

#include <pvss/Manager.h>

#include "platformDependant.h"

namespace {

constexpr runtime::Notice<const char*> wrapperCreated{"simpleDPEWrapper", "Created DPEWrapper for DPE %s\n"};
constexpr runtime::Notice<const char*> wrapperDestroyed{"simpleDPEWrapper",
                                                        "Destroyed DPEWrapper for DPE %s\n"};
constexpr runtime::Report<const char*> identifierMissing{"simpleDPEWrapper", 82,
                                                         "Failed to get dpID for %s\n"};

constexpr long answerWaitUs = 200;

}  // namespace

CsimpleDPEWrapper::CsimpleDPEWrapper(const CharString& dpeName)
    : valueType(DPELEMENT_NOELEMENT), name(dpeName), marked(false), valid(false) {
  runtime::inform(wrapperCreated, name);
}

CsimpleDPEWrapper::~CsimpleDPEWrapper() {
  runtime::inform(wrapperDestroyed, name);
}

CharString CsimpleDPEWrapper::attributeName(const char* attribute) const {
  return name + ":_" + getDPESourceName() + ".._" + attribute;
}

bool CsimpleDPEWrapper::revalidateDPE() {
  valid = false;
  const CharString valueName = attributeName("value");
  const CharString invalidName = attributeName(getValidAttribName());
  // A failed look-up leaves the identifier of the last successful one in place.
  if (DpIdentifier id; Manager::getId(valueName, id)) {
    dpId_value = id;
  } else {
    return valid;
  }
  if (DpIdentifier id; Manager::getId(invalidName, id)) {
    dpId_invalid = id;
  } else {
    return valid;
  }
  valid = retrieveDPEsValueType(valueType);
  return valid;
}

bool CsimpleDPEWrapper::retrieveDPEsValueType(DpElementType& type) const {
  Manager::getElementType(dpId_value, type);
  return true;
}

int CsimpleDPEWrapper::makeListOfDPEs(DpIdentList& list, const CharString* names, int count) {
  for (int i = 0; i < count; ++i) {
    DpIdentifier id;
    if (!Manager::getId(names[i], id)) {
      runtime::report(identifierMissing, names[i]);
      return 0;
    }
    list.append(id);
  }
  return static_cast<int>(list.getNumberOfItems());
}

void CsimpleDPEWrapper::getValuesOfDPEs(CdpGetCallBackHandler& handler, const DpIdentList& list) {
  Manager::dpGet(list, Manager::eventId, &handler, 0);
  while (handler.getNumOfResponses() != static_cast<int>(list.getNumberOfItems())) {
    long sec = 0;
    long usec = answerWaitUs;
    Manager::dispatch(sec, usec);
  }
}
