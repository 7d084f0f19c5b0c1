// Session: what a KelFactory is inside.
//
// One mutex guards all state. Inputs come from the transport's thread, from the application's calls and from
// the transport's ticks; outputs are calls into the transport, which never block, and events for the
// dispatcher. Lock order: the session's mutex, then the dispatcher's or the transport's own. No callback into
// the application is made under any of them.
#pragma once

#include <memory>
#include <string>
#include <string_view>

#include "KelUrl.h"
#include "Sync.h"
#include "kel/Kel.h"
#include "session/AnswerLimit.h"
#include "session/Dispatcher.h"
#include "session/Inbox.h"
#include "session/Outbox.h"
#include "session/PeerTable.h"
#include "session/Reunion.h"
#include "session/SessionPorts.h"
#include "session/SessionTokens.h"
#include "session/SubscribeWindow.h"
#include "transport/KelTransport.h"

namespace kel {

enum class LinkState : std::uint8_t {
  down,        ///< not started, or ended
  connecting,  ///< the transport is trying
  syncing,     ///< linked; everybody's kept presence is on its way
  synced,      ///< the own presence has come back, so all others have been seen
};
[[nodiscard]] const char* stateName(LinkState state);

class Session final : public KelFactory, private TransportListener, private PublicationHandle::Sender {
 public:
  /// `publisherName` is not empty; `transport` is not started yet.
  Session(std::string publisherName, std::string incarnation, const KelUrl& url, const KelOptions& options,
          std::unique_ptr<KelTransport> transport);
  ~Session() override;
  Session(const Session&) = delete;
  Session& operator=(const Session&) = delete;

  KelSubscription* createSubscription(const char* publication, KelSubscriptionListener* listener) override;
  void releaseSubscription(KelSubscription* subscription) override;
  KelPublication* createPublication(const char* publication, KelPublicationErrorHandler* handler) override;
  void destroyPublication(KelPublication* publication) override;
  KelData* createData() override;
  bool flush(std::chrono::milliseconds limit) override;
  [[nodiscard]] KelCounters counters() const override;
  [[nodiscard]] KelCounters counters(const char* publication) const override;
  [[nodiscard]] KelLedger ledger() const override;
  [[nodiscard]] const char* incarnation() const override { return ports_.self.incarnation.c_str(); }

 private:
  // TransportListener, on the transport's thread.
  void up() override;
  void down(std::string_view reason) override;
  void unreachable(std::string_view reason) override;
  void message(std::string_view topic, std::string_view payload, bool retained) override;
  void published(std::uint64_t token, std::string_view failure) override;
  void oversize(std::uint64_t token, const Oversize& what) override;
  void subscribed(std::uint64_t token, std::string_view failure) override;
  void tick(std::chrono::steady_clock::time_point now) override;

  // PublicationHandle::Sender, on any thread of the application.
  void send(PublicationHandle& handle, const KelData& data, const KelTimestamp& time) override;
  void declareBad(PublicationHandle& handle, const char* reason) override;

  void dataMessage(std::string_view topic, std::string_view payload, bool retained);
  void presenceMessage(const ParsedTopic& topic, std::string_view payload, bool retained)
      KEL_REQUIRES(mutex_);
  void ownPresence(bool withdrawn, bool retained) KEL_REQUIRES(mutex_);
  void claimMessage(const ParsedTopic& topic, std::string_view payload, bool retained) KEL_REQUIRES(mutex_);
  void peerSeen(const std::string& peer, PeerTable::Change change) KEL_REQUIRES(mutex_);
  void peerGone(const std::string& peer, std::string_view reason, bool withdrawn) KEL_REQUIRES(mutex_);
  void groupKnown() KEL_REQUIRES(mutex_);
  bool publishPresence(bool alive) KEL_REQUIRES(mutex_);
  bool sendPresence(std::string payload, std::optional<std::uint32_t> expirySeconds, std::uint64_t token)
      KEL_REQUIRES(mutex_);
  void giveWayTo(const std::string& peer) KEL_REQUIRES(mutex_);
  void askForSuccessor() KEL_REQUIRES(mutex_);
  void publishProbe() KEL_REQUIRES(mutex_);
  void wantProbe() KEL_REQUIRES(mutex_);
  void probed(std::string_view payload) KEL_REQUIRES(mutex_);
  void answerProbes() KEL_REQUIRES(mutex_);
  void sayWhenSubscribed() KEL_REQUIRES(mutex_);
  void waitForOthers() KEL_REQUIRES(mutex_);
  void sendAgain() KEL_REQUIRES(mutex_);
  [[nodiscard]] std::chrono::seconds presenceKeepAlive() const;
  void publishLedger() KEL_REQUIRES(mutex_);
  [[nodiscard]] KelLedger ledgerLocked() const KEL_REQUIRES(mutex_);
  void askForGroupAgain() KEL_REQUIRES(mutex_);
  void noteStall(std::chrono::steady_clock::time_point now) KEL_REQUIRES(mutex_);
  void wakeFlush() KEL_REQUIRES(mutex_);
  [[nodiscard]] KelCounters countersLocked() const KEL_REQUIRES(mutex_);
  void close();

