// RedisStore: the data points in a Redis server.
//
// Purpose    The store that many processes share. docs/store-format.md describes what it keeps where.
// Ownership  See DatapointStore.h; the store owns its two connections: one for commands, one that waits for
//            the change log.
// Thread     As DatapointStore: one.
// Errors     A server that is away, loading, failing over, without functions, or a manager number that is
//            taken are states: the store says so once on standard error and goes on trying.
#pragma once

#include <poll.h>

#include <array>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "log/Log.h"
#include "store/DatapointStore.h"
#include "store/redis/Backoff.h"
#include "store/redis/RedisConnection.h"

namespace pvss::redis {

struct RedisStoreOptions {
  std::size_t windowBatches = 1024;                        ///< batches on their way without a confirmation
  std::size_t windowBytes = std::size_t{4} * 1024 * 1024;  ///< and their bytes; one larger batch goes alone
  std::size_t snapshotElements = 10000;                    ///< elements asked for in one call
  std::chrono::milliseconds lease{3000};                   ///< of the manager number, on the store's clock
  std::chrono::milliseconds leaseRetry{1000};  ///< while another manager holds it, or functions are missing
  std::chrono::milliseconds logWait{2000};     ///< how long the server holds an idle log read
  std::size_t logEntries = 512;                ///< entries taken in one log read, none of them above 64 KiB
  // Under steady traffic, poll() looks at the sockets no more often than this once a burst of so many is used
  // up: waking up costs more than the work, and a loop that polls every millisecond loses nothing by it.
  std::chrono::microseconds wakeInterval{1000};
  unsigned wakeBurst = 32;
  RedisConnection::Limits limits{};
};

/// The life of the link as a whole.
enum class LinkState : std::uint8_t {
  stopped,
  pausing,       ///< before the next attempt
  connecting,    ///< until both connections are signed on
  checking,      ///< asking for the version of the functions
  badFunctions,  ///< missing or of another version; asked again now and then
  greeting,      ///< asking for the lease on the manager number
  leaseTaken,    ///< by another manager; asked again now and then
  loading,       ///< the catalogue
  up,
};

class RedisStore final : public DatapointStore, private ConnectionOwner {
 public:
  explicit RedisStore(StoreAddress address, RedisStoreOptions options = {});
  ~RedisStore() override;
  RedisStore(const RedisStore&) = delete;
  RedisStore& operator=(const RedisStore&) = delete;

  void start(StoreListener& listener, ElementDirectory& directory, const ManagerIdentity& identity) override;
  bool poll(std::chrono::microseconds atMost) override;
  bool write(const WriteBatch& batch) override;
  void readSnapshot(std::uint64_t request, const std::vector<ElementId>& elements) override;
  void beat(const ManagerBeat& beat) override;

  [[nodiscard]] LinkState state() const { return state_; }

 private:
  // What a reply belongs to: the kind in the tag's upper byte, a number below it.
  enum class Tag : std::uint8_t {
    version,
    hello,
    catalogue,
    beat,
    write,
    snapshot,
    since,
    log,
    large,
    ignored
  };
  struct Snapshot;

  // ConnectionOwner
  void connectionReady(RedisConnection& connection) override;
  void connectionLost(RedisConnection& connection, std::string_view reason) override;
  void reply(RedisConnection& connection, std::uint64_t tag, ReplyCursor reply) override;

  // The link: RedisStoreLink.cpp
  void pace(Clock::time_point until);
  void enter(LinkState next, std::string_view cause);
  void onTimers();
  void restart(std::string_view reason);
  void drop(std::string_view reason);
  void trouble(std::string_view text);
  void sayBack();
  void settledIn();
  void serverError(std::string_view error);
  void askVersion();
  void onVersion(ReplyCursor reply);
  void sayHello();
  void onHello(ReplyCursor reply);
  void askCatalogue();
  void onCatalogue(ReplyCursor reply);
  void onBeat(std::uint64_t positionThen, ReplyCursor reply);
  void leaseLost(std::string_view holder);
  void takeGeneration(std::uint64_t generation);
  void tellLease(bool held, std::string_view holder);
  [[nodiscard]] std::string selfText() const;
  std::string& call(Tag tag, std::uint64_t number, std::string_view function, std::size_t arguments);

  // Writes: RedisStore.cpp
  void onWrite(ReplyCursor reply);

