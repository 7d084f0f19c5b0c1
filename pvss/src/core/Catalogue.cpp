#include "core/Catalogue.h"

#include <array>
#include <utility>

namespace pvss {

namespace {

constexpr std::array<std::string_view, 12> attributeTexts{
    "",
    "_original.._value",
    "_original.._stime",
    "_original.._exp_inv",
    "_original.._userbit1",
    "_original.._userbit2",
    "_online.._value",
    "_online.._stime",
    "_online.._invalid",
    "_address.._type",
    "_address.._drv_ident",
    "_address.._reference",
};

}  // namespace

std::string_view attributeText(AttributeCode code) noexcept {
  const auto index = static_cast<std::size_t>(code);
  return index < attributeTexts.size() ? attributeTexts[index] : attributeTexts[0];
}

AttributeCode attributeOfText(std::string_view text) noexcept {
  for (std::size_t index = 1; index < attributeTexts.size(); ++index) {
    if (attributeTexts[index] == text) {
      return static_cast<AttributeCode>(index);
    }
  }
  return AttributeCode::none;
}

std::uint8_t touchingBits(AttributeCode code) noexcept {
  switch (code) {
    case AttributeCode::originalValue:
    case AttributeCode::originalStime:
    case AttributeCode::onlineValue:
    case AttributeCode::onlineStime:
      return attributeValue;
    case AttributeCode::originalExpInv:
    case AttributeCode::onlineInvalid:
      return attributeInvalid;
    case AttributeCode::originalUserBit1:
      return attributeUserBit1;
    case AttributeCode::originalUserBit2:
      return attributeUserBit2;
    default:
      return 0;
  }
}

SplitName splitName(std::string_view name) noexcept {
  SplitName split;
  split.attribute = AttributeCode::onlineValue;
  const std::size_t last = name.rfind(':');
  if (last != std::string_view::npos) {
    const std::string_view tail = name.substr(last + 1);
    if (tail.substr(0, 1) == "_" && tail.find("..") != std::string_view::npos) {
      split.attribute = attributeOfText(tail);
      name = name.substr(0, last);
    }
  }
  const std::size_t first = name.find(':');
  if (first != std::string_view::npos) {
    split.system = name.substr(0, first);
    name = name.substr(first + 1);
  }
  split.element = name;
  return split;
}

Catalogue::Catalogue(std::string systemName) : systemName_(std::move(systemName)), elements_(1) {}

ElementId Catalogue::intern(std::string_view name) {
  if (const auto found = ids_.find(name); found != ids_.end()) {
    return found->second;
  }
  const auto id = static_cast<ElementId>(elements_.size());
  Element& element = elements_.emplace_back();
  element.name = name;
  ids_.emplace(element.name, id);
  return id;
}

const std::string& Catalogue::nameOf(ElementId element) const {
  return at(element).name;
}

DpElementType Catalogue::typeOf(ElementId element) const {
  return at(element).type;
}

std::vector<ElementId> Catalogue::load(std::vector<CatalogueEntry> entries) {
  std::vector<ElementId> touched;
  std::vector<bool> present(elements_.size() + entries.size(), false);
  ids_.reserve(entries.size());
  for (CatalogueEntry& entry : entries) {
    ElementId element = 0;
    const bool exists = entry.type != DPELEMENT_NOELEMENT;
    const bool changed = change(std::move(entry), element);
    present[element] = exists;
    if (changed) {
      touched.push_back(element);
    }
  }
  for (ElementId element = 1; element < elements_.size(); ++element) {
    if (!present[element] && elements_[element].type != DPELEMENT_NOELEMENT) {
      CatalogueEntry gone;
      gone.name = elements_[element].name;
      ElementId same = 0;
      change(std::move(gone), same);
      touched.push_back(element);
    }
  }
  return touched;
}

bool Catalogue::change(CatalogueEntry entry, ElementId& element) {
  element = intern(entry.name);
  Element& known = elements_[element];
  if (known.type == entry.type && known.addressType == entry.addressType && known.driver == entry.driver &&
      known.reference == entry.reference && known.disabled == entry.disabled) {
    return false;
  }
  const bool otherType = known.lastType != DPELEMENT_NOELEMENT && known.type != entry.type;
  const bool otherAddress = known.type != DPELEMENT_NOELEMENT && entry.addressType != 0 &&
                            (known.addressType != entry.addressType || known.driver != entry.driver ||
                             known.reference != entry.reference);
  if (otherType || otherAddress) {
    known.moved = ++stamp_;
  }
  known.type = entry.type;
  known.variable = variableTypeOf(entry.type);
  if (entry.type == DPELEMENT_NOELEMENT) {
    known.addressType = 0;
    known.driver.clear();
    known.reference.clear();
    known.disabled = 0;
    return true;
  }
  known.lastType = entry.type;
  known.addressType = entry.addressType;
  known.driver = std::move(entry.driver);
  known.reference = std::move(entry.reference);
  known.disabled = entry.disabled;
  return true;
}

DpIdentifier Catalogue::resolve(std::string_view name) const {
  const SplitName split = splitName(name);
  if (split.attribute == AttributeCode::none || (!split.system.empty() && split.system != systemName_)) {
    return {};
  }
  const auto found = ids_.find(split.element);
  if (found == ids_.end()) {
    return {};
  }
  const Element& element = elements_[found->second];
  if (element.type == DPELEMENT_NOELEMENT || (element.disabled & disabledBit(split.attribute)) != 0) {
    return {};
  }
  return {found->second, static_cast<std::uint16_t>(split.attribute), stamp_};
}

std::string Catalogue::liName(const DpIdentifier& id) const {
  const Element& element = at(id.getEl());
  const std::string_view attribute = attributeText(attributeOf(id));
  if (element.name.empty() || attribute.empty()) {
    return {};
  }
  std::string name;
  name.reserve(systemName_.size() + element.name.size() + attribute.size() + 2);
  name += systemName_;
  name += ':';
  name += element.name;
  name += ':';
  name += attribute;
  return name;
}

}  // namespace pvss
