// StoreAdmin: the data point store as tools see it.
//
// Purpose    Look at and change a Redis store from outside a manager: catalogue, values, changes as they
//            happen, managers and their counters, the server-side function library.
// Ownership  One StoreAdmin is one connection; it closes in the destructor. Results are copies.
// Thread     One thread at a time. Every call blocks until the store answered or the time limit passed; the
//            flag given to watch() may be set from any thread or from a signal handler.
// Units      Times are milliseconds since the epoch; limits are std::chrono durations.
// Errors     Every call throws StoreError and nothing else of its own.
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "pvss/DpElementType.h"
#include "pvss/Variable.h"

namespace pvss {

/// What went wrong with a store, and the exit code that a tool should end with.
class StoreError : public std::runtime_error {
 public:
  enum class Kind : std::uint8_t {
    unreachable,  ///< no connection, connection lost, still loading, no answer within the limit: exit code 3
    refused,      ///< the store answered no (no such element, no permission, functions missing): exit code 1
    usage,        ///< the address or an argument cannot be used at all: exit code 2
  };
  StoreError(Kind kind, const std::string& text) : std::runtime_error(text), kind_(kind) {}
  [[nodiscard]] Kind kind() const { return kind_; }
  [[nodiscard]] int exitCode() const {
    return kind_ == Kind::unreachable ? 3 : kind_ == Kind::refused ? 1 : 2;
  }

 private:
  Kind kind_;
};

/// One element of the catalogue with its address configuration.
struct StoreElement {
  std::string name;  ///< "Dp.element", without system
  DpElementType type = DPELEMENT_NOELEMENT;
  int addressType = 0;  ///< 0: no address configuration; driver and reference are then empty
  std::string driver;
  std::string reference;
  std::uint32_t disabled = 0;  ///< attributes switched off, the bits of the catalogue
  bool operator==(const StoreElement&) const = default;
};

/// The attributes of one element at one moment.
struct StoreReading {
  std::string name;
  DpElementType type = DPELEMENT_NOELEMENT;  ///< DPELEMENT_NOELEMENT: no such element, the rest is default
  std::shared_ptr<const Variable> value;     ///< null when never written
  bool invalid = true;
  bool userBit1 = false;
  bool userBit2 = false;
  std::int64_t valueTimeMs = 0;    ///< time of the last write that contained the value
  std::int64_t invalidTimeMs = 0;  ///< time of the last change of the invalid flag
};

/// Readings that were all true at one sequence of the store.
struct StoreReadings {
  std::uint64_t sequence = 0;
  std::vector<StoreReading> readings;  ///< in the order asked
};

/// What to write to one element; what is not set stays as it is in the store.
/// A value alone also clears the invalid flag, as a write by a person does.
struct StoreWrite {
  std::string name;
  std::shared_ptr<const Variable> value;  ///< null: no value; its class must fit the element's type
  std::optional<bool> invalid;
  std::optional<bool> userBit1;
  std::optional<bool> userBit2;
};

/// One event of watch().
struct StoreChange {
  enum class Kind : std::uint8_t {
    current,  ///< the state when the watch began, or again after changes were missed
    written,  ///< a write, equal values included; `reading` is the state after it
    defined,  ///< the catalogue entry was written; `reading` has the type
    removed,  ///< the element is gone
  };
  Kind kind = Kind::written;
  std::uint64_t sequence = 0;
  std::int64_t timeMs = 0;  ///< the source time of the write
  std::string writer;       ///< who wrote, empty for current
  std::string attributes;   ///< letters of what the write touched: v i 1 2
  StoreReading reading;
};

/// What apply has to do, in the order it is done: entries, removals, values, lists.
struct StorePlan {
  std::vector<StoreElement> put;
  std::vector<std::string> remove;
  std::vector<StoreWrite> values;
  std::vector<StoreWrite> lists;
  std::int64_t timeMs = 0;  ///< source time of values and lists; 0 takes the store's own clock
};

/// One manager as its heartbeat shows it.
struct StoreManager {
  int number = 0;
  std::string kind;
  std::string writer;  ///< number and incarnation
  std::string host;
  int process = 0;
  std::string versionText;
  bool alive = false;           ///< beat within the last ten seconds, by the store's clock
  bool leaseHeld = false;       ///< somebody holds the manager number now
  std::string leaseHolder;      ///< writer that holds it
  std::int64_t lastBeatMs = 0;  ///< store's clock
  std::int64_t beatAgeMs = 0;   ///< by the store's clock when read
  std::vector<std::pair<std::string, std::string>> counters;  ///< state and counters, in the order beaten
};

/// The change log.
struct StoreLog {
  std::uint64_t sequence = 0;       ///< newest change
  std::uint64_t firstSequence = 0;  ///< oldest change still held, 0 when empty
  std::uint64_t entries = 0;
  std::uint64_t bytes = 0;       ///< of the entries held, as the bound counts them
  std::uint64_t boundBytes = 0;  ///< where trimming begins
};

/// One writer known to the store.
struct StoreWriter {
  std::string writer;
  std::uint64_t lastClientSequence = 0;
  std::uint64_t applied = 0;     ///< batches applied, duplicates not counted
  std::uint64_t attributes = 0;  ///< attributes applied, restored ones not counted again
  std::uint64_t refused = 0;     ///< attributes refused
  std::uint64_t values = 0;      ///< batches applied that contained a value, restored ones not counted again
  std::int64_t sinceMs = 0;      ///< when it came; 0 when not known
  std::int64_t lastUseMs = 0;
};

struct StoreStatistics {
  std::string address;        ///< as configured, without secrets
  std::string serverVersion;  ///< of the Redis server
  std::string runId;
  std::string functions;  ///< installed library version, empty when there is none
  std::uint64_t elements = 0;
  std::uint64_t usedMemoryBytes = 0;
  StoreLog log;
  std::vector<StoreWriter> writers;
};

class StoreAdmin {
 public:
  static constexpr std::chrono::milliseconds defaultLimit{5000};

