// The entry point: signals, configuration, help, and else the one manager.
#include <kel/KelException.h>
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
  try {
    manager->run();
  } catch (const KelException&) {
    // An address or a name that the Kel library cannot take, and has said so: no retry mends it.
    Manager::exit(2);
  }
  Manager::exit(0);
}
