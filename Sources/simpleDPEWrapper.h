// CsimpleDPEWrapper: what the gateway knows of one data point element.
//
// Purpose    Resolves the element's name to the identifiers of the value and of the invalid flag of one
//            config, and to its type; says whether all that succeeded.
// Ownership  Belongs to the side that made it; identifiers it hands out are its own.
// Thread     The thread that runs Manager::dispatch.
// Errors     Identifiers and type are only to be had while the wrapper is valid, else CdepException is
//            thrown. Name, marks and comparison never throw.
#pragma once

#include <pvss/CharString.h>
#include <pvss/DpElementType.h>
#include <pvss/DpIdentList.h>
#include <pvss/DpIdentifier.h>

#include "AnswerCallBackHandler.h"
#include "PVSS_KEL_TypeMap.h"

class CsimpleDPEWrapper {
 public:
  CsimpleDPEWrapper(const CsimpleDPEWrapper&) = delete;
  CsimpleDPEWrapper& operator=(const CsimpleDPEWrapper&) = delete;

  /// The config that is meant, and its attribute that is the invalid flag.
  [[nodiscard]] virtual const CharString getDPESourceName() const = 0;
  [[nodiscard]] virtual const CharString getValidAttribName() const = 0;
  virtual ~CsimpleDPEWrapper();
  /// Resolves identifiers and type anew. False, and not valid, when any of them is missing.
  virtual bool revalidateDPE();

  [[nodiscard]] bool isValid() const { return valid; }
  void validate() { valid = true; }
  [[nodiscard]] const CharString& getName() const { return name; }
  [[nodiscard]] const DpElementType& getTypeOfValueID() const { return ifValid(valueType); }
  [[nodiscard]] const DpIdentifier& getKELValueID() const { return ifValid(dpId_value); }
  [[nodiscard]] const DpIdentifier& getKELinvalidBit() const { return ifValid(dpId_invalid); }

  void mark() { marked = true; }
  void clearMark() { marked = false; }
  [[nodiscard]] bool isMarked() const { return marked; }

  /// Equal names.
  [[nodiscard]] bool operator==(const CsimpleDPEWrapper& other) const { return name == other.name; }

  /// Asks the platform for the element's type; true in every case.
  bool retrieveDPEsValueType(DpElementType& type) const;

  /// Appends the identifiers of the names. The number of items in the list, or 0 (and one report) at the
  /// first name that does not resolve; what was appended before it stays.
  static int makeListOfDPEs(DpIdentList& list, const CharString* names, int count);
  /// Reads the elements and waits, dispatching, until each has answered. There is no time-out: every
  /// identifier must exist.
  static void getValuesOfDPEs(CdpGetCallBackHandler& handler, const DpIdentList& list);

 protected:
  explicit CsimpleDPEWrapper(const CharString& dpeName);

  /// The element name of an attribute of the wrapper's config.
  [[nodiscard]] CharString attributeName(const char* attribute) const;
  template <typename Value>
  [[nodiscard]] const Value& ifValid(const Value& value) const {
    if (!valid) {
      throw CdepException();
    }
    return value;
  }

  DpIdentifier dpId_value;
  DpElementType valueType;
  DpIdentifier dpId_invalid;
  const CharString name;
  bool marked;
  bool valid;
};
