// DpHLGroup: one hot-link: every item of a connected list, in connect order, duplicates included.
//
// Ownership  Belongs to the manager and lives as long as the callback runs; whoever wants to keep a value
//            clones it.
// Thread     Used on the thread that runs Manager::dispatch, inside a callback.
#pragma once

#include <cstddef>
#include <vector>

#include "pvss/DpVCItem.h"

class DpHLGroup {
 public:
  void append(const DpIdentifier& id, VariablePtr value) { items_.emplace_back(id, value); }
  void reserve(std::size_t count) { items_.reserve(count); }

  [[nodiscard]] unsigned int getNumberOfItems() const noexcept {
    return static_cast<unsigned int>(items_.size());
  }
  /// The first item, or null; starts the walk.
  [[nodiscard]] DpVCItem* getFirstItem() noexcept {
    cursor_ = 0;
    return getNextItem();
  }
  /// The item after the one returned last, or null at the end.
  [[nodiscard]] DpVCItem* getNextItem() noexcept {
    return cursor_ < items_.size() ? &items_[cursor_++] : nullptr;
  }

 private:
  std::vector<DpVCItem> items_;
  std::size_t cursor_ = 0;
};
