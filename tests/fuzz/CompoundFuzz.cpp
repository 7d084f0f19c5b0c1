// Any text is an entry of the publication list: taken apart into fields that are its own, and used or
// reported.
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "GatewayWorld.h"
#include "KELClientManager.h"
#include "Require.h"
#include "kelPublicationManager.h"

using fuzz::require;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string all(reinterpret_cast<const char*>(data), size);
  const std::string text = all.substr(0, all.find('\0'));  // a text of the platform ends at a NUL
  const char delimiter = CkelClientManager::pubNameDelimiter[0];

  std::vector<std::string> fields;
  CkelPublicationManager::extractStringsFromCompoundString(CharString(text.c_str()), fields);
  std::string joined;
  for (const std::string& field : fields) {
    require(field.find(delimiter) == std::string::npos);
    joined += field + delimiter;
  }
  // A delimiter at the end closes the last field and begins no other.
  if (!text.empty() && text.back() != delimiter) joined.pop_back();
  require(joined == text);

  const gateway_fuzz::Quiet quiet;
  gateway_fuzz::world({});
  CkelPublicationManager publications;
  // None of the elements exists, so whatever is well formed is reported and not built.
  const DynVar list = gateway_fuzz::World::texts({text, text + delimiter, "p" + text});
  publications.updateConfig(&list);
  require(CkelPublicationManager::publications.empty());
  return 0;
}
