#include "kel/KelBrowser.h"

#include <algorithm>
#include <map>
#include <optional>

#include "KelUrl.h"
#include "Sync.h"
#include "data/RecordAccess.h"
#include "session/ControlPayload.h"
#include "session/LedgerPayload.h"
#include "session/SessionTokens.h"
#include "transport/MakeTransport.h"
#include "wire/RecordCodec.h"
#include "wire/Topics.h"

namespace kel {
namespace {

using Clock = std::chrono::steady_clock;

/// How long those who are only known from what the broker kept have to answer the probe: who was asked often
/// lets the next answer wait so long.
constexpr std::chrono::milliseconds answerTime = floodPause + std::chrono::milliseconds(500);
/// How long a look waits for the next piece of somebody's ledger.
constexpr std::chrono::seconds ledgerTime{2};

/// What is seen of one publication before all is put together.
struct Sighting {
  std::optional<DecodedRecord> record;
  std::size_t bytes = 0;
  std::optional<PublisherId> claimant;
};

/// Listens to the whole group for the time of one look.
class GroupListener final : public TransportListener {
 public:
  GroupListener(KelTransport& transport, const TopicSpace& topics, std::string self, bool ledgers)
      : transport_(transport),
        topics_(topics),
        ledgersWanted_(ledgers),
        self_(ledgers ? std::move(self) + std::string(ledgerWanted) : std::move(self)) {}

  /// Waits for the end of the look; empty, or why it did not come about.
  std::string wait(Clock::time_point end) {
    const MutexLock lock(mutex_);
    while (!synced_) {
      if (!refusal_.empty()) return refusal_;
      if (!changed_.waitUntil(mutex_, end)) break;
    }
    if (!synced_) return reason_.empty() ? "the broker did not answer in time" : reason_;
    const auto answered = std::min(end, Clock::now() + answerTime);
    while (anyUnconfirmed() && changed_.waitUntil(mutex_, answered)) {
    }
    lastPiece_ = Clock::now();
    while (anyLedgerDue() && changed_.waitUntil(mutex_, std::min(end, lastPiece_ + ledgerTime))) {
    }
    return {};
  }

  void results(std::vector<KelPublisherInfo>& publishers, std::vector<KelPublicationInfo>& publications,
               std::vector<KelLedger>& ledgers) {
    const MutexLock lock(mutex_);
    publishers.clear();
    publications.clear();
    ledgers.clear();
    for (const auto& [peer, collector] : ledgers_) {
      if (collector.ledger()) ledgers.push_back(*collector.ledger());
    }
    for (const auto& [peer, info] : peers_) publishers.push_back(info);
    for (const auto& [name, sighting] : publications_)
      publications.push_back(publicationInfo(name, sighting));
  }

 private:
  void up() override {
    // With QoS 0: of a whole group at once, a broker drops what is beyond its queue for messages to be
    // acknowledged.
    transport_.subscribe(topics_.allPublishers(), 0, 1);
    transport_.subscribe(topics_.allClaims(), 0, 2);
    transport_.subscribe(topics_.allData(), 0, 3);
    transport_.subscribe(topics_.probe(), 0, 4);
    if (ledgersWanted_) transport_.subscribe(topics_.allLedgers(), 1, 6);
    OutgoingMessage probe;
    probe.topic = topics_.probe();
    probe.payload = std::make_shared<const std::string>(self_);
    probe.retain = false;
    transport_.publish(probe, 5);
  }
  void down(std::string_view reason) override {
    const MutexLock lock(mutex_);
    reason_ = reason;
  }
  void unreachable(std::string_view reason) override { down(reason); }
  void published(std::uint64_t /*token*/, std::string_view failure) override {
    noteRefusal("the probe", failure);
  }
  void subscribed(std::uint64_t /*token*/, std::string_view failure) override {
    noteRefusal("a subscription", failure);
  }
  void tick(Clock::time_point /*now*/) override {}

