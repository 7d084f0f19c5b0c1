// Outbox: the publishing side of a session.
//
// Each publication name is claimed before anything is published under it: claim, wait for the own echo; a
// live claim seen earlier wins. The owner publishes records through a window of unacknowledged messages; the
// others keep their last record and take over when the owner is gone. Records wait in a bounded queue, the
// newest of each publication always kept. Not thread-safe: under the session's lock. Callbacks go through the
// dispatcher.
#pragma once

#include <deque>
#include <limits>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "kel/KelCounters.h"
#include "kel/KelFactory.h"
#include "kel/KelLedger.h"
#include "session/ControlPayload.h"
#include "session/Refusals.h"
#include "session/SessionPorts.h"
#include "session/SizeRefusals.h"
#include "wire/RecordCodec.h"

namespace kel {

enum class PublicationState : std::uint8_t {
  unclaimed,  ///< no link, or the group is not known yet
  claiming,   ///< asked for the name; the own echo is not back
  owner,      ///< publishes
  waiting,    ///< another live publisher has the name, or this publisher's own name
};
[[nodiscard]] const char* stateName(PublicationState state);

struct OutgoingRecord {
  std::size_t bytes = 0;
  bool droppable = true;  ///< always; lanes want to know
  bool counted = true;    ///< false for the last record that goes out again
  std::int64_t sequence = 0;
  std::shared_ptr<const std::string> payload;
  std::size_t fieldsBegin = 0;  ///< of the fields in it
  std::size_t fieldsEnd = 0;
};

/// Whose the last record of a publication is.
enum class LastRecord : std::uint8_t {
  application,
  badInItsPlace,     ///< ours, because the broker takes none of that size; with the fields taken last
  badWithoutFields,  ///< ours, because that one was too large as well
};

struct OutboxName;

/// The numbers and counters of one publication; it outlives the publication for a while, so that one that is
/// made again counts on.
struct SendBook {
  std::string publication;  ///< coded
  KelSent row;
  std::shared_ptr<SendBook> into;  ///< everything of this one is counted there
};

/// One publication: the application's handle, the dispatcher's target and the owner of a lane of records.
class PublicationHandle final : public KelPublication,
                                public std::enable_shared_from_this<PublicationHandle> {
 public:
  class Sender {
   public:
    virtual ~Sender() = default;
    virtual void send(PublicationHandle& handle, const KelData& data, const KelTimestamp& time) = 0;
    virtual void declareBad(PublicationHandle& handle, const char* reason) = 0;
  };
  PublicationHandle(std::string publication, KelPublicationErrorHandler* handler, Sender& sender);

  [[nodiscard]] const char* getTopicName() const override { return publication_.c_str(); }
  void send(const KelData& data, const KelTimestamp& timestamp) override {
    sender_.send(*this, data, timestamp);
  }
  void declareBad(const char* reason) override { sender_.declareBad(*this, reason); }

  [[nodiscard]] const std::string& publication() const { return publication_; }
  [[nodiscard]] const std::shared_ptr<Target>& target() const { return target_; }

  // Under the session's lock.
  OutboxName* name = nullptr;  ///< null for an impossible name
  Lane<OutgoingRecord> lane;
  std::shared_ptr<SendBook> book;           ///< null for an impossible name
  std::shared_ptr<const std::string> last;  ///< the last payload, sent or not
  std::int64_t lastSequence = 0;            ///< its number
  std::size_t fieldsBegin = 0;              ///< of the last sent fields in it
  std::size_t fieldsEnd = 0;
  bool everSent = false;  ///< send() was called, not only declareBad()
  bool good = false;      ///< send() was called last
  LastRecord lastOf = LastRecord::application;
  std::optional<OutgoingRecord> taken;  ///< the last record with fields that the broker has acknowledged
  std::string sizeReason;               ///< of the last record, when it is ours

 private:
  const std::string publication_;
  Sender& sender_;
  std::shared_ptr<Target> target_;
};

class Outbox {
 public:
  /// For how long all publications have to be bad before others may have their names.
  static constexpr std::chrono::seconds badPatience{2};

  Outbox(SessionPorts& ports, std::size_t mostRecords, std::size_t mostBytes);
  ~Outbox();
  Outbox(const Outbox&) = delete;
  Outbox& operator=(const Outbox&) = delete;

  void add(const std::shared_ptr<PublicationHandle>& handle);
  void remove(PublicationHandle& handle);
  /// Takes a record that is complete but for its count.
  void send(PublicationHandle& handle, EncodedRecord record, bool isGood);
  /// The header of a bad declaration made now.
  [[nodiscard]] EncodedRecord badRecord(PublicationHandle& handle, std::string_view reason) const;

  /// Everybody in the group is known; these others came earlier under this publisher's name.
  void groupKnown(const std::vector<std::string>& earlierUnderName);
  void linkDown();
  /// While it is on, no record leaves, neither new nor old: one that overtook those that wait would make them
  /// repetitions. Names are claimed, and publications closed, all the same.
  void hold(bool on);
  [[nodiscard]] bool held() const { return held_; }
  void claimMessage(std::string_view publication, std::string_view payload, bool retained);
  /// The broker has answered the subscription to this topic; `failure` is empty or says why not.
  void subscribed(std::string_view topic, std::string_view failure);
  void peerAlive(std::string_view peer);
  void peerGone(std::string_view peer);
  void tick();
  /// This process was not running for so long.
  void forgive(std::chrono::nanoseconds pause);

