#include "session/Inbox.h"

#include <algorithm>
#include <utility>

#include "data/RecordAccess.h"
#include "session/Transition.h"

namespace kel {
namespace {

constexpr std::size_t rememberedRuns = 4;
constexpr std::chrono::minutes complaintPause{1};
// Brokers there are that take every subscription and withhold what may not be read. When the right is granted
// later, what was kept does not come by itself.
constexpr std::chrono::minutes silencePause{1};

}  // namespace

/// One subscribed topic.
struct InboxTopic {
  std::string publication;
  std::string topic;
  SubscriptionState state = SubscriptionState::waiting;
  std::string publisher;  ///< who it is connected through; stays when disconnected
  bool silent = true;     ///< nothing has come since the link is up
  bool unheard = false;   ///< disconnected because `publisher` was not heard of in time
  std::shared_ptr<Record> last;
  std::shared_ptr<Record> held;
  /// The last count seen of each process run, the latest first.
  std::vector<std::pair<std::string, std::int64_t>> sequences;
  std::vector<std::shared_ptr<SubscriptionHandle>> subscriptions;
  std::shared_ptr<HandOffTally> tally = std::make_shared<HandOffTally>();
  KelCounters counters;
  std::optional<PeerTable::Time> complained;
  std::int64_t unsaid = 0;
};

const char* stateName(SubscriptionState state) {
  switch (state) {
    case SubscriptionState::waiting:
      return "waiting";
    case SubscriptionState::connected:
      return "connected";
    case SubscriptionState::connectedForeign:
      return "connected to a foreign publisher";
  }
  return "?";
}

void SubscriptionHandle::deliver(const Event& event) {
  if (listener_ == nullptr) return;
  switch (event.kind) {
    case Event::Kind::connected:
      listener_->connected(this);
      break;
    case Event::Kind::disconnected: {
      std::string reason = event.text;
      listener_->disconnected(this, reason.data());
      break;
    }
    case Event::Kind::record: {
      KelData data = RecordAccess::fromRecord(event.record);
      listener_->handleMessage(this, data);
      break;
    }
    case Event::Kind::exception: {
      KelException exception(event.text);
      listener_->handleException(this, exception);
      break;
    }
  }
}

Inbox::Inbox(SessionPorts& ports) : ports_(ports) {}
Inbox::~Inbox() = default;

void Inbox::count(Topic& topic, std::int64_t KelCounters::*counter, std::int64_t number) {
  topic.counters.*counter += number;
  total_.*counter += number;
}

void Inbox::add(const std::shared_ptr<SubscriptionHandle>& handle) {
  std::string error;
  const auto coded = encodeTopicName(handle->name(), error);
  if (!coded) {
    ports_.dispatcher.post(
        handle, Event::exception("no publication can be called '" + handle->name() + "': " + error));
    return;
  }
  const std::string filter = ports_.topics.data(*coded);
  auto& slot = topics_[filter];
  if (!slot) {
    slot = std::make_unique<Topic>();
    slot->publication = handle->name();
    slot->topic = filter;
    ports_.subscribes.request(filter, ports_.qos);
  }
  Topic& topic = *slot;
  handle->topic = &topic;
  handle->tally = topic.tally;
  topic.subscriptions.push_back(handle);
  if (topic.state != SubscriptionState::waiting) ports_.dispatcher.post(handle, Event::connected());
  resend(*handle);
}

void Inbox::remove(SubscriptionHandle& handle) {
  if (handle.topic == nullptr) return;
  Topic& topic = *handle.topic;
  handle.topic = nullptr;
  std::erase_if(topic.subscriptions, [&](const auto& other) { return other.get() == &handle; });
  if (!topic.subscriptions.empty()) return;
  discardHeld(topic);
  refusals_.forget(topic.topic);
  ports_.subscribes.cancel(topic.topic);
  topics_.erase(topics_.find(topic.topic));
}

void Inbox::resend(SubscriptionHandle& handle) {
  if (handle.topic == nullptr || !handle.topic->last) return;
  count(*handle.topic, &KelCounters::resends);
  ports_.dispatcher.post(handle.shared_from_this(), Event::data(handle.topic->last));
}

void Inbox::linkUp() {
  std::vector<const std::string*> filters;
  filters.reserve(topics_.size());
  for (const auto& [filter, topic] : topics_) {
    topic->silent = true;
    filters.push_back(&filter);
  }
  askedSilent_ = ports_.now;
  std::sort(filters.begin(), filters.end(), [](const auto* a, const auto* b) { return *a < *b; });
  for (const std::string* filter : filters) ports_.subscribes.request(*filter, ports_.qos);
}

void Inbox::linkDown(std::string_view reason) {
  refusals_.linkDown();
  for (auto& [filter, topic] : topics_) {
    discardHeld(*topic);
    disconnect(*topic, reason);
    topic->last.reset();
    topic->unheard = false;
  }
}

void Inbox::subscribed(std::string_view filter, std::string_view failure) {
  const auto at = topics_.find(filter);
  if (at == topics_.end()) return;
  if (failure.empty()) {
    refusals_.granted(at->first);
    return;
  }
  const std::string text =
      "the broker refused the subscription to " + at->second->publication + ": " + std::string(failure);
  if (!refusals_.refused(at->first, text, "to read " + at->first, ports_.now)) return;
  for (const auto& handle : at->second->subscriptions) ports_.dispatcher.post(handle, Event::exception(text));
}

void Inbox::tick() {
  for (const std::string& filter : refusals_.due(ports_.now, refusalPause(ports_.transport))) {
    ports_.subscribes.request(filter, ports_.qos);
  }
  if (ports_.now - askedSilent_ < silencePause) return;
  askedSilent_ = ports_.now;
  for (const auto& [filter, topic] : topics_) {
    if (topic->silent) ports_.subscribes.request(filter, ports_.qos);
  }
}

void Inbox::message(std::string_view name, std::shared_ptr<Record> record, const std::string& error) {
  const auto at = topics_.find(name);
  if (at == topics_.end()) return;
  Topic& topic = *at->second;
  topic.silent = false;
  if (!error.empty()) {
    count(topic, &KelCounters::received);
    count(topic, &KelCounters::decodeErrors);
    complain(topic, error);
  } else if (record == nullptr) {
    closed(topic);
  } else {
    count(topic, &KelCounters::received);
    arrived(topic, std::move(record));
  }
}

void Inbox::complain(Topic& topic, const std::string& error) {
  ++topic.unsaid;
  if (topic.complained && ports_.now - *topic.complained < complaintPause) return;
  topic.complained = ports_.now;
  log(LogLevel::warn,
      "not a record on " + topic.topic + ": " + error +
          (topic.unsaid > 1 ? " (" + std::to_string(topic.unsaid) + " since the last report)" : ""));
  topic.unsaid = 0;
}

void Inbox::arrived(Topic& topic, std::shared_ptr<Record> record) {
  const std::string_view publisher = record->publisher;
  const bool current = topic.state == SubscriptionState::connected && topic.publisher == publisher;
  if (publisher.empty() || current || ports_.peers.alive(publisher)) {
    take(topic, record);
  } else {
    hold(topic, std::move(record));
  }
}

void Inbox::hold(Topic& topic, std::shared_ptr<Record> record) {
  const std::string_view publisher = record->publisher;
  std::int64_t known = 0;
  for (const auto& [run, sequence] : topic.sequences) {
    if (run == publisher) known = sequence;
  }
  if (topic.held && topic.held->publisher == publisher) known = std::max(known, topic.held->sequence);
  if (record->sequence != 0 && record->sequence < known) {
    count(topic, &KelCounters::repeated);
    return;
  }
  if (topic.held) {
    count(topic, &KelCounters::held, -1);
    count(topic, &KelCounters::superseded);
  }
  count(topic, &KelCounters::held);
  topic.held = std::move(record);
}

void Inbox::discardHeld(Topic& topic) {
  if (!topic.held) return;
  topic.held.reset();
  count(topic, &KelCounters::held, -1);
  count(topic, &KelCounters::discarded);
}

bool Inbox::inSequence(Topic& topic, const Record& record, bool first) {
  const std::string_view run = record.publisher;
  if (run.empty() || record.sequence == 0) return true;
  auto& known = topic.sequences;
  auto at = std::find_if(known.begin(), known.end(), [&](const auto& entry) { return entry.first == run; });
  if (at == known.end()) {
    if (known.size() == rememberedRuns) known.pop_back();
    known.emplace(known.begin(), run, record.sequence);
    return true;
  }
  std::rotate(known.begin(), at, at + 1);
  std::int64_t& last = known.front().second;
  if (record.sequence < last || (record.sequence == last && !first)) return false;
  if (record.sequence > last + 1) count(topic, &KelCounters::gaps, record.sequence - last - 1);
  last = record.sequence;
  return true;
}

void Inbox::take(Topic& topic, const std::shared_ptr<Record>& record) {
  const std::string_view publisher = record->publisher;
  const bool foreign = publisher.empty();
  const SubscriptionState next = foreign ? SubscriptionState::connectedForeign : SubscriptionState::connected;
  // A count that is not beyond the last one is news only when the record is the first since (re)connecting.
  const bool first = topic.last == nullptr || topic.last->publisher != publisher;
  if (!inSequence(topic, *record, first)) {
    count(topic, &KelCounters::repeated);
    return;
  }
  if (record->quality == -1) {
    disconnect(topic, *record->reason == '\0' ? "the publication has no value" : record->reason);
    topic.publisher = publisher;
  } else {
    const bool wasWaiting = topic.state == SubscriptionState::waiting;
    topic.publisher = publisher;
    transition(topic.state, next, "subscription to " + topic.publication, "record of a live publisher");
    if (wasWaiting) {
      for (const auto& handle : topic.subscriptions) ports_.dispatcher.post(handle, Event::connected());
    }
  }
  topic.unheard = false;
  topic.last = record;
  for (std::size_t i = 0; i < topic.subscriptions.size(); ++i) {
    if (i > 0) count(topic, &KelCounters::resends);
    ports_.dispatcher.post(topic.subscriptions[i], Event::data(record));
  }
}

void Inbox::closed(Topic& topic) {
  discardHeld(topic);
  disconnect(topic, "the publication is closed");
  topic.last.reset();
  topic.sequences.clear();
  topic.publisher.clear();
  topic.unheard = false;
}

void Inbox::disconnect(Topic& topic, std::string_view reason) {
  if (!transition(topic.state, SubscriptionState::waiting, "subscription to " + topic.publication, reason))
    return;
  topic.last.reset();
  for (const auto& handle : topic.subscriptions) {
    ports_.dispatcher.post(handle, Event::disconnected(std::string(reason)));
  }
}

void Inbox::peerAlive(std::string_view peer) {
  for (auto& [filter, topic] : topics_) {
    if (topic->held && topic->held->publisher == peer) {
      const std::shared_ptr<Record> record = std::exchange(topic->held, nullptr);
      count(*topic, &KelCounters::held, -1);
      take(*topic, record);
    } else if (topic->unheard && topic->publisher == peer) {
      // It never knew that it was taken for gone, so it will not send again: the broker has its last record.
      topic->unheard = false;
      ports_.subscribes.request(filter, ports_.qos);
    }
  }
}

void Inbox::peerGone(std::string_view peer, std::string_view reason, bool withdrawn) {
  for (auto& [filter, topic] : topics_) {
    if (topic->state == SubscriptionState::connected && topic->publisher == peer) {
      disconnect(*topic, reason);
      topic->unheard = !withdrawn;
    }
    if (withdrawn && topic->publisher == peer) topic->unheard = false;
    // When it comes back it sends its last record again; what was kept is older than that.
    if (withdrawn && topic->held && topic->held->publisher == peer) discardHeld(*topic);
  }
}

void Inbox::addCounters(std::string_view publication, KelCounters& counters) const {
  for (const auto& [filter, topic] : topics_) {
    if (topic->publication != publication) continue;
    const HandOffTally handOff = ports_.dispatcher.of(*topic->tally);
    counters = topic->counters;
    counters.delivered += handOff.delivered;
    counters.superseded += handOff.superseded;
    counters.discarded += handOff.discarded;
    counters.pending += handOff.pending;
    counters.listenerExceptions += handOff.exceptions;
  }
}

}  // namespace kel