  // Snapshots and the change log: RedisStoreLog.cpp
  void sendSnapshotChunk(Snapshot& snapshot, std::size_t first);
  void onSnapshot(std::uint64_t number, ReplyCursor reply);
  void onSince(std::uint64_t number, ReplyCursor reply);
  void finishSnapshot(std::size_t index);
  Snapshot* findSnapshot(std::uint64_t number);
  void restartSnapshot(Snapshot& snapshot);
  void takeState(ReplyCursor& reply, ElementState& state);
  void askLog();
  void onLog(ReplyCursor reply);
  void onLogEntry(std::uint64_t sequence, ReplyCursor& reply);
  void onChangeEntry(std::uint64_t sequence, std::string_view head, std::size_t fields, ReplyCursor& reply);
  void onLargeEntry(std::uint64_t sequence, std::string_view head);
  void onLargeValues(ReplyCursor reply);
  void takeWritten(std::string_view name, std::string_view text);
  void tellChange(std::uint64_t sequence, std::string_view head);
  void checkCaughtUp();
  void catalogueKnown(std::uint64_t sequence);
  void onCatalogueEntry(std::uint64_t sequence, bool removed, std::size_t fields, ReplyCursor& reply);
  void lostChanges(std::string_view reason);
  void sayUnreadable(std::string_view name, const std::string& why);

  const StoreAddress address_;
  const RedisStoreOptions options_;
  StoreListener* listener_ = nullptr;
  ElementDirectory* directory_ = nullptr;
  ManagerIdentity identity_;
  std::string writePrefix_;  // the part that every write command has in common

  LinkState state_ = LinkState::stopped;
  RedisConnection commands_;
  RedisConnection log_;
  Backoff backoff_;
  std::array<pollfd, 2> waits_{};
  Clock::time_point now_{};
  Clock::time_point retryAt_{};  // in pausing, badFunctions and leaseTaken
  Clock::time_point tickAt_{};
  Clock::time_point wakesUntil_{};         // what the wake-ups so far have used up of the time
  std::vector<std::string> troublesTold_;  // on standard error since the link was last up
  std::string master_;                     // where the sentinels' master was when the link was last up
  bool called_ = false;                    // the listener, during this poll

  bool leaseKnown_ = false;  // the listener was told once
  bool leaseHeld_ = false;
  std::string leaseHolder_;
  StoreGreeting greeting_;
  std::uint64_t generation_ = 0;  // in which this writer has the manager number; 0: never had it
  std::string fence_;             // number and generation
  std::string runId_;             // of the server that the log position belongs to

  // Writes on their way, oldest first.
  struct Flying {
    std::uint64_t clientSequence;
    std::size_t bytes;
  };
  std::vector<Flying> flying_;  // a ring
  std::size_t flyingIn_ = 0;
  std::size_t flyingOut_ = 0;
  std::size_t flyingBytes_ = 0;
  std::uint64_t previousWrite_ = 0;
  std::uint64_t oddWrite_ = 0;  // the last one that was answered with an error that is not known,
  unsigned oddTimes_ = 0;       // and how often
  // The last write was answered with an error: that the server can be reached and read again proves nothing.
  bool refusesWrites_ = false;
  std::string scratch_;
  std::vector<std::uint32_t> leftOut_;

  struct Snapshot {
    std::uint64_t request = 0;
    std::uint64_t number = 0;  // in tags
    std::vector<ElementState> states;
    std::size_t asked = 0;
    std::size_t answered = 0;
    std::uint64_t firstSequence = 0;
    std::uint64_t lastSequence = 0;
  };
  std::vector<Snapshot> snapshots_;
  std::uint64_t nextSnapshot_ = 0;

  std::uint64_t logPosition_ = 0;        // the newest entry delivered
  bool logKnown_ = false;                // logPosition_ means something
  std::string gapDue_;                   // changes were missed and the listener was not told yet
  std::uint64_t catalogueSequence_ = 0;  // entries of the catalogue up to here are in what was loaded
  std::string writeFlags_;               // what a write says of the catalogue that it was made with
  bool catchingUp_ = false;              // until the log has been read up to where the catalogue was loaded
  std::uint64_t catchUpTo_ = 0;
  bool catalogueSkipped_ = false;  // changes of it were in what was loaded, and not told one by one
  bool logAsked_ = false;
  Change change_;                    // reused for every entry
  std::uint64_t largeSequence_ = 0;  // of the change whose values are being fetched
  std::string largeHead_;
  bool largeWaits_ = false;
  log::Repeated unreadable_;
};

}  // namespace pvss::redis