  void message(std::string_view topic, std::string_view payload, bool retained) override {
    const auto parsed = topics_.parse(topic);
    if (!parsed) return;
    const MutexLock lock(mutex_);
    switch (parsed->kind) {
      case TopicKind::probe:
        if (payload == self_) synced_ = true;
        break;
      case TopicKind::publisher:
        presence(*parsed, payload, retained);
        break;
      case TopicKind::claim:
        claim(*parsed, payload);
        break;
      case TopicKind::data:
        data(*parsed, payload);
        break;
      case TopicKind::ledger:
        ledger(*parsed, payload);
        break;
    }
    changed_.notifyAll();
  }

  void noteRefusal(std::string_view what, std::string_view failure) {
    if (failure.empty()) return;
    const MutexLock lock(mutex_);
    refusal_ = "the broker refused " + std::string(what) + ": " + std::string(failure);
    changed_.notifyAll();
  }

  void presence(const ParsedTopic& topic, std::string_view payload, bool retained) KEL_REQUIRES(mutex_) {
    const std::string peer = topic.name + "/" + topic.incarnation;
    if (payload.empty()) {
      peers_.erase(peer);
      return;
    }
    KelPublisherInfo& info = peers_[peer];
    info.name = topic.name;
    info.incarnation = topic.incarnation;
    if (!retained) info.liveness = KelPublisherInfo::Liveness::alive;
    decodePresence(payload, info);
  }

  void claim(const ParsedTopic& topic, std::string_view payload) KEL_REQUIRES(mutex_) {
    if (payload.empty()) {
      const auto at = publications_.find(topic.name);
      if (at == publications_.end()) return;
      at->second.claimant.reset();
      if (!at->second.record) publications_.erase(at);
    } else if (const auto decoded = decodeClaim(payload)) {
      publications_[topic.name].claimant = decoded->publisher;
    }
  }

  void data(const ParsedTopic& topic, std::string_view payload) KEL_REQUIRES(mutex_) {
    if (payload.empty()) {
      const auto at = publications_.find(topic.name);
      if (at == publications_.end()) return;
      at->second.record.reset();
      if (!at->second.claimant) publications_.erase(at);
      return;
    }
    Sighting& sighting = publications_[topic.name];
    sighting.record = decodeRecord(payload);
    sighting.bytes = payload.size();
  }

  void ledger(const ParsedTopic& topic, std::string_view payload) KEL_REQUIRES(mutex_) {
    auto piece = decodeLedgerPiece(payload);
    // Who speaks for somebody else is not heard.
    if (!piece || piece->publisher != PublisherId{topic.name, topic.incarnation}) return;
    ledgers_[piece->publisher.text()].add(std::move(*piece));
    lastPiece_ = Clock::now();
  }

  [[nodiscard]] bool anyLedgerDue() const KEL_REQUIRES(mutex_) {
    return ledgersWanted_ && std::any_of(peers_.begin(), peers_.end(), [this](const auto& peer) {
             const MutexHeld held(mutex_);
             const auto at = ledgers_.find(peer.first);
             return peer.second.liveness == KelPublisherInfo::Liveness::alive &&
                    (at == ledgers_.end() || !at->second.ledger());
           });
  }

  [[nodiscard]] bool anyUnconfirmed() const KEL_REQUIRES(mutex_) {
    return std::any_of(peers_.begin(), peers_.end(), [](const auto& peer) {
      return peer.second.liveness == KelPublisherInfo::Liveness::unconfirmed;
    });
  }

  [[nodiscard]] KelPublicationInfo::Liveness livenessOf(const std::string& peer) const KEL_REQUIRES(mutex_) {
    const auto at = peers_.find(peer);
    if (at == peers_.end()) return KelPublicationInfo::Liveness::ownerGone;
    return at->second.liveness == KelPublisherInfo::Liveness::alive
               ? KelPublicationInfo::Liveness::alive
               : KelPublicationInfo::Liveness::unconfirmed;
  }

