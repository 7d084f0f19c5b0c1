// KelApiResources: the gateway's own section of the configuration file.
//
// Purpose    Reads section `kel`: clientDPList, pubDPList, publisherName.
// Thread     Main thread, once, before anything else runs; afterwards the values do not change.
// Errors     The platform's resource framework speaks for bad files and switches. Unknown keys are skipped.
#pragma once

#include <pvss/CharString.h>

class KelApiResources {
 public:
  KelApiResources() = delete;

  /// Takes command line and configuration file through the platform's resource framework.
  static void init(int& argc, char** argv);
  /// Reads the section if it is the gateway's own. True when reading is to go on with the next section.
  static bool readSection();

  static CharString clientSourceName;  ///< element with the client list; empty: nothing is subscribed
  static CharString pubSourceName;     ///< element with the publication list; empty: nothing is published
  static CharString publisherName;     ///< name given to Kel::create
};
