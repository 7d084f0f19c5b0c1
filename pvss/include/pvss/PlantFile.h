// PlantFile: the description of a plant: elements, lists, what is subscribed and what is published.
//
// Purpose    Reads and checks a plant file (YAML) whole, and says what it means for a store.
//
//              elements:                      # name: type, or name: {type: float, value: 3.5}
//                Boiler1.temperature: float   # bit char int uint bit32 float text, dyn_ of each
//              lists: {clients: KelGateway.clients, publications: KelGateway.publications}
//              subscribe:                     # publication -> tag -> element ("" is the unnamed value)
//                plant/boiler1: {temperature: Boiler1.temperature}
//              publish:
//                plant/pump1:
//                  bufferTime: 100            # milliseconds, 0 publishes on every change
//                  fields: {speed: Pump1.speed, running: Pump1.running}
//
// Ownership  A plain value.
// Thread     Pure but for read(), which reads the file.
// Errors     All that is wrong is listed; a plant with errors must not be used at all.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "pvss/DpElementType.h"
#include "pvss/Variable.h"

namespace pvss {

struct PlantFile {
  /// What separates publication and tag in a reference, and the fields of a publication text.
  static constexpr char separator = '\x1a';
  /// The driver that the address configuration of a subscribed element names, and its type.
  static constexpr const char* driver = "KEL";
  static constexpr int addressType = 1;

  struct Error {
    int line = 0;  ///< from 1; 0 when the whole file is meant
    std::string what;
  };
  struct Element {
    std::string name;
    DpElementType type = DPELEMENT_NOELEMENT;
    std::shared_ptr<const Variable> value;  ///< null when the plant gives none
    int line = 0;
    std::string publication;  ///< that feeds the element, empty for none
    std::string tag;
    /// The address reference, empty when nothing feeds the element.
    [[nodiscard]] std::string reference() const;
    [[nodiscard]] bool isFed() const { return !publication.empty(); }
  };
  struct Field {
    std::string tag;
    std::string element;
    int line = 0;
  };
  struct Subscription {
    std::string publication;
    std::vector<Field> fields;
    int line = 0;
  };
  struct Publication {
    std::string name;
    std::int64_t bufferTimeMs = 0;
    std::vector<Field> fields;
    int line = 0;
    /// The text of the publication list: name, buffer time, then DPE and tag for each field; the tag is left
    /// out when there is one field and its tag is empty.
    [[nodiscard]] std::string listText() const;
  };

  std::vector<Element> elements;  ///< in file order; the list elements too, at the end unless declared
  std::string clientList;         ///< name of the element, empty when the plant has none
  std::string publicationList;
  std::vector<Subscription> subscribe;
  std::vector<Publication> publish;
  std::vector<Error> errors;  ///< in line order

  /// The value of the client list: the fed elements, in the order of the file.
  [[nodiscard]] std::vector<std::string> clientTexts() const;
  /// The value of the publication list, in the order of the file.
  [[nodiscard]] std::vector<std::string> publicationTexts() const;
  /// The element of that name, or null.
  [[nodiscard]] const Element* find(std::string_view name) const;
  /// One line for each error: "file:line: what".
  [[nodiscard]] std::string errorText(std::string_view file) const;

  [[nodiscard]] static PlantFile parse(std::string_view text);
  /// Reads the file; that it cannot be read is an error of the result.
  [[nodiscard]] static PlantFile read(const std::string& path);
};

/// A dyn_text value.
[[nodiscard]] std::shared_ptr<const Variable> makeTexts(const std::vector<std::string>& texts);

/// The word of the plant file for an element type, empty for what has none; and back, DPELEMENT_NOELEMENT for
/// what is no such word.
[[nodiscard]] std::string_view plantTypeWord(DpElementType type);
[[nodiscard]] DpElementType plantTypeOf(std::string_view word);

}  // namespace pvss
