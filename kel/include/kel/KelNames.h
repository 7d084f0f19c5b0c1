// KelNames: which names can be names of publications.
//
// Purpose    Says beforehand what the library would say when a subscription or publication of the name is
// made. Thread     Any; nothing is shared and nothing blocks.
#pragma once

#include <string>
#include <string_view>

class KelNames {
 public:
  /// Why no publication can have this name, as half a sentence ("the name is empty"); empty when one can.
  static std::string faultOfPublication(std::string_view name);

  KelNames() = delete;
};
