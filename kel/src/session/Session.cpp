#include "session/Session.h"

#include <unistd.h>

#include <algorithm>
#include <array>
#include <utility>

#include "data/RecordAccess.h"
#include "session/SessionTokens.h"
#include "session/Transition.h"
#include "transport/MakeTransport.h"
#include "wire/RecordCodec.h"

namespace kel {
namespace {

using std::chrono::milliseconds;

constexpr milliseconds longestTick{500};
constexpr std::chrono::seconds withdrawalLimit{1};
constexpr std::string_view receivedOrPublished = "received or published";

std::string hostName() {
  std::array<char, 256> name{};
  if (gethostname(name.data(), name.size() - 1) != 0) return "unknown";
  return name.data();
}

std::string groupTrouble(std::string_view what, std::string_view failure, std::string_view lost) {
  return "the broker " + std::string(what) + (failure.empty() ? "" : ": " + std::string(failure)) +
         "; without it nothing can be " + std::string(lost);
}

std::string codedOrEmpty(const std::string& name) {
  std::string error;
  return encodeTopicName(name, error).value_or("");
}

}  // namespace

const char* stateName(LinkState state) {
  switch (state) {
    case LinkState::down:
      return "down";
    case LinkState::connecting:
      return "connecting";
    case LinkState::syncing:
      return "syncing";
    case LinkState::synced:
      return "synced";
  }
  return "?";
}

Session::Session(std::string publisherName, std::string incarnation, const KelUrl& url,
                 const KelOptions& options, std::unique_ptr<KelTransport> transport)
    : address_(url.describe()),
      codedName_(codedOrEmpty(publisherName)),
      host_(hostName()),
      recordBytes_(url.recordBytes),
      startedNanoseconds_(options.wallClockNanoseconds()),
      transport_(std::move(transport)),
      dispatcher_(options.handOffRecords, options.handOffBytes),
      subscribes_(*transport_),
      ports_{*transport_,
             dispatcher_,
             peers_,
             subscribes_,
             TopicSpace(url.group),
             PublisherId{std::move(publisherName), std::move(incarnation)},
             url.qos,
             options.wallClockNanoseconds,
             {},
             0},
      inbox_(ports_, options.rememberedBytes),
      outbox_(ports_, options.outgoingRecords, options.outgoingBytes) {
  {
    const MutexLock lock(mutex_);
    transition(link_, LinkState::connecting, "link", "created");
  }
  TransportIdentity identity;
  // Everybody in the group reads the incarnation, and who has a client identifier can take the link from its
  // owner.
  identity.clientId = codedName_.substr(0, 100) + "-" + ports_.self.incarnation + "-" + randomIncarnation();
  identity.will.topic = ports_.topics.publisher(codedName_, ports_.self.incarnation);
  identity.will.payload = std::make_shared<const std::string>();
  transport_->start(*this, identity);
}

Session::~Session() {
  close();
}

void Session::close() {
  bool clean = false;
  {
    const MutexLock lock(mutex_);
    closing_ = true;
    if (link_ == LinkState::syncing || link_ == LinkState::synced) {
      const auto limit = std::chrono::steady_clock::now() + withdrawalLimit;
      clean = publishPresence(false);
      ++flushing_;
      while (clean && !withdrawn_ && flushed_.waitUntil(mutex_, limit)) {
      }
      --flushing_;
      clean = clean && withdrawn_;
    }
  }
  // What could not be withdrawn in words is withdrawn by the will.
  transport_->stop(clean);
  dispatcher_.stop();
  const MutexLock lock(mutex_);
  transition(link_, LinkState::down, "link", "closed");
}

// ---- The application's side
// ------------------------------------------------------------------------------------

KelSubscription* Session::createSubscription(const char* publication, KelSubscriptionListener* listener) {
  const std::string name = publication == nullptr ? "" : publication;
  auto handle =
      std::make_shared<SubscriptionHandle>(name, listener, [this](SubscriptionHandle& subscription) {
        const MutexLock lock(mutex_);
        inbox_.resend(subscription);
      });
  const MutexLock lock(mutex_);
  subscriptions_.emplace(handle.get(), handle);
  inbox_.add(handle);
  return handle.get();
}

void Session::releaseSubscription(KelSubscription* subscription) {
  std::shared_ptr<SubscriptionHandle> handle;
  {
    const MutexLock lock(mutex_);
    const auto at = subscriptions_.find(subscription);
    if (at == subscriptions_.end()) return;
    handle = std::move(at->second);
    subscriptions_.erase(at);
    inbox_.remove(*handle);
    sayWhenSubscribed();
  }
  dispatcher_.cancel(*handle);
}

KelPublication* Session::createPublication(const char* publication, KelPublicationErrorHandler* handler) {
  const std::string name = publication == nullptr ? "" : publication;
  PublicationHandle::Sender& sender = *this;
  auto handle = std::make_shared<PublicationHandle>(name, handler, sender);
  const MutexLock lock(mutex_);
  publications_.emplace(handle.get(), handle);
  outbox_.add(handle);
  return handle.get();
}

void Session::destroyPublication(KelPublication* publication) {
  std::shared_ptr<PublicationHandle> handle;
  {
    const MutexLock lock(mutex_);
    const auto at = publications_.find(publication);
    if (at == publications_.end()) return;
    handle = std::move(at->second);
    publications_.erase(at);
    outbox_.remove(*handle);
    wakeFlush();
  }
  dispatcher_.cancel(*handle->target());
}

KelData* Session::createData() {
  return new KelData();
}

void Session::send(PublicationHandle& handle, const KelData& data, const KelTimestamp& time) {
  const std::string self = ports_.self.text();
  EncodedRecord encoded = encodeRecord(RecordAccess::record(data), RecordHeader{1, time, self, {}});
  const MutexLock lock(mutex_);
  outbox_.send(handle, std::move(encoded), true);
}

void Session::declareBad(PublicationHandle& handle, const char* reason) {
  const MutexLock lock(mutex_);
  if (handle.name == nullptr) return;
  outbox_.send(handle, outbox_.badRecord(handle, reason == nullptr ? "" : reason), false);
}

bool Session::flush(milliseconds limit) {
  const auto end = std::chrono::steady_clock::now() + limit;
  const MutexLock lock(mutex_);
  ++flushing_;
  while (!outbox_.idle() && flushed_.waitUntil(mutex_, end)) {
  }
  --flushing_;
  return outbox_.idle();
}

void Session::wakeFlush() {
  if (flushing_ > 0) flushed_.notifyAll();
}

// ---- The transport's side
// --------------------------------------------------------------------------------------

void Session::up() {
  const MutexLock lock(mutex_);
  if (closing_) return;
  if (everUp_) ++reconnects_;
  if (!std::exchange(everUp_, true) && !awaited_) log(LogLevel::info, "connected to " + address_);
  transition(link_, LinkState::syncing, "link", "up");
  upSince_ = ports_.now;
  presenceTaken_ = false;
  peers_.clear("link up");
  reunion_.linkUp(ports_.now);
  outbox_.hold(reunion_.waiting());
  subscribes_.linkUp();
  subscribes_.request(ports_.topics.allPublishers(), 1);
  subscribes_.request(ports_.topics.probe(), 1);
  publishPresence(true);
  inbox_.linkUp();
}

void Session::down(std::string_view reason) {
  const MutexLock lock(mutex_);
  if (closing_) return;
  // The transport tells people about outages; here it is only a change of state.
  if (link_ == LinkState::connecting) return;
  subscribes_.linkDown();
  groupRefusals_.linkDown();
  reunion_.linkDown(peers_.subscribersAlive());
  peers_.clear("link down");
  inbox_.linkDown("the link to the broker is lost: " + std::string(reason));
  outbox_.linkDown();
  // Last: who had no memory for all of this is told again.
  transition(link_, LinkState::connecting, "link", reason);
  wakeFlush();
}

void Session::unreachable(std::string_view /*reason*/) {
  const MutexLock lock(mutex_);
  awaited_ = true;
}

void Session::message(std::string_view topic, std::string_view payload, bool retained) {
  if (ports_.topics.isData(topic)) {
    dataMessage(topic, payload, retained);
    return;
  }
  const auto parsed = ports_.topics.parse(topic);
  if (!parsed) return;
  const MutexLock lock(mutex_);
  if (closing_ || (link_ != LinkState::syncing && link_ != LinkState::synced)) return;
  switch (parsed->kind) {
    case TopicKind::publisher:
      presenceMessage(*parsed, payload, retained);
      break;
    case TopicKind::claim:
      claimMessage(*parsed, payload, retained);
      break;
    case TopicKind::probe:
      probed(payload);
      break;
    case TopicKind::data:
    case TopicKind::ledger:
      break;
  }
}

void Session::dataMessage(std::string_view topic, std::string_view payload, bool retained) {
  DecodedRecord decoded;
  if (!payload.empty()) decoded = decodeRecord(payload, recordBytes_);
  if (decoded.record && !decoded.record->hasTime) {
    // Nobody else has it yet, so it may still be completed: who gives no time is taken to speak of now.
    decoded.record->time = KelTimestamp(ports_.wallClockNanoseconds());
  }
  const Arrival arrival{retained, payload.size(), std::hash<std::string_view>()(payload)};
  const MutexLock lock(mutex_);
  if (closing_) return;
  inbox_.message(topic, std::move(decoded.record), decoded.error, arrival);
}

void Session::presenceMessage(const ParsedTopic& topic, std::string_view payload, bool retained) {
  if (topic.incarnation == ports_.self.incarnation) {
    ownPresence(payload.empty(), retained);
    return;
  }
  const std::string peer = topic.name + "/" + topic.incarnation;
  if (payload.empty()) {
    reunion_.withdrawn(peer, peers_.subscribesAlive(peer), ports_.now);
    peerGone(peer, "publisher " + topic.name + " is gone", true);
  } else {
    const PresenceNews news = presenceNews(payload);
    const auto keepAlive =
        std::min(news.keepAlive.value_or(transport_->keepAlive()), PeerTable::longestKeepAlive);
    // A withdrawal that was dropped on its way: two that each wait for the other would wait for ever.
    if (peers_.gaveWayBefore(peer, news.gaveWay))
      peerGone(peer, "publisher " + topic.name + " gives way to another", true);
    peerSeen(peer, peers_.sawPresence(peer, retained, ports_.now, 2 * keepAlive, news.gaveWay));
    if (!retained) {
      peers_.subscribes(peer, news.subscriptions > 0);
      reunion_.seen(peer, news);
      sendAgain();
    }
    if (!retained && topic.name == ports_.self.name && news.publishing > 0) giveWayTo(peer);
  }
}

void Session::ownPresence(bool withdrawn, bool retained) {
  if (withdrawn) {
    // The will of a former link of this very process, late.
    if (!retained) publishPresence(true);
  } else if (!retained && link_ == LinkState::syncing) {
    groupKnown();
  }
}

void Session::groupKnown() {
  groupRefusals_.granted("echo");
  transition(link_, LinkState::synced, "link", "the own presence came back");
  probeDue_ = peers_.anyUnconfirmed();
  if (probeDue_) publishProbe();
  inbox_.groupKnown();
  outbox_.groupKnown(peers_.named(ports_.self.name));
}

void Session::peerSeen(const std::string& peer, PeerTable::Change change) {
  if (!change.changed) return;
  if (change.state == PeerState::alive) {
    inbox_.peerAlive(peer);
    outbox_.peerAlive(peer);
  } else if (link_ == LinkState::synced) {
    wantProbe();
  }
}

void Session::wantProbe() {
  probeDue_ = true;
  if (probes_.may(ports_.now)) publishProbe();
}

void Session::peerGone(const std::string& peer, std::string_view reason, bool withdrawn) {
  const bool known = peers_.remove(peer, reason);
  if (!known && !withdrawn) return;
  inbox_.peerGone(peer, reason, withdrawn);
  if (known) outbox_.peerGone(peer);
}

void Session::claimMessage(const ParsedTopic& topic, std::string_view payload, bool retained) {
  if (!retained && !payload.empty()) {
    // A claim is no sign of life: who may write the name of one publication can put anybody's name into it.
    // Only a presence is, and who lives shows it when asked.
    const auto claim = decodeClaim(payload);
    if (claim && claim->publisher.incarnation != ports_.self.incarnation &&
        !peers_.alive(claim->publisher.text())) {
      wantProbe();
    }
  }
  outbox_.claimMessage(topic.name, payload, retained);
}

void Session::published(std::uint64_t token, std::string_view failure) {
  const MutexLock lock(mutex_);
  if (token == withdrawalToken) {
    withdrawn_ = true;
  } else if (token == presenceToken) {
    const std::string topic = ports_.topics.publisher(codedName_, ports_.self.incarnation);
    if (failure.empty()) {
      presenceTaken_ = true;
      groupRefusals_.granted(topic);
    } else {
      groupRefusals_.refused(topic,
                             groupTrouble("refused the presence of this publisher", failure, "published"),
                             "to write " + topic, ports_.now);
    }
  } else {
    outbox_.published(token, failure);
  }
  wakeFlush();
}

void Session::oversize(std::uint64_t token, const Oversize& what) {
  const MutexLock lock(mutex_);
  if (token == withdrawalToken) {
    withdrawn_ = true;
  } else if (token == presenceToken) {
    groupRefusals_.refused(
        ports_.topics.publisher(codedName_, ports_.self.incarnation),
        tooLargeAsSaid("the presence", " of this publisher", what) + "; without it nothing can be published",
        {}, ports_.now);
  } else {
    outbox_.oversize(token, what);
  }
  wakeFlush();
}

void Session::subscribed(std::uint64_t token, std::string_view failure) {
  const MutexLock lock(mutex_);
  const std::string filter = subscribes_.answered(token);
  if (filter.empty() || closing_) return;
  if (ports_.topics.isData(filter)) {
    inbox_.subscribed(filter, failure);
    sayWhenSubscribed();
  } else if (filter == ports_.topics.allPublishers() || filter == ports_.topics.probe()) {
    if (failure.empty()) {
      groupRefusals_.granted(filter);
    } else {
      groupRefusals_.refused(
          filter, groupTrouble("refused the subscription to " + filter, failure, receivedOrPublished),
          "to read " + filter, ports_.now);
    }
  } else {
    outbox_.subscribed(filter, failure);
  }
}

void Session::noteStall(std::chrono::steady_clock::time_point now) {
  // Who was not running could not hear anybody: it must not take everybody for gone before it has read what
  // waits.
  const auto pause = now - ports_.now;
  if (!std::exchange(ticked_, true)) {
    // What came before the clock's first word came at its first word.
    peers_.forgive(pause);
    inbox_.forgive(pause);
    presenceSent_ += pause;
  } else if (pause > longestTick) {
    peers_.forgive(pause);
    reunion_.forgive(pause);
    inbox_.forgive(pause);
    outbox_.forgive(pause);
    inbox_.stalled();
  }
  ports_.now = now;
}

void Session::tick(std::chrono::steady_clock::time_point now) {
  const MutexLock lock(mutex_);
  noteStall(now);
  if (!closing_) inbox_.tellUntold();
  if (closing_ || (link_ != LinkState::syncing && link_ != LinkState::synced)) return;
  if (now - presenceSent_ >= milliseconds(presenceKeepAlive()) / 2) publishPresence(true);
  answerProbes();
  if (const std::string line = peers_.complaint(now); !line.empty()) log(LogLevel::warn, line);
  for (const std::string& peer : peers_.expire(now)) {
    const auto id = PublisherId::parse(peer);
    const std::string reason = "publisher " + (id ? id->name : peer) + " was not heard of in time";
    inbox_.peerGone(peer, reason, false);
    outbox_.peerGone(peer);
  }
  if (probeDue_ && probes_.may(now)) publishProbe();
  waitForOthers();
  inbox_.tick();
  outbox_.tick();
  askForSuccessor();
  askForGroupAgain();
}

void Session::askForGroupAgain() {
  const auto pause = refusalPause(*transport_);
  if (link_ == LinkState::syncing && presenceTaken_ && ports_.now - upSince_ >= pause) {
    // What is refused in silence: taken, and never given back.
    groupRefusals_.refused("echo",
                           groupTrouble("takes the presence of this publisher and does not give it back", {},
                                        receivedOrPublished),
                           "to read " + ports_.topics.allPublishers(), ports_.now);
  }
  if (groupRefusals_.due(ports_.now, pause).empty()) return;
  subscribes_.request(ports_.topics.allPublishers(), 1);
  subscribes_.request(ports_.topics.probe(), 1);
  publishPresence(true);
}

}  // namespace kel
