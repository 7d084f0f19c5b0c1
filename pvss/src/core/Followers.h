// Followers: everybody who waits for values: connects, which go on, and reads, which end with their answer.
//
// Purpose    Turns snapshots and changes into deliveries: one answer each, without a gap before the first
//            change; then one hot-link with every item for every change that touches any of them.
// Order      Each connect keeps its own states: its snapshot is true as of one sequence, and changes up to
//            that one are in it already. Changes that arrive while the snapshot is under way are held.
// Ownership  Owned by the manager core, as are catalogue and the queue of deliveries, which outlive it.
// Thread     The thread that runs Manager::dispatch. Nothing blocks. Only running out of memory throws.
#pragma once

#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <unordered_map>
#include <vector>

#include "core/Catalogue.h"
#include "core/Delivery.h"
#include "pvss/DpIdentList.h"
#include "store/DatapointStore.h"

namespace pvss {

class Followers {
 public:
  /// Takes a delivery; called in the order in which callbacks are to be made.
  using Ready = std::function<void(Delivery)>;
  /// Asks the store; called from flush() only.
  using Ask = std::function<void(std::uint64_t request, const std::vector<ElementId>& elements)>;

  Followers(const Catalogue& catalogue, Ready ready) : catalogue_(catalogue), ready_(std::move(ready)) {}

  /// A connect; of a list when `list`. A target that takes no hot-links only gets the answer.
  void connect(const DpIdentList& ids, bool list, WaitForAnswer* target);
  void read(const DpIdentList& ids, WaitForAnswer* target);
  /// The target is gone.
  void forget(const WaitForAnswer* target);

  /// Everybody who is still waited for; some more than once.
  void forEachTarget(const std::function<void(WaitForAnswer&)>& visit) const;

  /// Asks for what is waiting to be asked for.
  void flush(const Ask& ask);
  [[nodiscard]] bool wantsFlush() const { return !toAsk_.empty(); }

  void snapshot(std::uint64_t request, std::uint64_t sequence, std::vector<ElementState> states);
  void changed(const Change& change);
  /// The address configuration, the type or the existence of an element changed.
  void catalogueChanged(ElementId element);
  /// The store has been away for too long: what is connected by lists is called back with invalid 1. How
  /// many.
  std::size_t distrust();
  /// Everything that changed while the store was away has been told: who was called back so, and not since,
  /// is called back with what is true.
  void trustAgain();
  /// Requests under way are lost with the link and are asked again.
  void linkLost();
  /// Changes were missed: read everything connected again, and call back what changed.
  void readAgain();

 private:
  struct Slot {
    ElementState state;
    std::uint8_t wanted = 0;  // attribute bits that items of the connect show
    bool wantsAddress = false;
    DpElementType type = DPELEMENT_NOELEMENT;      // when it was connected
    DpElementType typeSeen = DPELEMENT_NOELEMENT;  // when the catalogue last changed
    std::uint64_t sequence = 0;                    // of the change that made the state, 0 for the snapshot's
    std::size_t bytes = 0;                         // of the value
  };
  struct Item {
    DpIdentifier id;
    std::uint32_t slot = ~0U;  // none, for an identifier of nothing
  };
  enum class Life : std::uint8_t {
    starting,   // its first snapshot is not there yet
    following,  // answered
    checking,   // answered, and being read again because changes were missed
    ended,      // nobody waits any more
  };
  struct Follower {
    WaitForAnswer* target = nullptr;
    bool isConnect = false;
    bool list = false;
    bool hotLinks = false;
    Life life = Life::starting;
    bool again = false;       // to be read again once the answer under way is here
    bool mustShow = false;    // what is read is called back even if it is as before
    bool distrusted = false;  // was last called back with invalid 1 because the store was away
    std::uint64_t asOf = 0;
    std::uint64_t touchedBy = 0;  // number of the change that was looked at last
    std::vector<Item> items;
    std::vector<Slot> slots;
    std::vector<std::shared_ptr<const Change>> held;
  };
  using FollowerPtr = std::shared_ptr<Follower>;
  struct Interest {
    FollowerPtr follower;
    std::uint32_t slot = 0;
  };
  struct Request {
    std::vector<FollowerPtr> followers;
    std::vector<ElementId> elements;  // of the followers one after the other
  };

  FollowerPtr make(const DpIdentList& ids, WaitForAnswer* target);
  void start(const FollowerPtr& follower);
  void answered(const FollowerPtr& follower, std::uint64_t sequence, ElementState* states);
  void checked(const FollowerPtr& follower, std::uint64_t sequence, ElementState* states);
  static void take(Slot& slot, ElementState state);
  void checkAgain(const FollowerPtr& follower);
  void sayChange(ElementId element, DpElementType before, DpElementType now, bool putRight) const;
  [[nodiscard]] static bool isLateList(const Follower& follower, const Slot& slot, DpElementType now);
  [[nodiscard]] Standing standing(const Follower& follower, const Slot& slot) const;
  bool apply(Follower& follower, std::uint32_t slot, const ElementAttributes& attributes, std::int64_t timeMs,
             std::uint64_t sequence);
  void push(const Follower& follower, Delivery::Kind kind);

  // Where an element stands among the slots of the follower being made.
  struct Place {
    std::uint64_t follower = 0;
    std::uint32_t slot = 0;
  };

  const Catalogue& catalogue_;
  Ready ready_;
  std::vector<Place> places_;  // by element; scratch of make()
  std::uint64_t made_ = 0;
  std::vector<std::vector<Interest>> interests_;  // by element
  std::vector<FollowerPtr> connects_;
  std::deque<FollowerPtr> toAsk_;
  std::map<std::uint64_t, Request> requests_;
  std::vector<std::pair<Follower*, bool>> touched_;  // scratch of changed()
  std::uint64_t lastRequest_ = 0;
  std::uint64_t changeCount_ = 0;
};

}  // namespace pvss
