// FairQueue: one bounded queue made of many lanes, served in turn.
//
// Order is kept within a lane only. The newest droppable item of each lane always stays and counts in no
// bound. Of everything else there are so many items and bytes, over all lanes; past either, the lane that
// takes the most room gives up its oldest: who floods pays, and others keep theirs. A lane that is not ready
// keeps its items and is passed over. Not thread-safe: whoever owns the queue guards it, and the lanes with
// it.
#pragma once

#include <algorithm>
#include <cstddef>
#include <deque>
#include <list>
#include <memory>
#include <new>
#include <optional>
#include <set>
#include <type_traits>
#include <utility>

namespace kel {

/// `Item` has members `std::size_t bytes` and `bool droppable`.
template <class Item>
struct Lane {
  std::deque<Item> items;
  std::size_t droppable = 0;
  std::size_t droppableBytes = 0;
  std::size_t newestBytes = 0;  ///< of the newest droppable item
  std::size_t weight = 0;       ///< as which the queue knows it; 0: it has nothing to give
  bool ready = true;
  bool scheduled = false;
};

/// `Owner` has a member `Lane<Item> lane` and lives in a shared_ptr; it is cleared before it goes.
template <class Item, class Owner>
class FairQueue {
 public:
  FairQueue(std::size_t mostItems, std::size_t mostBytes)
      : mostItems_(mostItems),
        mostBytes_(mostBytes),
        itemWeight_(1 + mostBytes / std::max<std::size_t>(mostItems, 1)) {}

  /// Adds at the lane's end and calls `dropped(item)` for each item that had to go for it, of any lane.
  template <class Dropped>
  void push(const std::shared_ptr<Owner>& owner, Item item, Dropped&& dropped) {
    Lane<Item>& lane = owner->lane;
    const Before before(*this, lane);
    const Item& added = lane.items.emplace_back(std::move(item));
    count(lane, added, true);
    if (added.droppable) lane.newestBytes = added.bytes;
    before.settle();
    while (overfull() && !heavy_.empty()) dropOldest(*heavy_.rbegin()->second, dropped);
    schedule(owner);
  }

  /// Puts an item back where it was taken from.
  void pushFront(const std::shared_ptr<Owner>& owner, Item item) {
    Lane<Item>& lane = owner->lane;
    const Before before(*this, lane);
    if (item.droppable && lane.droppable == 0) lane.newestBytes = item.bytes;
    count(lane, item, true);
    lane.items.push_front(std::move(item));
    before.settle();
    schedule(owner);
  }

  /// The next item in turn, with the owner of its lane. Takes no memory, so it cannot fail.
  std::optional<std::pair<std::shared_ptr<Owner>, Item>> pop() noexcept {
    static_assert(std::is_nothrow_move_constructible_v<Item>);
    while (!turns_.empty()) {
      std::shared_ptr<Owner> owner = turns_.front();
      Lane<Item>& lane = owner->lane;
      if (!lane.ready || lane.items.empty()) {
        lane.scheduled = false;
        turns_.pop_front();
        continue;
      }
      const Before before(*this, lane);
      Item item = std::move(lane.items.front());
      lane.items.pop_front();
      count(lane, item, false);
      before.settle();
      lane.scheduled = !lane.items.empty();
      if (lane.scheduled) {
        turns_.splice(turns_.end(), turns_, turns_.begin());
      } else {
        turns_.pop_front();
      }
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
    const Before before(*this, owner.lane);
    for (Item& item : owner.lane.items) {
      count(owner.lane, item, false);
      if (item.droppable) dropped(item);
    }
    owner.lane.items.clear();
    before.settle();
  }

  /// Takes the newest item off, which is not droppable.
  void dropNewest(Owner& owner) {
    count(owner.lane, owner.lane.items.back(), false);
    owner.lane.items.pop_back();
  }

  [[nodiscard]] std::size_t items() const { return items_; }
  [[nodiscard]] std::size_t bytes() const { return bytes_; }

 private:
  [[nodiscard]] bool overfull() const { return spareItems_ > mostItems_ || spareBytes_ > mostBytes_; }

  static std::size_t spareItems(const Lane<Item>& lane) {
    return lane.droppable > 1 ? lane.droppable - 1 : 0;
  }
  static std::size_t spareBytes(const Lane<Item>& lane) {
    return lane.droppable > 1 ? lane.droppableBytes - lane.newestBytes : 0;
  }

  /// What a lane had to give before it changed; settle() books the difference.
  class Before {
   public:
    Before(FairQueue& queue, Lane<Item>& lane)
        : queue_(queue), lane_(lane), items_(spareItems(lane)), bytes_(spareBytes(lane)) {}
    void settle() const noexcept {
      const std::size_t items = spareItems(lane_);
      const std::size_t bytes = spareBytes(lane_);
      queue_.spareItems_ += items - items_;
      queue_.spareBytes_ += bytes - bytes_;
      const std::size_t weight = items == 0 ? 0 : items * queue_.itemWeight_ + bytes;
      if (weight == lane_.weight) return;
      auto place = queue_.heavy_.extract({lane_.weight, &lane_});
      if (weight != 0 && place) {
        place.value().first = weight;
        queue_.heavy_.insert(std::move(place));
      } else if (weight != 0) {
        try {
          queue_.heavy_.emplace(weight, &lane_);
        } catch (const std::bad_alloc&) {
          return;  // it gives nothing before it changes again
        }
      }
      lane_.weight = weight;
    }

   private:
    FairQueue& queue_;
    Lane<Item>& lane_;
    const std::size_t items_;
    const std::size_t bytes_;
  };

  void count(Lane<Item>& lane, const Item& item, bool added) {
    items_ = added ? items_ + 1 : items_ - 1;
    bytes_ = added ? bytes_ + item.bytes : bytes_ - item.bytes;
    if (!item.droppable) return;
    lane.droppable = added ? lane.droppable + 1 : lane.droppable - 1;
    lane.droppableBytes = added ? lane.droppableBytes + item.bytes : lane.droppableBytes - item.bytes;
  }

  template <class Dropped>
  void dropOldest(Lane<Item>& lane, Dropped&& dropped) {
    const auto oldest =
        std::find_if(lane.items.begin(), lane.items.end(), [](const Item& item) { return item.droppable; });
    if (oldest == lane.items.end()) return;
    const Before before(*this, lane);
    Item item = std::move(*oldest);
    lane.items.erase(oldest);
    count(lane, item, false);
    before.settle();
    dropped(item);
  }

  void schedule(const std::shared_ptr<Owner>& owner) {
    Lane<Item>& lane = owner->lane;
    if (!lane.ready || lane.scheduled || lane.items.empty()) return;
    turns_.push_back(owner);
    lane.scheduled = true;
  }

  const std::size_t mostItems_;
  const std::size_t mostBytes_;
  const std::size_t itemWeight_;  ///< an item weighs so many bytes, so that either bound finds its lane
  std::size_t items_ = 0;
  std::size_t bytes_ = 0;
  std::size_t spareItems_ = 0;
  std::size_t spareBytes_ = 0;
  std::set<std::pair<std::size_t, Lane<Item>*>> heavy_;  ///< the lanes that have something to give
  std::list<std::shared_ptr<Owner>> turns_;
};

}  // namespace kel
