// DatapointStore: what the manager needs from whatever holds the data points.
//
// Purpose    One interface over the memory store and the Redis store. Everything that both must do alike
//            (names, attributes, defaults, hot-links, backlog, resend) lives above it, in the manager core.
// Ownership  The manager core owns the store and outlives every call into it.
// Thread     One thread only: the thread that runs Manager::dispatch. No call blocks, except poll(), which
//            waits at most as long as it is told. The listener is called from inside poll() only.
// Units      Times are milliseconds since the epoch; sequences count from 1, 0 means none.
// Errors     Nothing throws. A link that is down is a state, reported once each way through the listener.
#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "pvss/DpElementType.h"
#include "pvss/Variable.h"

namespace pvss {

/// Manager-wide number of an element name; interned by the catalogue, never reused, survives a deletion.
using ElementId = std::uint32_t;

/// Which attributes a write or a change touches. The letters are those of the stored hash.
enum AttributeBits : std::uint8_t {
  attributeValue = 1,     ///< v  _original.._value (and with it _stime)
  attributeInvalid = 2,   ///< i  _original.._exp_inv, seen as _online.._invalid
  attributeUserBit1 = 4,  ///< 1  _original.._userbit1
  attributeUserBit2 = 8,  ///< 2  _original.._userbit2
};

/// The attributes of one element as far as `mask` says; a null value means the default of the type.
struct ElementAttributes {
  ElementId element = 0;
  std::uint8_t mask = 0;
  bool invalid = true;
  bool userBit1 = false;
  bool userBit2 = false;
  std::shared_ptr<const Variable> value;
  bool unreadable = false;  ///< of what was read: there is a value, but not one of the element's type
};

/// One dpSetTimed call: applied whole, with one time and one notification, or not at all.
struct WriteBatch {
  std::uint64_t clientSequence = 0;  ///< counts the calls of this writer; what makes a resend harmless
  std::int64_t timeMs = 0;           ///< the source time of everything in the batch
  bool restore = false;  ///< written again after the store lost it: without what others have written since
  std::vector<ElementAttributes> elements;
};

/// One applied write as every reader sees it, in the one order of the store.
struct Change {
  std::uint64_t sequence = 0;
  std::int64_t timeMs = 0;
  std::vector<ElementAttributes> elements;  ///< masks name what the write touched
};

/// The whole state of one element in a snapshot.
struct ElementState {
  ElementAttributes attributes;    ///< mask all set; value null and invalid true when never written
  std::int64_t valueTimeMs = 0;    ///< _stime: time of the last write that contained the value
  std::int64_t invalidTimeMs = 0;  ///< time of the last change of the flag
};

/// An element as the catalogue describes it.
struct CatalogueEntry {
  std::string name;  ///< "Dp.element", without system
  DpElementType type = DPELEMENT_NOELEMENT;
  int addressType = 0;  ///< 0: no address configuration
  std::string driver;
  std::string reference;
  std::uint32_t disabled = 0;  ///< attributes switched off, see Catalogue.h
};

/// Gives ids to names and types to ids; implemented by the manager core's catalogue.
class ElementDirectory {
 public:
  virtual ~ElementDirectory() = default;
  /// The id of the name, made on first use, whether or not such an element exists.
  virtual ElementId intern(std::string_view name) = 0;
  /// The name behind an id.
  [[nodiscard]] virtual const std::string& nameOf(ElementId element) const = 0;
  /// The type of the element now, DPELEMENT_NOELEMENT when there is none.
  [[nodiscard]] virtual DpElementType typeOf(ElementId element) const = 0;
};

/// What a store tells about itself each time it becomes usable.
struct StoreGreeting {
  std::string address;                   ///< as configured, without secrets
  std::string runId;                     ///< changes when the server process does
  std::uint64_t lastClientSequence = 0;  ///< the newest write of this writer that the store knows
  std::uint64_t logSequence = 0;         ///< the newest change that the store knows
  std::uint64_t settledAttributes = 0;   ///< of this writer, applied or refused, as the store has counted
                                         ///< them; restored ones left out
};

/// Who the manager is; fixed before start().
struct ManagerIdentity {
  int number = 0;
  std::string kind;    ///< "api" for the gateway
  std::string writer;  ///< number and random incarnation, for example "7.f3a91c02"
  std::string host;
  int process = 0;
  std::string versionText;
};

/// State and counters that beat() shows to the outside, in the order given.
using ManagerBeat = std::vector<std::pair<std::string, std::string>>;

enum class WriteOutcome : std::uint8_t {
  applied,    ///< in the store, in order
  duplicate,  ///< the store had it already
  refused,    ///< the store will never take it (the text says why)
  fenced,     ///< another manager holds the number now
};

class StoreListener {
 public:
  virtual ~StoreListener() = default;
  /// Link usable, functions checked, lease held, catalogue delivered before. Called again after every
  /// reconnect.
  virtual void storeUp(const StoreGreeting& greeting) = 0;
  virtual void storeDown(std::string_view reason) = 0;
  /// The whole catalogue, before storeUp; what is not in it no longer exists.
  virtual void catalogueLoaded(std::vector<CatalogueEntry> entries) = 0;
  /// In log order with changed(). An entry of type DPELEMENT_NOELEMENT is a deletion.
  virtual void catalogueChanged(CatalogueEntry entry) = 0;
  /// Goes on without a hole across a reconnect; where it cannot, gap() comes before the first change behind
  /// it.
  virtual void changed(const Change& change) = 0;
  /// Answer to readSnapshot(): states in the order asked, true as of `sequence`.
  virtual void snapshot(std::uint64_t request, std::uint64_t sequence, std::vector<ElementState> states) = 0;
  /// `leftOut`: positions in the batch of what was refused of one that was applied in part.
  virtual void confirmed(std::uint64_t clientSequence, WriteOutcome outcome, std::string_view text,
                         const std::vector<std::uint32_t>& leftOut) = 0;
  /// The lease on the manager number: false with the holder's description while another has it.
  virtual void lease(bool held, std::string_view holder) = 0;
  /// Changes were missed (log trimmed, sequence went back): everything connected must be read again.
  virtual void gap(std::string_view reason) = 0;
  /// After storeUp, once every change that was in the store then has been told.
  virtual void caughtUp() = 0;
};

class DatapointStore {
 public:
  virtual ~DatapointStore() = default;
  /// Begins to connect, and keeps trying for ever. Returns at once; both references outlive the store.
  virtual void start(StoreListener& listener, ElementDirectory& directory,
                     const ManagerIdentity& identity) = 0;
  /// Runs input, output and timers, calling the listener. Waits at most `atMost` for the first event and
  /// returns as soon as the listener was called. True when it was.
  virtual bool poll(std::chrono::microseconds atMost) = 0;
  /// Hands over one batch. False: not now (link down or the window of unconfirmed writes is full); the caller
  /// keeps it and offers it again after the next confirmation or storeUp. Batches stay in order. The store
  /// does not keep a reference. After storeDown everything unconfirmed counts as not handed over. What it
  /// says of elements that got another type or address by a change that the listener had not been told of
  /// when it was handed over is left out, and the confirmation says so.
  virtual bool write(const WriteBatch& batch) = 0;
  /// Asks for the states of the elements; lost with the link, so the caller asks again after storeUp.
  virtual void readSnapshot(std::uint64_t request, const std::vector<ElementId>& elements) = 0;
  /// Shows state and counters outside and renews the lease; call about once a second.
  virtual void beat(const ManagerBeat& beat) = 0;
};

}  // namespace pvss
