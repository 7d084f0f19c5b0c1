// DpMsgAnswer: the answer to a dpConnect or dpGet: groups of items in the order of the request.
//
// Ownership  Belongs to the manager and lives as long as the callback runs, groups, items and values too;
//            whoever wants to keep a value clones it.
// Thread     Used on the thread that runs Manager::dispatch, inside a callback.
#pragma once

#include <cstddef>
#include <utility>
#include <vector>

#include "pvss/DpMsg.h"
#include "pvss/DpVCItem.h"

/// One item of an answer; its value is null when the platform had none to give.
class AnswerItem : public DpVCItem {
 public:
  using DpVCItem::DpVCItem;
};

class AnswerGroup {
 public:
  void append(const DpIdentifier& id, VariablePtr value) { items_.emplace_back(id, value); }
  void reserve(std::size_t count) { items_.reserve(count); }

  [[nodiscard]] unsigned int getNumberOfItems() const noexcept {
    return static_cast<unsigned int>(items_.size());
  }
  /// The first item, or null; starts the walk.
  [[nodiscard]] AnswerItem* getFirstItem() noexcept {
    cursor_ = 0;
    return getNextItem();
  }
  /// The item after the one returned last, or null at the end.
  [[nodiscard]] AnswerItem* getNextItem() noexcept {
    return cursor_ < items_.size() ? &items_[cursor_++] : nullptr;
  }

 private:
  std::vector<AnswerItem> items_;
  std::size_t cursor_ = 0;
};

class DpMsgAnswer : public DpMsg {
 public:
  DpMsgAnswer() = default;
  /// Adds a group at the end; the reference holds until the next group is added.
  AnswerGroup& addGroup() { return groups_.emplace_back(); }

  [[nodiscard]] unsigned int getNumberOfGroups() const noexcept {
    return static_cast<unsigned int>(groups_.size());
  }
  /// The first group, or null; starts the walk.
  [[nodiscard]] AnswerGroup* getFirstGroup() noexcept {
    cursor_ = 0;
    return getNextGroup();
  }
  /// The group after the one returned last, or null at the end.
  [[nodiscard]] AnswerGroup* getNextGroup() noexcept {
    return cursor_ < groups_.size() ? &groups_[cursor_++] : nullptr;
  }

 private:
  std::vector<AnswerGroup> groups_;
  std::size_t cursor_ = 0;
};
