// Any text is a plant without errors, whose texts then follow the rules of the lists, or is refused with
// lines.
#include <cstdint>
#include <string_view>

#include "Require.h"
#include "pvss/PlantFile.h"

using fuzz::require;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const pvss::PlantFile plant = pvss::PlantFile::parse({reinterpret_cast<const char*>(data), size});
  if (!plant.errors.empty()) {
    require(!plant.errorText("p").empty());
    for (const auto& error : plant.errors) {
      require(error.line >= 0 && !error.what.empty() && error.what.find('\n') == std::string::npos);
    }
    return 0;
  }
  for (const auto& element : plant.elements) {
    require(element.type != DPELEMENT_NOELEMENT && !element.name.empty() &&
            plant.find(element.name) == &element);
    require(element.isFed() == !element.reference().empty());
  }
  for (const auto& publication : plant.publish) {
    // As many separators as fields of a well-formed entry need, and no empty field.
    const std::string text = publication.listText();
    std::size_t fields = 1;
    for (std::size_t at = 0; at < text.size(); ++at) {
      if (text[at] == pvss::PlantFile::separator) {
        ++fields;
        require(at > 0 && at + 1 < text.size() && text[at + 1] != pvss::PlantFile::separator);
      }
    }
    require(fields == 3 || (fields >= 4 && fields % 2 == 0));
  }
  return 0;
}
