#include "pvss/Settings.h"

#include <cstdlib>

namespace pvss {

Settings& Settings::current() {
  static Settings settings;
  return settings;
}

std::string Settings::storeAddress() const {
  const char* const variable = std::getenv("PVSS_STORE");
  return variable != nullptr && *variable != '\0' ? variable : store;
}

}  // namespace pvss
