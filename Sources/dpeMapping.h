// CdpeMapping: one published element and its tag.
//
// Ownership  Owns the wrapper from the end of its construction on; the converter is the registry's.
// Thread     The group's lock serialises writing.
// Errors     BadTypeConversionException when no converter takes the element's type, or a value does not fit.
#pragma once

#include <kel/KelData.h>
#include <pvss/CharString.h>
#include <pvss/Variable.h>

#include "mapping.h"
#include "pubDpeWrapper.h"

class CdpeMapping : public Cmapping {
 public:
  /// Throws BadTypeConversionException, and then the wrapper stays the caller's.
  CdpeMapping(CpubDpeWrapper* dpeToPublish, const CharString& tag);
  ~CdpeMapping() override;

  /// Writes the value into the mapping's field.
  void writeValueToKelData(KelData& data, Variable* value) const;
  [[nodiscard]] CpubDpeWrapper& getMappedDpe() const { return *dpe; }

 private:
  CpubDpeWrapper* dpe;
  CpvssToKelTypeConverter* converter;
};
