// DpIdentifier: names one attribute of one data point element.
//
// Purpose    What Manager::getId makes of a name. Equal for every spelling of the same attribute. A cheap
//            value, meaningful while the manager that made it lives. It remembers when it was resolved, so
//            that a write that was meant for what the element was before its address changed can be told;
//            comparisons do not look at that.
// Thread     A plain value. Nothing blocks and nothing throws.
#pragma once

#include <cstdint>

class DpIdentifier {
 public:
  /// Names nothing.
  constexpr DpIdentifier() noexcept = default;
  constexpr DpIdentifier(std::uint32_t element, std::uint16_t attribute, std::uint32_t stamp = 0) noexcept
      : element_(element), attribute_(attribute), stamp_(stamp) {}

  [[nodiscard]] constexpr bool isNull() const noexcept { return element_ == 0; }
  /// The catalogue's number of the element.
  [[nodiscard]] constexpr std::uint32_t getEl() const noexcept { return element_; }
  /// The catalogue's number of config and attribute.
  [[nodiscard]] constexpr std::uint16_t getAttr() const noexcept { return attribute_; }
  /// The state of the catalogue in which the name was resolved.
  [[nodiscard]] constexpr std::uint32_t getStamp() const noexcept { return stamp_; }

  friend constexpr bool operator==(const DpIdentifier& left, const DpIdentifier& right) noexcept {
    return left.element_ == right.element_ && left.attribute_ == right.attribute_;
  }
  friend constexpr bool operator!=(const DpIdentifier& left, const DpIdentifier& right) noexcept {
    return !(left == right);
  }
  friend constexpr bool operator<(const DpIdentifier& left, const DpIdentifier& right) noexcept {
    return left.element_ != right.element_ ? left.element_ < right.element_
                                           : left.attribute_ < right.attribute_;
  }

 private:
  std::uint32_t element_ = 0;
  std::uint16_t attribute_ = 0;
  std::uint32_t stamp_ = 0;
};
