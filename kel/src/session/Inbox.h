// Inbox: the subscribing side of a session.
//
// Keeps one entry per subscribed topic, however many subscriptions it has, and decides what of the arriving
// messages becomes a callback:
//   - a record counts from the moment that its publisher's process run is known to be alive; until then the
//     newest one is held;
//   - `connected` comes before the record that it announces, `disconnected` when the publication is
//     closed, its publisher is gone, it has no value, or the own link is lost;
//   - what arrives twice is dropped, by the publisher's own count;
//   - who is not connected is told so once, when it is certain and the application had time to get ready.
// Not thread-safe: under the session's lock. Callbacks go through the dispatcher.
#pragma once

#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "kel/KelCounters.h"
#include "kel/KelFactory.h"
#include "session/FirstWord.h"
#include "session/ReceiveBook.h"
#include "session/Refetch.h"
#include "session/Refusals.h"
#include "session/SessionPorts.h"

namespace kel {

enum class SubscriptionState : std::uint8_t { waiting, connected, connectedForeign };
[[nodiscard]] const char* stateName(SubscriptionState state);

struct InboxTopic;
class RecordShelf;

/// How a message came.
struct Arrival {
  bool kept = false;  ///< the broker had it, and gives it for having been asked
  std::size_t bytes = 0;
  std::size_t hash = 0;  ///< of the payload
};

/// One subscription: the application's handle and the dispatcher's target.
class SubscriptionHandle final : public KelSubscription,
                                 public Target,
                                 public std::enable_shared_from_this<SubscriptionHandle> {
 public:
  using Resend = std::function<void(SubscriptionHandle&)>;
  SubscriptionHandle(std::string name, KelSubscriptionListener* listener, Resend resend)
      : name_(std::move(name)), listener_(listener), resend_(std::move(resend)) {}

  void requestResend() override { resend_(*this); }
  [[nodiscard]] const char* getTopicName() const override { return name_.c_str(); }
  void deliver(const Event& event) override;

  [[nodiscard]] const std::string& name() const { return name_; }
  // Under the session's lock.
  InboxTopic* topic = nullptr;  ///< null for an impossible name
  bool wantsLast = false;       ///< asked for the last record when it had been given up
  bool untold = false;          ///< neither connected nor disconnected was told so far
  PeerTable::Time created;

 private:
  const std::string name_;
  KelSubscriptionListener* const listener_;
  const Resend resend_;
};

class Inbox {
 public:
  Inbox(SessionPorts& ports, std::size_t rememberedBytes);
  ~Inbox();
  Inbox(const Inbox&) = delete;
  Inbox& operator=(const Inbox&) = delete;

  void add(const std::shared_ptr<SubscriptionHandle>& handle);
  void remove(SubscriptionHandle& handle);
  void resend(SubscriptionHandle& handle);

  void linkUp();
  /// Everybody's kept presence has been seen.
  void groupKnown() { groupSince_ = ports_.now; }
  void linkDown(std::string_view reason);
  /// This process was not running for so long, and what came meanwhile has not been read.
  void forgive(std::chrono::nanoseconds pause);
  /// The broker may have dropped what this process did not read in time.
  void stalled() { refetch_.stalled(); }
  /// On every tick, up or down: tells who is not connected and was told nothing so far.
  void tellUntold();
  /// `error` is empty or says why the payload is not a record. A null record without error: the topic is
  /// closed.
  void message(std::string_view topic, std::shared_ptr<Record> record, const std::string& error,
               const Arrival& arrival);
  /// The broker has answered the subscription; `failure` is empty or says why it refused.
  void subscribed(std::string_view topic, std::string_view failure);
  void tick();
  void peerAlive(std::string_view peer);
  /// `withdrawn`: it said so itself, or the broker for it; otherwise it was only not heard of in time.
  void peerGone(std::string_view peer, std::string_view reason, bool withdrawn);

  /// Different publications subscribed to.
  [[nodiscard]] std::size_t subscriptions() const { return topics_.size(); }
  /// How many of them the broker has not answered yet since the link came up; all while it is down.
  [[nodiscard]] std::size_t subscribing() const { return subscribing_; }
  [[nodiscard]] KelCounters total() const;
  /// Adds the receiving counters of one publication.
  void addCounters(std::string_view publication, KelCounters& counters) const;
  /// Every book as a row, by publication.
  [[nodiscard]] std::vector<KelReceived> ledger() const;

 private:
  using Topic = InboxTopic;
  void count(RunBook& book, std::int64_t KelCounters::*counter, std::int64_t number = 1);
  void arrived(Topic& topic, std::shared_ptr<Record> record);
  void hold(Topic& topic, RunBook& book, std::shared_ptr<Record> record);
  void endHeld(Topic& topic, std::int64_t KelCounters::*counter);
  void take(Topic& topic, RunBook& book, const std::shared_ptr<Record>& record);
  void closed(Topic& topic);
  void shelve(Topic& topic);
  void forgetLast(Topic& topic);
  void giveAgain(Topic& topic, std::shared_ptr<Record> record);
  void disconnect(Topic& topic, std::string_view reason);
  void complain(Topic& topic, const std::string& error);
  [[nodiscard]] bool saysNothingNew(Topic& topic, const std::shared_ptr<Record>& record,
                                    const Arrival& arrival);
  [[nodiscard]] bool refutes(Topic& topic, RunBook& book, const Record& record);
  void fetchAgain();
  void fetchSoon(Topic& topic);
  void owe(const std::shared_ptr<SubscriptionHandle>& handle);
  void settle(SubscriptionHandle& handle);
  void tellConnected(const std::shared_ptr<SubscriptionHandle>& handle);
  [[nodiscard]] bool certainlyWaiting(const Topic& topic, const SubscriptionHandle& handle) const;
  [[nodiscard]] std::string whyWaiting(const Topic& topic) const;

  SessionPorts& ports_;
  TextMap<std::unique_ptr<Topic>> topics_;
  Refusals refusals_{"the broker grants the subscriptions that it refused", ports_.grants};
  Refetch refetch_;
  std::unique_ptr<RecordShelf> shelf_;
  std::optional<PeerTable::Time> upSince_;
  std::optional<PeerTable::Time> groupSince_;
  FirstWord firstWord_;
  std::size_t subscribing_ = 0;
  std::size_t untold_ = 0;  ///< subscriptions that were told nothing so far
  std::vector<std::shared_ptr<SubscriptionHandle>> impossible_;  ///< of these, those with impossible names
  RunBook released_;   ///< the sum of what is not subscribed any more
  KelCounters total_;  ///< but for the gaps
  __extension__ using Wide = __int128;
  Wide gaps_ = 0;  ///< numbers are others' to give, and leaps are taken back: nothing may be cut off
};

}  // namespace kel
