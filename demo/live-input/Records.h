// Records: this machine's readings as Kel records, one for each publication of the demonstration.
//
// Purpose    All sixteen Kel types occur: each reading in the type that suits it.
// Thread     One thread.
#pragma once

#include <kel/KelData.h>

#include <string>
#include <vector>

#include "Readings.h"

namespace liveinput {

/// One publication's name and its record of now.
struct NamedRecord {
  std::string publication;
  KelData record;
};

/// Reads the machine; rates and uses are between two calls, so the first call shows none.
class Machine {
 public:
  Machine();
  [[nodiscard]] std::vector<NamedRecord> read();

 private:
  [[nodiscard]] KelData cpu();

  Processor last;  ///< counters of the previous call
};

/// The names that read() gives, in its order.
[[nodiscard]] std::vector<std::string> publicationNames();

}  // namespace liveinput
