// CdpeWrapper: an element of the client list, with its Kel address.
//
// Purpose    Adds the two user bits that carry the quality and the address that the element's address
//            configuration names.
// Ownership  Belongs to the client manager. The mapping that feeds it enters and removes itself.
// Thread     Main thread only. Kel threads see the copy that the mapping keeps: revalidateDPE replaces it at
//            its end, in one step, so that nothing in between shows.
// Errors     As the base; the reasons of an address that cannot be used are reported.
#pragma once

#include "simpleDPEWrapper.h"

class CkelDataMapping;

class CdpeWrapper : public CsimpleDPEWrapper {
 public:
  explicit CdpeWrapper(const CharString& name);

  [[nodiscard]] const CharString getDPESourceName() const override;
  [[nodiscard]] const CharString getValidAttribName() const override;
  ~CdpeWrapper() override;
  /// Also reads the address, for whose answers it dispatches, and resolves the user bits.
  bool revalidateDPE() override;

  /// Reads the Kel address from the address configuration, dispatching while it waits. False, with a report,
  /// when there is none that the gateway can use.
  bool retriveKELAddress(CharString& address) const;

  [[nodiscard]] CkelDataMapping* getMapping() const { return mapping; }
  void setMapping(CkelDataMapping* newMapping) { mapping = newMapping; }

  [[nodiscard]] const DpIdentifier& getKELusrBit1ID() const { return ifValid(dpId_usrBit1); }
  [[nodiscard]] const DpIdentifier& getKELusrBit2ID() const { return ifValid(dpId_usrBit2); }
  [[nodiscard]] const CharString& getKelAddress() const { return ifValid(nameOfKELPublication); }

  /// While held, revalidateDPE leaves what Kel threads see as it was; at the end of holding they see what is.
  void holdShownState();
  void showState();

 private:
  [[nodiscard]] bool resolve();

  DpIdentifier dpId_usrBit1;
  DpIdentifier dpId_usrBit2;
  CharString nameOfKELPublication;  ///< the whole address: publication, delimiter, tag
  CkelDataMapping* mapping;
  bool shownStateHeld;
};
