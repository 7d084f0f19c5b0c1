// MemoryDatabase: data points in memory: catalogue, states and what writers are known for.
//
// Purpose    What a server would keep, in this process. One MemoryStore at a time is attached and hears of
//            every change; the database outlives it.
// Thread     The thread that runs Manager::dispatch. Nothing blocks.
// Errors     Only running out of memory throws.
#pragma once

#include <cstdint>
#include <deque>
#include <string>
#include <string_view>
#include <unordered_map>
#include <variant>
#include <vector>

#include "pvss/PlantFile.h"
#include "store/DatapointStore.h"

namespace pvss {

class MemoryDatabase {
 public:
  using Index = std::uint32_t;
  static constexpr Index none = ~0U;

  struct Element {
    CatalogueEntry entry;  ///< type NOELEMENT: deleted
    ElementState state;
    std::uint64_t writes = 0;
    std::uint64_t movedAt = 0;  ///< sequence of the last change of its type, or to another address
  };
  /// A change by its database indexes, a catalogue entry, or word of a gap.
  struct ForeignChange {
    std::uint64_t sequence = 0;
    std::int64_t timeMs = 0;
    std::vector<ElementAttributes> elements;  ///< element is the index here
  };
  struct Defined {
    std::uint64_t sequence = 0;
    CatalogueEntry entry;
  };
  struct Gap {};
  using Event = std::variant<ForeignChange, Defined, Gap>;

  /// Adds everything that the plant describes; the plant has no errors.
  void load(const PlantFile& plant);

  [[nodiscard]] Index find(std::string_view name) const;
  [[nodiscard]] const Element& at(Index index) const { return elements_[index]; }
  [[nodiscard]] std::size_t size() const { return elements_.size(); }
  [[nodiscard]] std::uint64_t sequence() const { return sequence_; }

  /// Writes the entry; one of type NOELEMENT deletes the element and its state. An address that is new or
  /// another one makes a valid element invalid, as a change of its own right behind.
  void define(CatalogueEntry entry);
  /// Applies a batch by database indexes as one change; gives its sequence.
  std::uint64_t apply(std::int64_t timeMs, const std::vector<ElementAttributes>& elements);
  /// The same by somebody else than the attached store, which hears of it unless `secret`.
  void applyForeign(std::int64_t timeMs, std::vector<ElementAttributes> elements, bool secret = false);

  /// What the attached store has not heard yet; kept while a store is attached.
  std::deque<Event> events;
  bool attached = false;

  // Held for the test; see pvss/testing/MemoryPlant.h.
  bool linkUp = true;
  bool holdWrites = false;
  bool holdConfirmations = false;
  bool holdSnapshots = false;
  bool fenceNext = false;
  bool failLinkInNextWrite = false;
  bool keepHistory = false;
  std::size_t window = 0;
  std::string leaseHolder;
  std::string runId = "memory-1";
  ManagerBeat lastBeat;

  /// What is known of a writer.
  struct Writer {
    std::uint64_t lastClientSequence = 0;
    std::uint64_t settledAttributes = 0;  ///< applied or refused, restored ones left out
  };
  [[nodiscard]] Writer writer(const std::string& name) const;
  void setWriter(const std::string& name, const Writer& writer) { writers_[name] = writer; }
  void loseNewest(std::size_t changes);
  /// Attributes of the element that somebody else than the attached store has written since the last loss.
  [[nodiscard]] std::uint8_t writtenSinceLoss(Index index) const;

 private:
  struct Past {
    std::vector<std::pair<Index, ElementState>> states;  // before the change
    std::unordered_map<std::string, Writer> writers;
  };

  std::vector<Element> elements_;
  std::unordered_map<std::string, Index> ids_;
  std::unordered_map<std::string, Writer> writers_;
  std::deque<Past> history_;
  std::unordered_map<Index, std::uint8_t> sinceLoss_;  // masks of attributes
  std::uint64_t sequence_ = 0;
  unsigned servers_ = 1;
};

}  // namespace pvss
