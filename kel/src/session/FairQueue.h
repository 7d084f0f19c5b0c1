// FairQueue: one bounded queue made of many lanes, served in turn.
//
// Order is kept within a lane only. Past the bound (items or bytes, over all lanes) a lane that grows gives
// up its own oldest droppable items; the newest of each lane always stays. A lane that is not ready keeps its
// items and is passed over. Not thread-safe: whoever owns the queue guards it, and the lanes with it.
#pragma once

#include <algorithm>
#include <cstddef>
#include <deque>
#include <memory>
#include <optional>
#include <utility>

namespace kel {

/// `Item` has members `std::size_t bytes` and `bool droppable`.
template <class Item>
struct Lane {
  std::deque<Item> items;
  std::size_t droppable = 0;
  bool ready = true;
  bool scheduled = false;
};

/// `Owner` has a member `Lane<Item> lane` and lives in a shared_ptr.
template <class Item, class Owner>
class FairQueue {
 public:
  FairQueue(std::size_t mostItems, std::size_t mostBytes) : mostItems_(mostItems), mostBytes_(mostBytes) {}

  /// Adds at the lane's end and calls `dropped(item)` for each item that had to go for it.
  template <class Dropped>
  void push(const std::shared_ptr<Owner>& owner, Item item, Dropped&& dropped) {
    Lane<Item>& lane = owner->lane;
    count(lane, item, true);
    lane.items.push_back(std::move(item));
    while (overfull() && lane.droppable > 1) dropOldest(lane, dropped);
    schedule(owner);
  }

  /// Puts an item back where it was taken from.
  void pushFront(const std::shared_ptr<Owner>& owner, Item item) {
    count(owner->lane, item, true);
    owner->lane.items.push_front(std::move(item));
    schedule(owner);
  }

  /// The next item in turn, with the owner of its lane.
  std::optional<std::pair<std::shared_ptr<Owner>, Item>> pop() {
    while (!turns_.empty()) {
      std::shared_ptr<Owner> owner = std::move(turns_.front());
      turns_.pop_front();
      Lane<Item>& lane = owner->lane;
      lane.scheduled = false;
      if (!lane.ready || lane.items.empty()) continue;
      Item item = std::move(lane.items.front());
      lane.items.pop_front();
      count(lane, item, false);
      schedule(owner);
      return std::pair(std::move(owner), std::move(item));
    }
    return std::nullopt;
  }

  void setReady(const std::shared_ptr<Owner>& owner, bool ready) {
    owner->lane.ready = ready;
    schedule(owner);
  }

  /// Takes droppable items off the lane, oldest first, until at most `keep` are left.
  template <class Dropped>
  void trim(Owner& owner, std::size_t keep, Dropped&& dropped) {
    while (owner.lane.droppable > keep) dropOldest(owner.lane, dropped);
  }

  /// Empties the lane; its droppable items are reported.
  template <class Dropped>
  void clear(Owner& owner, Dropped&& dropped) {
    for (Item& item : owner.lane.items) {
      count(owner.lane, item, false);
      if (item.droppable) dropped(item);
    }
    owner.lane.items.clear();
  }

  void dropNewest(Owner& owner) {
    count(owner.lane, owner.lane.items.back(), false);
    owner.lane.items.pop_back();
  }

  [[nodiscard]] std::size_t items() const { return items_; }
  [[nodiscard]] std::size_t bytes() const { return bytes_; }

 private:
  [[nodiscard]] bool overfull() const { return items_ > mostItems_ || bytes_ > mostBytes_; }

  void count(Lane<Item>& lane, const Item& item, bool added) {
    items_ = added ? items_ + 1 : items_ - 1;
    bytes_ = added ? bytes_ + item.bytes : bytes_ - item.bytes;
    if (item.droppable) lane.droppable = added ? lane.droppable + 1 : lane.droppable - 1;
  }

  template <class Dropped>
  void dropOldest(Lane<Item>& lane, Dropped&& dropped) {
    const auto oldest =
        std::find_if(lane.items.begin(), lane.items.end(), [](const Item& item) { return item.droppable; });
    if (oldest == lane.items.end()) return;
    Item item = std::move(*oldest);
    lane.items.erase(oldest);
    count(lane, item, false);
    dropped(item);
  }

  void schedule(const std::shared_ptr<Owner>& owner) {
    Lane<Item>& lane = owner->lane;
    if (!lane.ready || lane.scheduled || lane.items.empty()) return;
    lane.scheduled = true;
    turns_.push_back(owner);
  }

  const std::size_t mostItems_;
  const std::size_t mostBytes_;
  std::size_t items_ = 0;
  std::size_t bytes_ = 0;
  std::deque<std::shared_ptr<Owner>> turns_;
};

}  // namespace kel
