// The entry point: signals, configuration, help, and else the one manager.
#include <pvss/Manager.h>
#include <pvss/Resources.h>

#include <csignal>

#include "KelApiManager.h"
#include "KelApiResources.h"

int main(int argc, char** argv) {
  std::signal(SIGINT, Manager::sigHdl);
  std::signal(SIGTERM, Manager::sigHdl);

  KelApiResources::init(argc, argv);

  if (Resources::helpDbgFlag) {
    Resources::printHelpDbg();
    return 0;
  }
  if (Resources::helpFlag) {
    Resources::printHelp();
    return 0;
  }

  auto* const manager = new KelApiManager();  // lives until the process ends
  manager->run();
  Manager::exit(0);
}