  [[nodiscard]] KelPublicationInfo publicationInfo(const std::string& name, const Sighting& sighting) const
      KEL_REQUIRES(mutex_) {
    KelPublicationInfo info;
    info.name = name;
    info.payloadBytes = sighting.bytes;
    std::optional<PublisherId> owner = sighting.claimant;
    if (sighting.record) {
      info.hasRecord = true;
      info.readable = sighting.record->record != nullptr;
      info.decodeError = sighting.record->error;
      if (info.readable) {
        info.record = RecordAccess::fromRecord(sighting.record->record);
        owner = PublisherId::parse(info.record.getPublisher());
      }
      info.liveness = owner ? livenessOf(owner->text()) : KelPublicationInfo::Liveness::foreign;
    }
    if (owner) {
      info.owner = owner->name;
      info.incarnation = owner->incarnation;
    }
    return info;
  }

  KelTransport& transport_;
  const TopicSpace& topics_;
  const bool ledgersWanted_;
  const std::string self_;  ///< what the probe says
  mutable Mutex mutex_;
  Condition changed_;
  bool synced_ KEL_GUARDED_BY(mutex_) = false;
  std::string reason_ KEL_GUARDED_BY(mutex_);
  std::string refusal_ KEL_GUARDED_BY(mutex_);
  std::map<std::string, KelPublisherInfo> peers_ KEL_GUARDED_BY(mutex_);
  std::map<std::string, Sighting> publications_ KEL_GUARDED_BY(mutex_);
  std::map<std::string, LedgerCollector> ledgers_ KEL_GUARDED_BY(mutex_);
  Clock::time_point lastPiece_ KEL_GUARDED_BY(mutex_);
};

}  // namespace
}  // namespace kel

class KelBrowser::Look {
 public:
  kel::KelUrl url;
  std::string error;
  std::vector<KelPublisherInfo> publishers;
  std::vector<KelPublicationInfo> publications;
  std::vector<KelLedger> ledgers;

  bool take(std::chrono::milliseconds limit, bool withLedgers);
};

KelBrowser::KelBrowser(const std::string& url) : look_(std::make_unique<Look>()) {
  std::string error;
  const auto chosen = kel::chosenUrl(url, error);
  if (!chosen) throw KelException(error);
  look_->url = *chosen;
}

KelBrowser::~KelBrowser() = default;

bool KelBrowser::Look::take(std::chrono::milliseconds limit, bool withLedgers) {
  const auto end = std::chrono::steady_clock::now() + limit;
  error.clear();
  auto transport = kel::makeTransport(url, error);
  if (!transport) return false;
  const kel::TopicSpace topics(url.group);
  const std::string self = "browser-" + kel::randomIncarnation();
  kel::GroupListener listener(*transport, topics, self, withLedgers);
  kel::TransportIdentity identity;
  identity.clientId = self;
  // A will is due; this one clears a topic that never holds anything.
  identity.will.topic = topics.publisher("browser", self);
  identity.will.payload = std::make_shared<const std::string>();
  transport->start(listener, identity);
  error = listener.wait(end);
  transport->stop(true);
  listener.results(publishers, publications, ledgers);
  return error.empty();
}

bool KelBrowser::look(std::chrono::milliseconds limit) {
  return look_->take(limit, false);
}
bool KelBrowser::lookWithLedgers(std::chrono::milliseconds limit) {
  return look_->take(limit, true);
}

const std::string& KelBrowser::error() const {
  return look_->error;
}
const std::vector<KelPublisherInfo>& KelBrowser::publishers() const {
  return look_->publishers;
}
const std::vector<KelPublicationInfo>& KelBrowser::publications() const {
  return look_->publications;
}
const std::vector<KelLedger>& KelBrowser::ledgers() const {
  return look_->ledgers;
}