  // GiveWay.cpp
  /// Of how many publications the application's last word is a good record, whoever may publish them.
  [[nodiscard]] std::int64_t publishing() const;
  /// Whether names are kept here from others of this publisher's name for nothing: what was sent has been
  /// bad, all of it, for longer than badPatience.
  [[nodiscard]] bool keepsNamesForNothing() const;
  /// Gives every name up, as if these others had come earlier under this publisher's name.
  void giveWay(const std::vector<std::string>& earlierUnderName);
  void published(std::uint64_t token, std::string_view failure);
  void oversize(std::uint64_t token, const Oversize& what);

  [[nodiscard]] bool idle() const { return total_.outgoingPending == 0; }
  [[nodiscard]] KelCounters total() const { return total_; }
  void addCounters(std::string_view publication, KelCounters& counters) const;
  /// Every book as a row, by publication.
  [[nodiscard]] std::vector<KelSent> ledger() const;

 private:
  using Name = OutboxName;
  struct InFlight {
    std::shared_ptr<PublicationHandle> handle;
    OutgoingRecord record;
    bool done = false;
  };
  void count(SendBook& book, std::int64_t KelCounters::*counter, std::int64_t number = 1);
  void superseded(SendBook& book, const OutgoingRecord& record);
  void removeName(Name& name);
  std::shared_ptr<SendBook> openBook(const std::string& publication, const std::string& coded);
  void closeBook(const std::shared_ptr<SendBook>& book);

  void claim(Name& name, std::string_view cause);
  void publishClaim(Name& name, bool owner);
  void decide(Name& name);
  void becomeOwner(Name& name);
  void lose(Name& name, std::string_view winner, bool confirmed, std::string_view cause);
  bool setWaiting(Name& name, std::string_view winner, bool confirmed, std::string_view cause);
  void otherClaim(Name& name, const ClaimPayload& claim);
  void tellLoss(Name& name);
  void tell(const PublicationHandle& handle, const std::string& text);
  void activate(Name& name, bool resendLast);
  void publishClosed(Name& name);
  std::uint64_t publishControl(const std::string& topic, std::string payload);
  /// Whose claim it was that the broker has answered; null when it is nobody's any more.
  Name* claimed(std::uint64_t token);
  void claimPublished(std::uint64_t token, std::string_view failure);
  static std::string refusedClaim(const Name& name, std::string_view failure);
  /// `right` is the one that may be missing; empty when it is none.
  void claimRefused(Name& name, const std::string& text, std::string right);
  void askAgain();
  void pump();
  void enqueue(PublicationHandle& handle, EncodedRecord record, LastRecord lastOf);
  void settled(SendBook& book, const OutgoingRecord& record, bool taken);
  void forgetDone();

  // OutboxSize.cpp
  void tooLarge(PublicationHandle& handle, std::int64_t sequence, const Oversize& what);
  void declareTooLarge(PublicationHandle& handle, const Oversize& what);
  void takenByBroker(PublicationHandle& handle, const OutgoingRecord& record);
  [[nodiscard]] bool endsLinks(const OutgoingRecord& record) const;
  void refuseQueued(PublicationHandle& handle, const OutgoingRecord& record);
  InFlight* convictedOfLostLinks();

  // GiveWay.cpp
  void watchQuality();

  SessionPorts& ports_;
  bool online_ = false;  ///< the group is known
  bool held_ = false;
  std::set<std::string, std::less<>> earlierUnderName_;
  TextMap<std::unique_ptr<Name>> names_;          ///< by coded name
  std::deque<std::shared_ptr<SendBook>> closed_;  ///< of names that went, the newest last
  std::shared_ptr<SendBook> forgotten_ = std::make_shared<SendBook>();  ///< the sum of all before those
  FairQueue<OutgoingRecord, PublicationHandle> queue_;
  std::deque<InFlight> inFlight_;
  std::uint64_t firstInFlight_ = 1;  ///< token of the front
  std::uint64_t nextControl_ = 1;
  std::int64_t nextAttempt_ = 1;
  std::unordered_map<std::uint64_t, std::string> claimTokens_;  ///< coded names of claims under way
  Refusals claimRefusals_{"the broker grants the claims that it refused", ports_.grants};
  Refusals recordRefusals_{"the broker takes the records that it refused", ports_.grants};
  SizeRefusals sizeRefusals_;
  /// The largest record under way when the link was lost, and how often in a row it was.
  std::string suspect_;  ///< coded name
  std::int64_t suspectSequence_ = 0;
  int suspectLosses_ = 0;
  /// Records of this size have ended a link, and are not tried again before then.
  std::size_t endsLinks_ = std::numeric_limits<std::size_t>::max();
  PeerTable::Time endsLinksUntil_;
  std::optional<PeerTable::Time> badSince_;  ///< that all publications are
  KelCounters total_;
};

/// Tokens of messages that are not records have this bit.
inline constexpr std::uint64_t controlToken = std::uint64_t{1} << 63U;

}  // namespace kel
