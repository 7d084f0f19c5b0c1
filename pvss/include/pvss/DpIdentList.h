// DpIdentList: identifiers in the order in which they were appended, duplicates included.
#pragma once

#include <cstddef>
#include <initializer_list>
#include <vector>

#include "pvss/DpIdentifier.h"

class DpIdentList {
 public:
  DpIdentList() = default;
  DpIdentList(std::initializer_list<DpIdentifier> ids) : ids_(ids) {}

  void append(const DpIdentifier& id) { ids_.push_back(id); }
  void clear() noexcept { ids_.clear(); }
  [[nodiscard]] unsigned int getNumberOfItems() const noexcept {
    return static_cast<unsigned int>(ids_.size());
  }
  /// The identifier at the index, which must be below getNumberOfItems().
  [[nodiscard]] const DpIdentifier& operator[](std::size_t index) const { return ids_[index]; }

  [[nodiscard]] auto begin() const noexcept { return ids_.begin(); }
  [[nodiscard]] auto end() const noexcept { return ids_.end(); }

 private:
  std::vector<DpIdentifier> ids_;
};
