// DpVCItem: one identifier with its value.
//
// Ownership  The item owns its value, which may be missing (null).
// Thread     As Variable.
#pragma once

#include <memory>
#include <utility>

#include "pvss/DpIdentifier.h"
#include "pvss/Variable.h"

class DpVCItem {
 public:
  DpVCItem() = default;
  /// Takes the value over.
  DpVCItem(const DpIdentifier& id, VariablePtr value) noexcept : id_(id), value_(value) {}
  DpVCItem(const DpVCItem& other) : id_(other.id_), value_(other.value_ ? other.value_->clone() : nullptr) {}
  DpVCItem(DpVCItem&&) noexcept = default;
  DpVCItem& operator=(const DpVCItem& other) {
    DpVCItem copy(other);
    return *this = std::move(copy);
  }
  DpVCItem& operator=(DpVCItem&&) noexcept = default;
  ~DpVCItem() = default;

  [[nodiscard]] const DpIdentifier& getDpIdentifier() const noexcept { return id_; }
  /// The value, which stays the item's; null when there is none.
  [[nodiscard]] Variable* getValuePtr() const noexcept { return value_.get(); }

 private:
  DpIdentifier id_;
  std::unique_ptr<Variable> value_;
};
