// Cmapping: one Kel tag and one data point element that belong together.
//
// Ownership  Refers to a wrapper that outlives it.
// Thread     The subclasses say.
#pragma once

#include <pvss/CharString.h>

#include <string>

#include "PVSS_KEL_TypeMap.h"
#include "simpleDPEWrapper.h"

class Cmapping {
 public:
  Cmapping(CsimpleDPEWrapper& dpe, const CharString& tag);
  Cmapping(const Cmapping&) = delete;
  Cmapping& operator=(const Cmapping&) = delete;
  virtual ~Cmapping();

  [[nodiscard]] const char* getTagName() const { return kelTagName.c_str(); }
  [[nodiscard]] const char* getDPEName() const { return mappedDpe.getName(); }

 protected:
  TConv* valueConverter;  ///< null until the first use found it; the registry's
  const CsimpleDPEWrapper& mappedDpe;
  const std::string kelTagName;
};
