// Backlog: the writes that the store has not confirmed yet.
//
// Purpose    Keeps every write, in order, until the store has it; knows what was handed over, what to give up
//            when there is no more room, and what the manager wrote last, should the store lose it.
// Room       Bounded in bytes (estimated). Past the bound the oldest superseded writes go: a write of an
//            element is superseded when a newer waiting call writes at least the same attributes of it. What
//            is superseded by nothing stays, bound or not; so do calls that were handed to the store already,
//            over this link or an earlier one: it may have them.
// Counting   In attribute writes, as Counters.h says; queued = confirmed + coalesced + dropped + rejected +
//            pending holds after every operation.
// Thread     The thread that runs Manager::dispatch. Nothing blocks. Only running out of memory throws.
#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <string_view>
#include <vector>

#include "core/Catalogue.h"
#include "pvss/Counters.h"
#include "store/DatapointStore.h"

namespace pvss {

/// One dpSetTimed call, sorted by element. Attributes that the call did not name but that follow from what it
/// named (a value clears the flag) are not counted.
struct PreparedWrite {
  WriteBatch batch;
  std::vector<bool> impliedFlag;  ///< by position in the batch; empty when nowhere
  std::uint32_t stamp = 0;        ///< of the catalogue when it was prepared
};

class Backlog {
 public:
  /// Both live longer than the backlog.
  Backlog(std::size_t boundBytes, Counters& counters) : bound_(boundBytes), counters_(counters) {}

  /// Appends a call, gives it its number and makes room if there is not enough. Gives the attribute writes
  /// that had to go for it.
  std::uint64_t append(PreparedWrite write);

  /// The oldest batch that the store does not have; null when there is none.
  [[nodiscard]] const WriteBatch* next() const;
  /// How many are with the store.
  [[nodiscard]] std::size_t handed() const { return handed_; }
  /// The store took next(), when that stood at this place; linkLost() may have come in between.
  void handedOver(std::size_t place);

  /// The store is done with everything up to this number. `leftOut`: what it refused of this one, by
  /// position.
  void confirm(std::uint64_t clientSequence, WriteOutcome outcome,
               const std::vector<std::uint32_t>& leftOut = {});
  /// The link is down: nothing counts as handed over any more.
  void linkLost();
  /// The store is back and knows everything up to this number.
  void settle(std::uint64_t lastKnown);
  /// The store knows less than it had confirmed: puts the newest value of each attribute in front, and
  /// numbers the rest anew behind it. Gives the number of attribute writes that were put there.
  std::uint64_t restoreLost(std::uint64_t lastKnown);
  /// Takes out what was prepared for elements before they got another type or address, as far as the store
  /// has not been given it over this link. Gives the number of attribute writes dropped.
  std::uint64_t dropOutdated(const Catalogue& catalogue);
  /// Gives everything up; gives the number of attribute writes dropped.
  std::uint64_t dropAll();

  [[nodiscard]] bool empty() const { return entries_.empty(); }
  [[nodiscard]] std::uint64_t lastConfirmed() const { return lastConfirmed_; }

 private:
  struct Entry {
    WriteBatch batch;
    std::vector<bool> impliedFlag;
    std::uint32_t stamp = 0;  // of the catalogue when it was prepared
    std::uint32_t units = 0;
    bool everHanded = false;
    std::size_t bytes = 0;
  };

  // What this manager wrote last to an element: one line per attribute bit.
  struct Newest {
    std::uint64_t sequence[4] = {0, 0, 0, 0};
    std::int64_t timeMs[4] = {0, 0, 0, 0};
    bool invalid = false;
    bool userBit1 = false;
    bool userBit2 = false;
    std::shared_ptr<const Variable> value;
    std::uint32_t stamp = 0;        // of the newest of these writes
    std::uint64_t byMask[16] = {};  // newest waiting or written call with exactly this mask
  };

  void remember(const Entry& entry);
  [[nodiscard]] bool superseded(const ElementAttributes& attributes, std::uint64_t sequence) const;
  std::uint64_t makeRoom();
  std::uint64_t thin(Entry& entry);
  template <class Goes>
  std::uint64_t takeOut(Entry& entry, Goes goes);
  void forget(const Entry& entry);
  void settled(const Entry& entry);
  Newest& newestOf(ElementId element);

  std::size_t bound_;
  Counters& counters_;
  std::deque<Entry> entries_;
  std::size_t handed_ = 0;  // the first so many entries are with the store
  std::uint64_t lastSequence_ = 0;
  std::uint64_t lastConfirmed_ = 0;
  std::size_t bytes_ = 0;
  std::size_t nextSweepBytes_ = 0;  // a sweep that found too little is not repeated before this
  std::vector<Newest> newest_;      // by element
};

}  // namespace pvss
