// DpIdValueList: identifiers with values, in the order in which they were appended.
//
// Ownership  The list owns its values. One vector, nothing else: cheap to fill on one thread, to hand over
//            and to read on another.
// Thread     Read by many threads or changed by one; the walk with getFirstItem() and getNextItem() moves a
//            cursor and so belongs to one thread.
#pragma once

#include <cstddef>
#include <vector>

#include "pvss/DpVCItem.h"

class DpIdValueList {
 public:
  DpIdValueList() = default;
  virtual ~DpIdValueList() = default;
  DpIdValueList(const DpIdValueList&) = default;
  DpIdValueList(DpIdValueList&&) noexcept = default;
  DpIdValueList& operator=(const DpIdValueList&) = default;
  DpIdValueList& operator=(DpIdValueList&&) noexcept = default;

  /// Takes the value over (also when there is not enough memory for the list).
  void append(const DpIdentifier& id, VariablePtr value) {
    DpVCItem item(id, value);
    items_.push_back(std::move(item));
  }
  /// Copies the value.
  void append(const DpIdentifier& id, const Variable& value) { append(id, value.clone()); }
  void reserve(std::size_t count) { items_.reserve(count); }
  void clear() noexcept { items_.clear(); }

  [[nodiscard]] unsigned int getNumberOfItems() const noexcept {
    return static_cast<unsigned int>(items_.size());
  }
  /// The item at the index, which must be below getNumberOfItems().
  [[nodiscard]] const DpVCItem& operator[](std::size_t index) const { return items_[index]; }
  /// The first item, or null; starts the walk.
  [[nodiscard]] const DpVCItem* getFirstItem() const noexcept {
    cursor_ = 0;
    return getNextItem();
  }
  /// The item after the one returned last, or null at the end.
  [[nodiscard]] const DpVCItem* getNextItem() const noexcept {
    return cursor_ < items_.size() ? &items_[cursor_++] : nullptr;
  }

  [[nodiscard]] auto begin() const noexcept { return items_.begin(); }
  [[nodiscard]] auto end() const noexcept { return items_.end(); }

 private:
  std::vector<DpVCItem> items_;
  mutable std::size_t cursor_ = 0;
};
