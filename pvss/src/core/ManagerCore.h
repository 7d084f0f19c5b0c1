// ManagerCore: what stands behind a Manager object.
//
// Purpose    Joins catalogue, followers, backlog and store, and runs them from dispatch().
// Ownership  Owned by the Manager; owns the store, which is made when the manager connects.
// Thread     The thread that runs Manager::dispatch. Only dispatch() waits.
// Errors     Only running out of memory throws; what a callback throws passes out of dispatch().
#pragma once

#include <chrono>
#include <deque>
#include <memory>
#include <string>

#include "core/Backlog.h"
#include "core/Catalogue.h"
#include "core/Followers.h"
#include "core/WriteBuilder.h"
#include "log/Log.h"
#include "pvss/Counters.h"
#include "pvss/ManagerIdentifier.h"
#include "store/DatapointStore.h"

namespace pvss {

class ManagerCore final : private StoreListener {
 public:
  explicit ManagerCore(const ManagerIdentifier& identifier);
  ~ManagerCore() override;
  ManagerCore(const ManagerCore&) = delete;
  ManagerCore& operator=(const ManagerCore&) = delete;

  /// Makes the store and lets it begin. Does nothing the second time.
  void connect();
  void dispatch(std::chrono::microseconds atMost);

  [[nodiscard]] const Catalogue& catalogue() const { return catalogue_; }
  bool connectTo(const DpIdentList& ids, bool list, WaitForAnswer* target);
  bool read(const DpIdentList& ids, WaitForAnswer* target);
  bool write(std::int64_t timeMs, const DpIdValueList& values);
  [[nodiscard]] Counters counters() const { return counters_; }

  /// The object is being destroyed; it may belong to any manager or none.
  static void forgetAnswer(WaitForAnswer* target);

 private:
  // How the store is doing, as far as the manager has to know.
  enum class Link : std::uint8_t {
    connecting,  // never up so far
    waiting,     // reachable, but another manager holds the number
    up,
    down,  // was up
  };
  using TimePoint = std::chrono::steady_clock::time_point;

  void storeUp(const StoreGreeting& greeting) override;
  void storeDown(std::string_view reason) override;
  void catalogueLoaded(std::vector<CatalogueEntry> entries) override;
  void catalogueChanged(CatalogueEntry entry) override;
  void changed(const Change& change) override;
  void snapshot(std::uint64_t request, std::uint64_t sequence, std::vector<ElementState> states) override;
  void confirmed(std::uint64_t clientSequence, WriteOutcome outcome, std::string_view text,
                 const std::vector<std::uint32_t>& leftOut) override;
  void lease(bool held, std::string_view holder) override;
  void gap(std::string_view reason) override;
  void caughtUp() override;

  void endIfRunning(std::string_view holder);
  void setLink(Link next, std::string_view cause);
  bool deliverReady();
  void watchAbsence(TimePoint now);
  void sayIfNoList(const DpIdentList& ids, const WaitForAnswer& target) const;
  void pump();
  void beat(TimePoint now);
  void sayCoalesced(std::uint64_t times);
  void sayOutdated(std::uint64_t times, const std::string& first);
  void dropOutdated();
  void sayRejected(std::uint64_t times, const std::string& first);

  ManagerIdentity identity_;
  Counters counters_;
  std::uint64_t callsInTurn_ = 0;  ///< dpSetTimed calls since the last dispatch
  Catalogue catalogue_;
  Backlog backlog_;
  WriteBuilder builder_;
  std::uint32_t sweptAt_ = 0;  // stamp of the catalogue that nothing in the backlog is older than
  std::deque<Delivery> ready_;
  std::size_t readyBytes_ = 0;
  Followers followers_;
  std::unique_ptr<DatapointStore> store_;
  std::string address_;  // without secrets

  Link link_ = Link::connecting;
  bool catalogueKnown_ = false;
  std::string runId_;
  std::string holder_;              // of the lease, when another has it
  std::uint64_t lastSequence_ = 0;  // newest change seen
  TimePoint awaySince_{};           // while the store is away and was there before
  bool absenceTold_ = false;        // to those who are connected, for this absence
  TimePoint nextBeat_{};
  TimePoint lastPoll_{};
  log::Repeated coalesced_;
  log::Repeated rejected_;
  log::Repeated outdated_;
};

}  // namespace pvss
