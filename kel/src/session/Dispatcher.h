// Dispatcher: the one thread that calls listeners and handlers, and the bounded queue that feeds it.
//
// Purpose    Callbacks never run on a transport's thread nor inside an application's call; in order per
//            target, one at a time; never after cancel() has returned.
// Thread     Any thread may post and cancel. cancel() waits for a callback of its target that is running,
//            except when that callback itself calls it.
// Errors     What a callback throws is caught, counted and reported.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "Sync.h"
#include "data/Record.h"
#include "session/FairQueue.h"

namespace kel {

/// What became of the records handed off for one publication.
struct HandOffTally {
  std::int64_t delivered = 0;
  std::int64_t superseded = 0;
  std::int64_t discarded = 0;
  std::int64_t pending = 0;
  std::int64_t exceptions = 0;
  std::shared_ptr<HandOffTally> into;  ///< everything of this one is counted there
};

struct Event {
  enum class Kind : std::uint8_t { connected, disconnected, record, exception };
  Kind kind = Kind::record;
  bool droppable = false;  ///< records only
  std::size_t bytes = 0;
  std::shared_ptr<Record> record;
  std::string text;                     ///< reason
  std::shared_ptr<HandOffTally> tally;  ///< of a record: where it is counted

  static Event connected() { return {Kind::connected, false, 0, nullptr, {}, nullptr}; }
  static Event disconnected(std::string reason) {
    return {Kind::disconnected, false, 0, nullptr, std::move(reason), nullptr};
  }
  static Event exception(std::string reason) {
    return {Kind::exception, false, 0, nullptr, std::move(reason), nullptr};
  }
  static Event data(std::shared_ptr<Record> record, std::shared_ptr<HandOffTally> tally) {
    const std::size_t bytes = record->memoryBytes();
    return {Kind::record, true, bytes, std::move(record), {}, std::move(tally)};
  }
};

/// Somebody who is called back. Its lane and tally are guarded by the dispatcher.
class Target {
 public:
  Target() = default;
  Target(const Target&) = delete;
  Target& operator=(const Target&) = delete;
  virtual ~Target() = default;
  /// On the dispatcher's thread, without any lock.
  virtual void deliver(const Event& event) = 0;

  Lane<Event> lane;
  std::shared_ptr<HandOffTally> tally = std::make_shared<HandOffTally>();  ///< of what it throws
};

class Dispatcher {
 public:
  Dispatcher(std::size_t mostRecords, std::size_t mostBytes);
  ~Dispatcher();
  Dispatcher(const Dispatcher&) = delete;
  Dispatcher& operator=(const Dispatcher&) = delete;

  void post(const std::shared_ptr<Target>& target, Event event) KEL_EXCLUDES(mutex_);
  /// After it returns the target is not called any more.
  void cancel(Target& target) KEL_EXCLUDES(mutex_);
  /// Ends the thread after the running callback; everything that waited is discarded.
  void stop() KEL_EXCLUDES(mutex_);

  /// Adds one tally to another; what still becomes of its records is counted there too.
  void fold(const std::shared_ptr<HandOffTally>& from, const std::shared_ptr<HandOffTally>& into)
      KEL_EXCLUDES(mutex_);

  [[nodiscard]] HandOffTally total() const KEL_EXCLUDES(mutex_);
  [[nodiscard]] HandOffTally of(const HandOffTally& tally) const KEL_EXCLUDES(mutex_);

 private:
  void run();
  void drop(HandOffTally& tally, std::int64_t HandOffTally::*counter) KEL_REQUIRES(mutex_);
  /// A listener that does not come back keeps a short list of connects and disconnects, not all of them.
  bool foldsAway(Target& target, const Event& event) KEL_REQUIRES(mutex_);

  mutable Mutex mutex_;
  Condition wake_;
  Condition finished_;
  FairQueue<Event, Target> queue_ KEL_GUARDED_BY(mutex_);
  HandOffTally total_ KEL_GUARDED_BY(mutex_);
  Target* running_ KEL_GUARDED_BY(mutex_) = nullptr;
  bool idle_ KEL_GUARDED_BY(mutex_) = false;
  bool stopping_ KEL_GUARDED_BY(mutex_) = false;
  std::thread thread_;
  std::thread::id threadId_;  ///< fixed after construction
};

}  // namespace kel
