// CkelDataMapping: one tag of a subscribed publication that feeds one element.
//
// Purpose    Turns a record's field into the writes of its element: value, two user bits, invalid flag.
// Ownership  Belongs to its subscription; refers to a wrapper that outlives it.
// Thread     Appending runs on Kel threads under the subscription's lock; the rest on the main thread.
// Errors     A field that cannot be converted is reported, and the invalid flag says so. CdepException from
//            the flag of an element that is not valid.
#pragma once

#include <kel/KelData.h>
#include <pvss/DpIdValueList.h>

#include "CdpeWrapper.h"
#include "mapping.h"

class CkelSubscription;

class CkelDataMapping : public Cmapping {
 public:
  /// Throws CdepException when the element is not valid.
  CkelDataMapping(CdpeWrapper& dpe, const CharString& tag, const CharString& fullAddress,
                  CkelSubscription& owner);
  ~CkelDataMapping() override;

  /// Appends value and user bits.
  void addValueToList(KelData& data, DpIdValueList& list);
  /// Appends the invalid flag.
  void addValueValidityStatusToList(DpIdValueList& list);
  /// Re-reads the element's configuration, dispatching; true when this mapping does not fit it any more.
  bool dpeSubscriptionHasChanged();
  [[nodiscard]] bool shouldDPEBeSetToInvalid() const;

  [[nodiscard]] CdpeWrapper& getMappedDpe() const;
  [[nodiscard]] const CkelSubscription& getSubscription() const { return subscription; }

  /// Lets Kel threads see the element as its wrapper has it now. Takes the subscription's lock.
  void showDpe();

 private:
  /// The element as Kel threads see it; replaced as a whole.
  struct ShownDpe {
    bool valid = false;
    DpElementType valueType = DPELEMENT_NOELEMENT;
    DpIdentifier value;
    DpIdentifier usrBit1;
    DpIdentifier usrBit2;
    DpIdentifier invalid;
  };
  [[nodiscard]] static ShownDpe shownStateOf(const CdpeWrapper& dpe);
  [[nodiscard]] bool findConverter(KelData& data);

  const CharString fullKELAddress;
  const DpElementType dpeType;
  const CkelSubscription& subscription;
  bool badTypeConversion;
  int mostRecentKelQuality;
  ShownDpe shownDpe;  ///< under the subscription's lock, as the two members before it
};
