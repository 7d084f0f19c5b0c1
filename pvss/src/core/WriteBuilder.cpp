#include "core/WriteBuilder.h"

#include <algorithm>
#include <bit>

namespace pvss {

namespace {

std::uint8_t writableBit(AttributeCode code) {
  switch (code) {
    case AttributeCode::originalValue:
      return attributeValue;
    case AttributeCode::originalExpInv:
      return attributeInvalid;
    case AttributeCode::originalUserBit1:
      return attributeUserBit1;
    case AttributeCode::originalUserBit2:
      return attributeUserBit2;
    default:
      return 0;
  }
}

// Why the pair cannot be written; null when it can.
const char* rejection(const Catalogue::Element& element, std::uint8_t bit, const Variable* value) {
  if (element.type == DPELEMENT_NOELEMENT) {
    return "no such element";
  }
  if (bit == 0) {
    return "the attribute cannot be written";
  }
  if (value == nullptr) {
    return "no value";
  }
  if (bit == attributeValue && value->isA() != element.variable) {
    return "the value does not fit the element's type";
  }
  return nullptr;
}

}  // namespace

WriteBuilder::Result WriteBuilder::build(std::int64_t timeMs, const DpIdValueList& values) {
  Result result;
  WriteBatch& batch = result.write.batch;
  batch.timeMs = timeMs;
  ++call_;
  outdated_.clear();
  result.write.stamp = catalogue_.stamp();
  if (places_.size() < catalogue_.size()) {
    places_.resize(catalogue_.size());
  }
  batch.elements.reserve(values.getNumberOfItems() / 4 + 1);
  for (const DpVCItem& item : values) {
    const DpIdentifier& id = item.getDpIdentifier();
    const Catalogue::Element& element = catalogue_.at(id.getEl());
    const std::uint8_t bit = writableBit(attributeOf(id));
    const Variable* const value = item.getValuePtr();
    if (const char* const reason = rejection(element, bit, value)) {
      ++result.rejected;
      if (result.firstRejection.empty()) {
        const std::string name = catalogue_.liName(id);
        result.firstRejection = (name.empty() ? "an identifier of nothing" : name) + ": " + reason;
      }
      continue;
    }
    Place& place = places_[id.getEl()];
    if (place.call != call_) {
      place = {call_, static_cast<std::uint32_t>(batch.elements.size())};
      batch.elements.emplace_back().element = id.getEl();
    }
    if (id.getStamp() < element.moved) {
      outdated_.push_back(place.index);
    }
    ElementAttributes& attributes = batch.elements[place.index];
    if ((attributes.mask & bit) != 0) {
      ++result.overwritten;
    }
    attributes.mask = static_cast<std::uint8_t>(attributes.mask | bit);
    switch (bit) {
      case attributeValue:
        attributes.value = shareCopy(*value);
        break;
      case attributeInvalid:
        attributes.invalid = value->isTrue();
        break;
      case attributeUserBit1:
        attributes.userBit1 = value->isTrue();
        break;
      default:
        attributes.userBit2 = value->isTrue();
        break;
    }
  }
  if (!outdated_.empty()) {
    leaveOutdated(result);
  }
  for (std::size_t index = 0; index < batch.elements.size(); ++index) {
    ElementAttributes& attributes = batch.elements[index];
    if ((attributes.mask & (attributeValue | attributeInvalid)) == attributeValue) {
      attributes.mask |= attributeInvalid;
      attributes.invalid = false;
      if (result.write.impliedFlag.empty()) {
        result.write.impliedFlag.resize(batch.elements.size(), false);
      }
      result.write.impliedFlag[index] = true;
    }
  }
  return result;
}

void WriteBuilder::leaveOutdated(Result& result) const {
  std::vector<ElementAttributes>& elements = result.write.batch.elements;
  result.firstOutdated = catalogue_.nameOf(elements[outdated_.front()].element);
  for (const std::uint32_t index : outdated_) {
    result.outdated += static_cast<std::uint64_t>(std::popcount(elements[index].mask));
    elements[index].mask = 0;
  }
  std::erase_if(elements, [](const ElementAttributes& attributes) { return attributes.mask == 0; });
}

}  // namespace pvss