  const std::string address_;  ///< for people
  const std::string codedName_;
  const std::string host_;
  const std::size_t recordBytes_;
  const std::int64_t startedNanoseconds_;
  const std::unique_ptr<KelTransport> transport_;
  Dispatcher dispatcher_;

  mutable Mutex mutex_;
  Condition flushed_;
  PeerTable peers_ KEL_GUARDED_BY(mutex_);
  Reunion reunion_ KEL_GUARDED_BY(mutex_);
  SubscribeWindow subscribes_ KEL_GUARDED_BY(mutex_);
  SessionPorts ports_;  ///< `now` and `grants` under the mutex, the rest fixed
  Inbox inbox_ KEL_GUARDED_BY(mutex_);
  Outbox outbox_ KEL_GUARDED_BY(mutex_);

  LinkState link_ KEL_GUARDED_BY(mutex_) = LinkState::down;
  bool everUp_ KEL_GUARDED_BY(mutex_) = false;
  bool awaited_ KEL_GUARDED_BY(mutex_) =
      false;  ///< an attempt failed: the transport will tell when one succeeds
  bool closing_ KEL_GUARDED_BY(mutex_) = false;
  bool withdrawn_ KEL_GUARDED_BY(mutex_) = false;  ///< the broker has taken the withdrawal of the presence
  int flushing_ KEL_GUARDED_BY(mutex_) = 0;
  std::int64_t reconnects_ KEL_GUARDED_BY(mutex_) = 0;
  bool ticked_ KEL_GUARDED_BY(mutex_) = false;
  std::chrono::steady_clock::time_point presenceSent_ KEL_GUARDED_BY(mutex_);
  AnswerLimit probes_ KEL_GUARDED_BY(mutex_){answersAtOnce, probePause, floodPause};
  AnswerLimit presenceAnswers_ KEL_GUARDED_BY(mutex_){answersAtOnce, presencePause, floodPause};
  bool presenceTaken_ KEL_GUARDED_BY(mutex_) = false;  ///< by the broker, since the link is up
  std::chrono::steady_clock::time_point upSince_ KEL_GUARDED_BY(mutex_);
  Refusals groupRefusals_ KEL_GUARDED_BY(mutex_){"the broker lets this process take part in its group",
                                                 ports_.grants};
  bool presenceDue_ KEL_GUARDED_BY(mutex_) = false;
  bool saidSubscriptions_ KEL_GUARDED_BY(mutex_) = false;  ///< the last presence did not say 0
  bool saidSubscribing_ KEL_GUARDED_BY(mutex_) = false;    ///< likewise
  bool probeDue_ KEL_GUARDED_BY(mutex_) = false;
  std::int64_t gaveWay_ KEL_GUARDED_BY(mutex_) = 0;  ///< times
  bool successorSought_ KEL_GUARDED_BY(mutex_) =
      false;  ///< a probe went out for one that publishes good records
  bool ledgerDue_ KEL_GUARDED_BY(mutex_) = false;
  AnswerLimit ledgerPauses_ KEL_GUARDED_BY(mutex_){answersAtOnce, ledgerPause, floodPause};
  std::int64_t ledgerAnswers_ KEL_GUARDED_BY(mutex_) = 0;
  /// Handles live here from create to release; the key is what the application holds.
  std::unordered_map<KelSubscription*, std::shared_ptr<SubscriptionHandle>> subscriptions_
      KEL_GUARDED_BY(mutex_);
  std::unordered_map<KelPublication*, std::shared_ptr<PublicationHandle>> publications_
      KEL_GUARDED_BY(mutex_);
};

}  // namespace kel
