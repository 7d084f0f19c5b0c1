// What a session tells about itself: counters and ledger, presence, and answers to probes.

#include <unistd.h>

#include <algorithm>

#include "session/LedgerPayload.h"
#include "session/Session.h"
#include "session/SessionTokens.h"

namespace kel {

KelCounters Session::countersLocked() const {
  KelCounters counters = inbox_.total();
  const KelCounters sending = outbox_.total();
  counters.sends = sending.sends;
  counters.acknowledged = sending.acknowledged;
  counters.refused = sending.refused;
  counters.outgoingSuperseded = sending.outgoingSuperseded;
  counters.outgoingPending = sending.outgoingPending;
  const HandOffTally handOff = dispatcher_.total();
  counters.delivered += handOff.delivered;
  counters.superseded += handOff.superseded;
  counters.discarded += handOff.discarded;
  counters.pending += handOff.pending;
  counters.listenerExceptions = handOff.exceptions;
  counters.reconnects = reconnects_;
  return counters;
}

KelLedger Session::ledgerLocked() const {
  return {ports_.self.name, ports_.self.incarnation, inbox_.ledger(), outbox_.ledger()};
}

KelLedger Session::ledger() const {
  const MutexLock lock(mutex_);
  return ledgerLocked();
}

KelCounters Session::counters() const {
  const MutexLock lock(mutex_);
  return countersLocked();
}

KelCounters Session::counters(const char* publication) const {
  KelCounters counters;
  if (publication == nullptr) return counters;
  const MutexLock lock(mutex_);
  inbox_.addCounters(publication, counters);
  outbox_.addCounters(publication, counters);
  return counters;
}

bool Session::publishPresence(bool alive) {
  if (!alive) return sendPresence({}, {}, withdrawalToken);
  PresencePayload presence;
  presence.publisher = ports_.self;
  presence.host = host_;
  presence.process = getpid();
  presence.startedNanoseconds = startedNanoseconds_;
  presence.keepAlive = presenceKeepAlive();
  presence.counters = countersLocked();
  presence.subscribing = static_cast<std::int64_t>(inbox_.subscribing());
  presence.subscriptions = static_cast<std::int64_t>(inbox_.subscriptions());
  saidSubscribing_ = presence.subscribing != 0;
  saidSubscriptions_ = presence.subscriptions != 0;
  presence.publishing = outbox_.publishing();
  presence.gaveWay = gaveWay_;
  presenceSent_ = ports_.now;
  presenceDue_ = false;
  return sendPresence(encodePresence(presence, ports_.wallClockNanoseconds() / 1'000'000),
                      static_cast<std::uint32_t>(2 * presenceKeepAlive().count()), presenceToken);
}

bool Session::sendPresence(std::string payload, std::optional<std::uint32_t> expirySeconds,
                           std::uint64_t token) {
  OutgoingMessage message;
  message.topic = ports_.topics.publisher(codedName_, ports_.self.incarnation);
  message.payload = std::make_shared<const std::string>(std::move(payload));
  message.expirySeconds = expirySeconds;
  return transport_->publish(message, token);
}

void Session::sayWhenSubscribed() {
  // Others may be waiting for this member before they publish, or will have to one day.
  const bool linked = link_ == LinkState::syncing || link_ == LinkState::synced;
  if (!linked || inbox_.subscribing() != 0) return;
  if (saidSubscribing_ || (!saidSubscriptions_ && inbox_.subscriptions() != 0)) publishPresence(true);
}

void Session::waitForOthers() {
  const std::vector<std::string> missing = reunion_.tick(ports_.now);
  if (!missing.empty() && !outbox_.idle()) {
    log(LogLevel::info, std::to_string(missing.size()) +
                            " of those who were there before the link was lost, as " + missing.front() +
                            ", have not come back in " + std::to_string(Reunion::limit.count()) +
                            " s; records go out without them");
  }
  sendAgain();
}

void Session::sendAgain() {
  if (!outbox_.held() || reunion_.waiting()) return;
  // Who has just come back may only know what the broker had kept of this publisher, and as long as it does
  // not know it alive it holds the newest record of each publication and no other.
  if (!publications_.empty()) publishPresence(true);
  outbox_.hold(false);
}

void Session::probed(std::string_view payload) {
  if (payload.ends_with(ledgerWanted)) {
    ledgerDue_ = true;
    payload.remove_suffix(ledgerWanted.size());
  }
  if (payload != ports_.self.text()) presenceDue_ = true;
  answerProbes();
}

void Session::answerProbes() {
  if (presenceDue_ && presenceAnswers_.may(ports_.now) && ports_.now - presenceSent_ >= presencePause) {
    presenceAnswers_.use(ports_.now);
    publishPresence(true);
  }
  if (ledgerDue_ && ledgerPauses_.may(ports_.now)) {
    ledgerPauses_.use(ports_.now);
    publishLedger();
  }
}

std::chrono::seconds Session::presenceKeepAlive() const {
  return std::min(transport_->keepAlive(), PeerTable::longestKeepAlive);
}

void Session::publishLedger() {
  ledgerDue_ = false;
  OutgoingMessage message;
  message.topic = ports_.topics.ledger(codedName_, ports_.self.incarnation);
  message.retain = false;
  for (std::string& piece :
       encodeLedger(ledgerLocked(), ++ledgerAnswers_, ports_.wallClockNanoseconds() / 1'000'000)) {
    message.payload = std::make_shared<const std::string>(std::move(piece));
    transport_->publish(message, ledgerToken);
  }
}

void Session::publishProbe() {
  OutgoingMessage message;
  message.topic = ports_.topics.probe();
  message.payload = std::make_shared<const std::string>(ports_.self.text());
  message.retain = false;
  probes_.use(ports_.now);
  probeDue_ = false;
  transport_->publish(message, probeToken);
}

}  // namespace kel
