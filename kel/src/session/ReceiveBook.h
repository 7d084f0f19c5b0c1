// ReceiveBook: the books of one subscribed topic, one for each process run of a publisher.
//
// Numbers are booked when a record arrives, whatever becomes of it, so that what arrived and what is missing
// add up to what was published. The newest few runs have a book of their own, all older ones one together: a
// topic's books stay small however often its publisher restarts. Not thread-safe: under the session's lock;
// the hand-off tallies belong to the dispatcher.
#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "kel/KelLedger.h"
#include "session/Dispatcher.h"

namespace kel {

/// One process run, or the sum of several.
struct RunBook {
  std::string run;  ///< "name/incarnation"; empty: nobody's, or a sum
  std::int64_t runs = 0;
  std::int64_t before = 0;
  std::int64_t last = 0;
  std::int64_t restarted = 0;
  std::int64_t again = 0;
  std::int64_t taken = 0;  ///< the last number that was not a repetition: what is below it comes too late
  /// Numbers left out that may still come out of the broker's queue, in order: what a broker has kept comes
  /// before that when it is fetched, and mosquitto sends what has just come before it when the window opens.
  std::int64_t overtakenFrom = 1;
  std::int64_t overtakenTo = 0;
  std::vector<std::int64_t> overtaking;  ///< those among them that have arrived
  bool closed = false;                   ///< its publisher has closed the publication since
  bool onLink = false;                   ///< `taken` came over the link that is up
  /// Since when the broker is known to keep a record below `taken`.
  std::optional<std::chrono::steady_clock::time_point> doubted;
  KelCounters counters;  ///< but for what the dispatcher counts
  std::shared_ptr<HandOffTally> handOff = std::make_shared<HandOffTally>();

  /// Books the number of a record that arrived and gives how many were left out before it; -1 when it was
  /// counted as left out itself, because another one has overtaken it.
  std::int64_t arrived(std::int64_t number);
  /// A record of this number comes before what still waits in the broker's queue, or never comes.
  void overtake(std::int64_t number);
  /// Nothing more comes out of the broker's queue.
  void queueEnded();
  /// The number of a record that arrives now is the true one, and what is above it was not the publisher's.
  /// Gives how many that were thought to be left out were not.
  std::int64_t refuted(std::int64_t number);
  /// Takes over everything that stands in another book, what is still to come of its records too.
  void take(RunBook& other, Dispatcher& dispatcher);
  /// What the book says now.
  [[nodiscard]] KelReceived row(const std::string& publication, const Dispatcher& dispatcher) const;
};

class ReceiveBook {
 public:
  explicit ReceiveBook(Dispatcher& dispatcher) : dispatcher_(dispatcher) {}

  /// The book of a run, the newest from now on; without a run that of the records which name nobody.
  RunBook& of(std::string_view run);
  /// The book that has this run now: its own, or that of the older ones.
  RunBook& existing(std::string_view run);
  /// The own book of this run; null when it has none.
  [[nodiscard]] RunBook* find(std::string_view run);
  /// The publication was closed: whoever opens it may count from the beginning.
  void closed();
  /// What the broker keeps from now on may be older than what came before.
  void linkDown();

  /// Calls `visit(RunBook&)` for each, the newest run first.
  template <class Visit>
  void each(Visit&& visit) const {
    for (const auto& book : runs_) visit(*book);
    if (older_) visit(*older_);
    if (nobody_) visit(*nobody_);
  }

 private:
  Dispatcher& dispatcher_;
  std::vector<std::unique_ptr<RunBook>> runs_;  ///< the newest first
  std::unique_ptr<RunBook> older_;
  std::unique_ptr<RunBook> nobody_;
};

/// Numbers come from outside: a publisher that leaps to and fro must not overflow a sum.
void addCapped(std::int64_t& sum, std::int64_t number);

/// Adds the counters that both sides of a book keep: receiving ones and hand-off.
void addReceived(KelCounters& sum, const KelCounters& counters);
void addHandOff(KelCounters& sum, const HandOffTally& tally);

}  // namespace kel