  /// Connects. An empty address takes the variable PVSS_STORE. A `memory:` address is refused as usage: that
  /// store lives inside its process. The limit holds for connecting and for every later call.
  explicit StoreAdmin(std::string address = {}, std::chrono::milliseconds limit = defaultLimit);
  ~StoreAdmin();
  StoreAdmin(StoreAdmin&&) noexcept;
  StoreAdmin& operator=(StoreAdmin&&) noexcept;

  /// The address in use, without secrets.
  [[nodiscard]] const std::string& address() const;

  /// Version of the function library this program brings.
  static std::string_view ownFunctionsVersion();
  /// Version of the library installed in the store; empty when there is none.
  std::string functionsVersion();
  /// Installs or replaces the library. True when something had to be done.
  bool installFunctions();

  /// The whole catalogue, sorted by name.
  std::vector<StoreElement> listElements();
  /// State of the named elements, all as of one moment; unknown names give type DPELEMENT_NOELEMENT.
  StoreReadings readElements(const std::vector<std::string>& names);

  /// Writes all given elements as one atomic change and returns its sequence once it is confirmed.
  /// timeMs 0 takes the store's own clock. Refused when an element does not exist.
  std::uint64_t write(const std::vector<StoreWrite>& writes, std::int64_t timeMs = 0);

  /// Calls back the current state of every chosen element, then each change in order, until `stop` is true
  /// or `duration` has passed (none: no end) or the callback returns false. A lost connection is made again
  /// within the limit. Missed changes, another server process, and a change too large for the log are
  /// followed by the current states of all. Unknown names are refused. The callback must not use this object.
  void watch(const std::vector<std::string>& names, const std::function<bool(const StoreChange&)>& callback,
             const std::atomic<bool>& stop, std::optional<std::chrono::milliseconds> duration = std::nullopt);

  /// Adds or replaces catalogue entries; an element whose type changed loses its old value.
  void putElements(const std::vector<StoreElement>& elements);
  /// Removes elements with their values; unknown names are ignored.
  void removeElements(const std::vector<std::string>& names);
  /// Everything of a plan in its order. Functions must be installed before.
  void apply(const StorePlan& plan);

  /// Bound of the change log in bytes, for all who write; at least 1 MiB.
  void setLogBound(std::uint64_t bytes);

  /// Managers seen within the last day, by number.
  std::vector<StoreManager> managers();
  StoreLog logStatistics();
  StoreStatistics statistics();

 private:
  class Impl;
  std::unique_ptr<Impl> impl_;
};

}  // namespace pvss
