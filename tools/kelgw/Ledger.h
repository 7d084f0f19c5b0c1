// Ledger: whether every value is accounted for, from the books that others keep.
//
// Pure: the books of one moment go in, lines with a verdict come out. Nothing here asks a server.
#pragma once

#include <kel/KelBrowser.h>
#include <kel/KelLedger.h>

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "pvss/StoreAdmin.h"

namespace kelgw {

/// The record that the broker keeps of a publication.
struct KeptRecord {
  std::string publication;
  std::string publisher;  ///< "name/incarnation"; empty for a foreign publisher
  std::int64_t sequence = 0;
  bool operator==(const KeptRecord&) const = default;
};

/// What one look found.
struct Books {
  std::vector<pvss::StoreManager> managers;
  std::vector<pvss::StoreWriter> writers;
  std::vector<std::string> mapped;  ///< publications that elements are fed from
  std::vector<KelPublisherInfo> members;
  std::vector<KelLedger> ledgers;
  std::vector<KeptRecord> kept;
};

/// Nothing moved from one look to the other, and every living manager has beaten in between.
[[nodiscard]] bool quiet(const Books& before, const Books& now);

/// A line of the ledger holds when `why` is empty.
struct Verdict {
  std::string why;
  [[nodiscard]] bool balanced() const { return why.empty(); }
};

/// What one gateway received of one publication from one run of its publisher.
struct SubscribeLine : Verdict {
  std::string subscriber;
  int manager = 0;
  KelReceived book;
  std::optional<std::int64_t> published;
  const char* publishedBy = "";
  std::int64_t missing = 0;
};

/// What one gateway sent of one publication.
struct PublishLine : Verdict {
  std::string publisher;
  std::string incarnation;
  int manager = 0;
  KelSent book;
  std::optional<std::int64_t> kept;
};

/// What one manager wrote.
struct WriteLine : Verdict {
  int manager = 0;
  std::string writer;
  std::string host;
  int process = 0;
  bool alive = false;
  std::int64_t queued = 0, confirmed = 0, coalesced = 0, dropped = 0, rejected = 0, pending = 0;
  std::int64_t settled = 0, lost = 0, restored = 0, hotLinks = 0;  ///< all as of the last heartbeat
  std::int64_t applied = 0, refused = 0, values = 0;               ///< as the store has counted
};

/// The runs of one manager that are over, in records.
struct GoneLine : Verdict {
  int manager = 0;
  std::vector<std::string> writers;
  std::optional<std::int64_t> published;  ///< nothing: it cannot be compared
  std::int64_t applied = 0;
  std::int64_t inFlight = 0;
  std::int64_t bound = 0;
};

struct Ledger {
  bool moving = false;
  std::vector<SubscribeLine> subscribe;
  std::vector<PublishLine> publish;
  std::vector<WriteLine> writes;
  std::vector<GoneLine> gone;
  std::vector<std::string> why;  ///< one sentence for each line that does not hold, and what else is wrong
  [[nodiscard]] bool balanced() const { return why.empty(); }
};

/// `moving`: values are under way, so that books of different processes need not agree yet.
[[nodiscard]] Ledger balance(const Books& books, bool moving);

/// The records that the queues between broker and store can hold: the hand-off and the backlog at their
/// bounds, every call as small as it can be. `backlogBytes` is the backlog's bound, 0 for the one that a
/// manager has when its configuration names none.
[[nodiscard]] std::int64_t mostInFlight(std::int64_t backlogBytes);

}  // namespace kelgw
