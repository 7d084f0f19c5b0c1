// Catalogue: names, types and address configurations of the elements, as the manager knows them.
//
// Purpose    Interns names (an id is for ever, whatever happens to the element), resolves names to
//            identifiers and gives types and address attributes without asking the store.
// Ownership  Owned by the manager core; the store sees it as its ElementDirectory.
// Thread     The thread that runs Manager::dispatch. Nothing blocks.
// Errors     Only running out of memory throws.
#pragma once

#include <cstdint>
#include <deque>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "basics/Values.h"
#include "pvss/DpIdentifier.h"
#include "store/DatapointStore.h"

namespace pvss {

/// The attribute part of a DpIdentifier. The numbers are also the positions of the bits of
/// CatalogueEntry::disabled (1 << code), so they are part of the stored form: add, never change.
enum class AttributeCode : std::uint8_t {
  none = 0,
  originalValue = 1,
  originalStime = 2,
  originalExpInv = 3,
  originalUserBit1 = 4,
  originalUserBit2 = 5,
  onlineValue = 6,
  onlineStime = 7,
  onlineInvalid = 8,
  addressType = 9,
  addressDriver = 10,
  addressReference = 11,
};

/// The bit of an attribute in CatalogueEntry::disabled.
[[nodiscard]] constexpr std::uint32_t disabledBit(AttributeCode code) noexcept {
  return 1U << static_cast<unsigned>(code);
}

/// "_original.._value" and so on; empty for none. And back.
[[nodiscard]] std::string_view attributeText(AttributeCode code) noexcept;
[[nodiscard]] AttributeCode attributeOfText(std::string_view text) noexcept;

/// The attributes of a change that touch the attribute; 0 for none and the address attributes.
[[nodiscard]] std::uint8_t touchingBits(AttributeCode code) noexcept;

[[nodiscard]] constexpr AttributeCode attributeOf(const DpIdentifier& id) noexcept {
  return static_cast<AttributeCode>(id.getAttr());
}

/// A name taken apart; the views point into the text.
struct SplitName {
  std::string_view system;                        ///< empty when the name says none
  std::string_view element;                       ///< "Dp.element"
  AttributeCode attribute = AttributeCode::none;  ///< none when the name asks for one that does not exist
};
[[nodiscard]] SplitName splitName(std::string_view name) noexcept;

class Catalogue final : public ElementDirectory {
 public:
  struct Element {
    std::string name;
    DpElementType type = DPELEMENT_NOELEMENT;      ///< now
    DpElementType lastType = DPELEMENT_NOELEMENT;  ///< the last one that was not NOELEMENT
    VariableType variable = NOTYPE_VAR;            ///< of type
    int addressType = 0;
    std::string driver;
    std::string reference;
    std::uint32_t disabled = 0;
    std::uint32_t moved = 0;  ///< stamp of the last change of its type, or to another address
  };

  explicit Catalogue(std::string systemName);

  ElementId intern(std::string_view name) override;
  [[nodiscard]] const std::string& nameOf(ElementId element) const override;
  [[nodiscard]] DpElementType typeOf(ElementId element) const override;

  /// The element, or an empty one for an id that was never given.
  [[nodiscard]] const Element& at(ElementId element) const noexcept {
    return element < elements_.size() ? elements_[element] : elements_[0];
  }
  /// Counts the changes of elements to another type or another address. What was made at a stamp below
  /// Element::moved was made for what the element was before.
  [[nodiscard]] std::uint32_t stamp() const noexcept { return stamp_; }
  /// How many ids there are; ids are below this.
  [[nodiscard]] std::size_t size() const noexcept { return elements_.size(); }

  /// Makes the catalogue exactly these entries; gives the ids of what is new, changed or gone.
  std::vector<ElementId> load(std::vector<CatalogueEntry> entries);
  /// Takes one entry; type NOELEMENT deletes. False when nothing changed.
  bool change(CatalogueEntry entry, ElementId& element);

  /// Empty when system, element or attribute does not exist.
  [[nodiscard]] DpIdentifier resolve(std::string_view name) const;
  /// "System:Dp.element:_config..attribute", empty for an identifier of nothing.
  [[nodiscard]] std::string liName(const DpIdentifier& id) const;

 private:
  std::string systemName_;
  std::uint32_t stamp_ = 0;
  std::deque<Element> elements_;  // a deque, so that the names in ids_ stay where they are; [0] is nothing
  std::unordered_map<std::string_view, ElementId> ids_;
};

}  // namespace pvss
