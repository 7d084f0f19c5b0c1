#include "KelApiResources.h"

#include <pvss/Resources.h>

CharString KelApiResources::clientSourceName("");
CharString KelApiResources::pubSourceName("");
CharString KelApiResources::publisherName("PVSSApiManager_PublisherNameMissing");

void KelApiResources::init(int& argc, char** argv) {
  Resources::begin(argc, argv);
  while (readSection() || Resources::generalSection()) {
  }
  Resources::end(argc, argv);
}

bool KelApiResources::readSection() {
  if (!Resources::isSection("kel")) {
    return false;
  }
  const auto readIf = [](const char* key, CharString& value) {
    if (Resources::keyWord.icmp(key) == 0) {
      Resources::cfgStream >> value;
    }
  };
  Resources::getNextEntry();
  while (Resources::cfgState > Resources::CFG_SECT_START) {
    readIf("clientDPList", clientSourceName);
    readIf("pubDPList", pubSourceName);
    readIf("publisherName", publisherName);
    Resources::getNextEntry();
  }
  return Resources::cfgState != Resources::CFG_EOF;
}
