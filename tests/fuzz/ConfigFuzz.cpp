// Any text is a configuration file or is refused with a line that it has.
#include <algorithm>
#include <cstdint>
#include <sstream>
#include <string_view>

#include "Require.h"
#include "config/ConfigFile.h"
#include "pvss/CharString.h"

using fuzz::require;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string_view text(reinterpret_cast<const char*>(data), size);
  const pvss::ConfigFile file = pvss::ConfigFile::parse(text);
  const auto lines = 1 + std::count(text.begin(), text.end(), '\n');
  require(file.errorLine >= 0 && file.errorLine <= lines);
  require((file.errorLine == 0) == file.error.empty());
  for (const auto& section : file.sections) {
    require(!section.name.empty());
    for (const auto& entry : section.entries) {
      require(!entry.key.empty() && entry.line > section.line);
      std::istringstream in(entry.value);
      CharString value;
      in >> value;
      require(value.len() <= entry.value.size());
    }
  }
  return 0;
}
