// MemoryPlant: a store in memory for tests, and eyes on everything that a manager is asked to do.
//
// Purpose    While a MemoryPlant exists, every manager that connects uses it instead of the configured store.
//            The test writes as somebody else, reads what was written, and disturbs the link.
// Ownership  Outlives the managers that connected while it existed. One at a time. Data outlives a manager,
//            so a test can restart one.
// Thread     The thread that runs Manager::dispatch.
// Errors     A bad plant text throws std::invalid_argument with every complaint; so does the name of an
//            element or attribute that does not exist.
// Note       Not part of the platform contract: for tests and benches only.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "pvss/DpElementType.h"
#include "pvss/DpIdValueList.h"
#include "pvss/DpIdentList.h"
#include "pvss/DpIdentifier.h"
#include "pvss/ManagerIdentifier.h"
#include "pvss/TimeVar.h"
#include "pvss/Variable.h"

class WaitForAnswer;

namespace pvss {
class MemoryDatabase;
}

namespace pvss::testing {

/// Sees the calls that a manager gets, before they take effect. All operations do nothing unless overridden.
class ManagerObserver {
 public:
  virtual ~ManagerObserver() = default;
  virtual void onRegister(const ManagerIdentifier& /*identifier*/) {}
  virtual void onConnectToData(unsigned char /*flags*/, unsigned int /*count*/) {}
  virtual void onConnectToEvent(unsigned int /*flags*/) {}
  virtual void onGetId(const char* /*name*/, bool /*found*/) {}
  virtual void onDpConnect(const DpIdentList& /*ids*/, WaitForAnswer* /*answer*/, unsigned int /*flags*/) {}
  virtual void onDpGet(const DpIdentList& /*ids*/, WaitForAnswer* /*answer*/, unsigned int /*flags*/) {}
  virtual void onDpSetTimed(const TimeVar& /*time*/, const DpIdValueList& /*values*/,
                            unsigned int /*flags*/) {}
  virtual void onDispatch(long /*sec*/, long /*usec*/) {}
};

/// One pair handed to dpSetTimed.
struct RecordedItem {
  DpIdentifier id;
  std::string name;  ///< as getLIName gives it
  std::shared_ptr<const Variable> value;
};

/// One dpSetTimed call: the pairs exactly in the order handed over.
struct RecordedWrite {
  std::int64_t timeMs = 0;
  std::vector<RecordedItem> items;
  unsigned int flags = 0;
};

/// One dpConnect or dpGet call.
struct RecordedRequest {
  std::vector<DpIdentifier> ids;
  std::vector<std::string> names;  ///< as getLIName gives them
  WaitForAnswer* answer = nullptr;
  unsigned int flags = 0;
};

/// Everything the store knows of one element.
struct ElementView {
  DpElementType type = DPELEMENT_NOELEMENT;
  std::shared_ptr<const Variable> value;  ///< the type's default when never written
  bool invalid = true;
  bool userBit1 = false;
  bool userBit2 = false;
  std::int64_t valueTimeMs = 0;
  std::int64_t invalidTimeMs = 0;
  std::uint64_t writes = 0;  ///< changes of the element so far, whoever made them
};

/// What somebody else writes to one element at once; what is not given is not touched.
struct ElementWrite {
  std::shared_ptr<const Variable> value;
  std::optional<bool> invalid;  ///< not given beside a value: cleared
  std::optional<bool> userBit1;
  std::optional<bool> userBit2;
};

class MemoryPlant {
 public:
  /// A plant file's text; see pvss/PlantFile.h.
  explicit MemoryPlant(const std::string& plantText = {});
  ~MemoryPlant();
  MemoryPlant(const MemoryPlant&) = delete;
  MemoryPlant& operator=(const MemoryPlant&) = delete;

  // The catalogue. Names are "Dp.element". A running manager learns of it inside its next dispatch.
  void addElement(const std::string& name, DpElementType type);
  void removeElement(const std::string& name);
  void setAddress(const std::string& name, int type, const std::string& driver, const std::string& reference);
  /// Takes "Dp.element:_config..attribute" out of the catalogue, or puts it back.
  void switchOff(const std::string& attribute);
  void switchOn(const std::string& attribute);

  // Values, written by somebody else; one call is one change. Without a time: now.
  void write(const std::string& name, const Variable& value, std::optional<std::int64_t> timeMs = {});
  void writeInvalid(const std::string& name, bool invalid, std::optional<std::int64_t> timeMs = {});
  void write(const std::vector<std::pair<std::string, ElementWrite>>& elements, std::int64_t timeMs);
  /// Writes a dyn_text element.
  void writeTexts(const std::string& name, const std::vector<std::string>& texts,
                  std::optional<std::int64_t> timeMs = {});
  [[nodiscard]] ElementView read(const std::string& name) const;

  // What managers were asked to do, in order, since the last clearRecords().
  [[nodiscard]] const std::vector<RecordedWrite>& writes() const;
  [[nodiscard]] const std::vector<RecordedRequest>& connects() const;
  [[nodiscard]] const std::vector<RecordedRequest>& gets() const;
  void clearRecords();
  /// Off for benches: nothing is recorded. The observer is still called.
  void setRecording(bool on);
  /// Not owned; null takes it away.
  void observe(ManagerObserver* observer);

  // The link.
  /// Down: the store reports the loss at the next poll and takes nothing; up: it greets again.
  void setLinkUp(bool up);
  /// On: writes are taken (up to the store's window) but neither applied nor confirmed until off again.
  void holdWrites(bool on);
  /// On: writes are applied but not confirmed, as when the answer is lost with the link.
  void holdConfirmations(bool on);
  /// On: answers to connects and reads are taken at once but wait; what they say is of the time they were
  /// asked.
  void holdSnapshots(bool on);
  /// Batches that the store takes before it says "not now"; 0: no limit.
  void setWindow(std::size_t batches);
  /// The store forgets the newest `changes` changes and comes back as another server, as after a failover.
  /// To be called while the link is down.
  void loseNewest(std::size_t changes);
  /// Another manager holds the number (the text says who), or, empty, no longer.
  void holdLease(const std::string& holder);
  /// Confirms the next write as fenced.
  void fenceNextWrite();
  /// The link fails while the next write is handed over.
  void failLinkInNextWrite();
  /// The store reports that changes were missed and lost these ones on the way.
  void gapDuring(const std::vector<std::pair<std::string, ElementWrite>>& missed, std::int64_t timeMs);
  /// The last heartbeat, name and value.
  [[nodiscard]] std::vector<std::pair<std::string, std::string>> lastBeat() const;

  [[nodiscard]] const std::shared_ptr<MemoryDatabase>& database() const { return database_; }

 private:
  struct Recorder;
  std::shared_ptr<MemoryDatabase> database_;
  std::unique_ptr<Recorder> recorder_;
};

}  // namespace pvss::testing
