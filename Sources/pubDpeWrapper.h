// CpubDpeWrapper: an element whose online value is published.
//
// Purpose    Adds the source time, and keeps the last known state of the invalid flag.
// Ownership  Belongs to the mapping of its publication group.
// Thread     Main thread; the group's lock serialises the flag.
// Errors     As the base.
#pragma once

#include <pvss/Variable.h>

#include "simpleDPEWrapper.h"

class CpubDpeWrapper : public CsimpleDPEWrapper {
 public:
  explicit CpubDpeWrapper(const CharString& name);

  [[nodiscard]] const CharString getDPESourceName() const override;
  [[nodiscard]] const CharString getValidAttribName() const override;
  ~CpubDpeWrapper() override;
  bool revalidateDPE() override;

  [[nodiscard]] const DpIdentifier& getKELTimeStampID() const { return ifValid(dpId_timeStamp); }
  /// Keeps the truth of the value; a missing value leaves the flag as it is.
  void storeInvalidAttribute(const Variable* value);
  [[nodiscard]] bool isInvalidAttributeSet() const { return invalid; }

 protected:
  DpIdentifier dpId_timeStamp;
  bool invalid;
};
