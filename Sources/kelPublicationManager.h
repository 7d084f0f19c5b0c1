// CkelPublicationManager: the publishing side.
//
// Purpose    Builds a publication group for every entry of the publication list whose name is new. Existing
//            groups stay as they are, whatever becomes of their entries.
// Ownership  Groups are never destroyed while the process runs.
// Thread     Main thread only.
// Errors     Entries that cannot be used are reported and left out; they are tried again with the next list.
#pragma once

#include <pvss/CharString.h>

#include <map>
#include <string>
#include <vector>

#include "dpeMappingTuple.h"
#include "kelManager.h"
#include "kelPubGroup.h"

class CkelPublicationManager : public CkelManager {
 public:
  CkelPublicationManager() = default;
  ~CkelPublicationManager() override;

  /// Each text of the list is one publication: name, buffer time, and elements with their tags.
  void updateConfig(const DynVar* pubConfigurations) override;

  /// False, with a report, when the group cannot be built.
  bool makePublication(const CharString& name, int bufferTime_ms,
                       const CvectorOfdpeMappingTuples& mappingList);

  /// Appends the fields of one entry. A delimiter at the end closes the last field and begins no other.
  static void extractStringsFromCompoundString(const CharString& compoundString,
                                               std::vector<std::string>& strings);

  using Publications = std::map<const CharString*, CkelPubGroup*, CharStringLess>;
  static Publications publications;  ///< every group ever built, by its own name
};
