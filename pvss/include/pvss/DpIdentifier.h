// DpIdentifier: names one attribute of one data point element.
//
// Purpose    What Manager::getId makes of a name. Equal for every spelling of the same attribute. A cheap
//            value, meaningful while the manager that made it lives.
// Thread     A plain value. Nothing blocks and nothing throws.
#pragma once

#include <cstdint>

class DpIdentifier {
 public:
  /// Names nothing.
  constexpr DpIdentifier() noexcept = default;
  constexpr DpIdentifier(std::uint32_t element, std::uint16_t attribute) noexcept
      : element_(element), attribute_(attribute) {}

  [[nodiscard]] constexpr bool isNull() const noexcept { return element_ == 0; }
  /// The catalogue's number of the element.
  [[nodiscard]] constexpr std::uint32_t getEl() const noexcept { return element_; }
  /// The catalogue's number of config and attribute.
  [[nodiscard]] constexpr std::uint16_t getAttr() const noexcept { return attribute_; }

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
};
