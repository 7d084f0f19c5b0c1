// ConfigFile: the text of a configuration file, taken apart.
//
// Thread     Pure; no I/O. Only running out of memory throws.
#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace pvss {

struct ConfigFile {
  struct Entry {
    int line = 0;
    std::string key;
    std::string value;  ///< what stands behind '=', comment included
  };
  struct Section {
    int line = 0;
    std::string name;
    std::vector<Entry> entries;
  };
  std::vector<Section> sections;
  int errorLine = 0;  ///< of the first line that is wrong, 0 when none is
  std::string error;

  [[nodiscard]] static ConfigFile parse(std::string_view text);
};

}  // namespace pvss
