// MemoryStore: a manager's connection to a MemoryDatabase.
//
// Purpose    The store for tests, benches and trials in one process. Writes are applied at poll(), in order.
// Ownership, thread, errors  As DatapointStore; shares the database with whoever made it.
#pragma once

#include <deque>
#include <memory>
#include <vector>

#include "store/DatapointStore.h"
#include "store/memory/MemoryDatabase.h"

namespace pvss {

class MemoryStore final : public DatapointStore {
 public:
  explicit MemoryStore(std::shared_ptr<MemoryDatabase> database);
  ~MemoryStore() override;
  MemoryStore(const MemoryStore&) = delete;
  MemoryStore& operator=(const MemoryStore&) = delete;

  void start(StoreListener& listener, ElementDirectory& directory, const ManagerIdentity& identity) override;
  bool poll(std::chrono::microseconds atMost) override;
  bool write(const WriteBatch& batch) override;
  void readSnapshot(std::uint64_t request, const std::vector<ElementId>& elements) override;
  void beat(const ManagerBeat& beat) override;

 private:
  enum class State : std::uint8_t { stopped, connecting, leaseTaken, up };
  struct Snapshot {
    std::uint64_t request = 0;
    std::uint64_t sequence = 0;
    std::vector<ElementState> states;
  };

  struct Waiting {
    WriteBatch batch;
    std::uint64_t catalogue = 0;  // sequence of the newest catalogue change that the manager knew of
  };

  void comeUp();
  void goDown(State next, std::string_view reason);
  void fence(const std::string& holder);
  void hear(MemoryDatabase::Event event);
  void apply(Waiting waiting);
  [[nodiscard]] MemoryDatabase::Index indexOf(ElementId element);
  [[nodiscard]] ElementId elementOf(MemoryDatabase::Index index);

  const std::shared_ptr<MemoryDatabase> database_;
  StoreListener* listener_ = nullptr;
  ElementDirectory* directory_ = nullptr;
  ManagerIdentity identity_;
  State state_ = State::stopped;
  bool called_ = false;
  std::deque<Waiting> writes_;
  std::uint64_t catalogueSequence_ = 0;  // of the newest catalogue change told
  bool catchingUp_ = false;
  std::deque<Snapshot> snapshots_;
  std::vector<MemoryDatabase::Index> indexes_;  // by element id
  std::vector<ElementId> elements_;             // by index, 0: not known yet
  std::vector<ElementAttributes> scratch_;
  Change change_;
};

}  // namespace pvss
