#include "store/memory/MemoryDatabase.h"

#include <utility>

#include "pvss/PVSSTime.h"

namespace pvss {

namespace {

void applyTo(ElementState& state, const ElementAttributes& attributes, std::int64_t timeMs) {
  if ((attributes.mask & attributeValue) != 0) {
    state.attributes.value = attributes.value;
    state.valueTimeMs = timeMs;
  }
  if ((attributes.mask & attributeInvalid) != 0) {
    if (state.attributes.invalid != attributes.invalid) {
      state.invalidTimeMs = timeMs;
    }
    state.attributes.invalid = attributes.invalid;
  }
  if ((attributes.mask & attributeUserBit1) != 0) {
    state.attributes.userBit1 = attributes.userBit1;
  }
  if ((attributes.mask & attributeUserBit2) != 0) {
    state.attributes.userBit2 = attributes.userBit2;
  }
}

}  // namespace

void MemoryDatabase::load(const PlantFile& plant) {
  std::vector<ElementAttributes> values;
  const auto setValue = [&](const std::string& name, std::shared_ptr<const Variable> value) {
    ElementAttributes attributes;
    attributes.element = find(name);
    attributes.mask = attributeValue | attributeInvalid;
    attributes.invalid = false;
    attributes.value = std::move(value);
    values.push_back(std::move(attributes));
  };
  for (const PlantFile::Element& element : plant.elements) {
    CatalogueEntry entry;
    entry.name = element.name;
    entry.type = element.type;
    if (element.isFed()) {
      entry.addressType = PlantFile::addressType;
      entry.driver = PlantFile::driver;
      entry.reference = element.reference();
    }
    define(std::move(entry));
    if (element.value) {
      setValue(element.name, element.value);
    }
  }
  if (!plant.clientList.empty()) {
    setValue(plant.clientList, makeTexts(plant.clientTexts()));
  }
  if (!plant.publicationList.empty()) {
    setValue(plant.publicationList, makeTexts(plant.publicationTexts()));
  }
  if (!values.empty()) {
    applyForeign(PVSSTime().toMilliseconds(), std::move(values));
  }
}

MemoryDatabase::Index MemoryDatabase::find(std::string_view name) const {
  const auto found = ids_.find(std::string(name));
  return found == ids_.end() ? none : found->second;
}

void MemoryDatabase::define(CatalogueEntry entry) {
  const auto [place, isNew] = ids_.emplace(entry.name, static_cast<Index>(elements_.size()));
  if (isNew) {
    elements_.emplace_back();
  }
  Element& element = elements_[place->second];
  const bool otherType = entry.type != element.entry.type;
  const bool otherAddress = entry.addressType != 0 && (entry.addressType != element.entry.addressType ||
                                                       entry.driver != element.entry.driver ||
                                                       entry.reference != element.entry.reference);
  if (otherType) {
    element.state = ElementState();
  }
  element.entry = entry;
  ++sequence_;
  if (otherType || otherAddress) {
    element.movedAt = sequence_;
  }
  if (attached) {
    events.emplace_back(Defined{sequence_, std::move(entry)});
  }
  if (otherAddress && !element.state.attributes.invalid) {
    ElementAttributes mark;
    mark.element = place->second;
    mark.mask = attributeInvalid;
    applyForeign(PVSSTime().toMilliseconds(), {mark});
  }
}

std::uint64_t MemoryDatabase::apply(std::int64_t timeMs, const std::vector<ElementAttributes>& elements) {
  if (keepHistory) {
    Past past;
    past.writers = writers_;
    for (const ElementAttributes& attributes : elements) {
      past.states.emplace_back(attributes.element, elements_[attributes.element].state);
    }
    history_.push_back(std::move(past));
  }
  for (const ElementAttributes& attributes : elements) {
    Element& element = elements_[attributes.element];
    applyTo(element.state, attributes, timeMs);
    ++element.writes;
  }
  return ++sequence_;
}

void MemoryDatabase::applyForeign(std::int64_t timeMs, std::vector<ElementAttributes> elements, bool secret) {
  const std::uint64_t number = apply(timeMs, elements);
  if (servers_ > 1) {
    for (const ElementAttributes& attributes : elements) {
      std::uint8_t& mask = sinceLoss_[attributes.element];
      mask = static_cast<std::uint8_t>(mask | attributes.mask);
    }
  }
  if (attached && !secret) {
    events.emplace_back(ForeignChange{number, timeMs, std::move(elements)});
  }
}

MemoryDatabase::Writer MemoryDatabase::writer(const std::string& name) const {
  const auto found = writers_.find(name);
  return found == writers_.end() ? Writer() : found->second;
}

void MemoryDatabase::loseNewest(std::size_t changes) {
  for (; changes > 0 && !history_.empty(); --changes) {
    Past& past = history_.back();
    for (auto& [index, state] : past.states) {
      elements_[index].state = std::move(state);
    }
    writers_ = std::move(past.writers);
    history_.pop_back();
    --sequence_;
  }
  runId = "memory-" + std::to_string(++servers_);
  events.clear();
  sinceLoss_.clear();
}

std::uint8_t MemoryDatabase::writtenSinceLoss(Index index) const {
  const auto found = sinceLoss_.find(index);
  return found == sinceLoss_.end() ? std::uint8_t{0} : found->second;
}

}  // namespace pvss
