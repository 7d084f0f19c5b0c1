#include "session/Inbox.h"

#include <algorithm>
#include <limits>
#include <utility>

#include "data/RecordAccess.h"
#include "session/InboxTopic.h"
#include "session/RecordShelf.h"
#include "session/Transition.h"

namespace kel {
namespace {

constexpr std::chrono::minutes complaintPause{1};

}  // namespace

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

Inbox::Inbox(SessionPorts& ports, std::size_t rememberedBytes)
    : ports_(ports), shelf_(std::make_unique<RecordShelf>(rememberedBytes)) {}
Inbox::~Inbox() = default;

void Inbox::count(RunBook& book, std::int64_t KelCounters::*counter, std::int64_t number) {
  addCapped(book.counters.*counter, number);
  addCapped(total_.*counter, number);
}

KelCounters Inbox::total() const {
  KelCounters sum = total_;
  sum.gaps = static_cast<std::int64_t>(std::min<Wide>(gaps_, std::numeric_limits<std::int64_t>::max()));
  return sum;
}

void Inbox::add(const std::shared_ptr<SubscriptionHandle>& handle) {
  std::string error;
  const auto coded = encodeTopicName(handle->name(), error);
  owe(handle);
  if (!coded) {
    impossible_.push_back(handle);
    ports_.dispatcher.post(handle, Event::exception(impossibleName("subscribed", handle->name(), error)));
    return;
  }
  const std::string filter = ports_.topics.data(*coded);
  auto& slot = topics_[filter];
  if (!slot) {
    slot = std::make_unique<Topic>(ports_.dispatcher);
    slot->publication = handle->name();
    slot->topic = filter;
    slot->place = refetch_.add(*slot);
    ++subscribing_;
    ports_.subscribes.request(filter, ports_.qos);
  }
  Topic& topic = *slot;
  handle->topic = &topic;
  handle->tally = topic.tally;
  topic.subscriptions.push_back(handle);
  if (topic.state != SubscriptionState::waiting) tellConnected(handle);
  resend(*handle);
}

void Inbox::remove(SubscriptionHandle& handle) {
  settle(handle);
  if (handle.topic == nullptr) {
    std::erase_if(impossible_, [&](const auto& other) { return other.get() == &handle; });
    return;
  }
  Topic& topic = *handle.topic;
  handle.topic = nullptr;
  handle.wantsLast = false;
  std::erase_if(topic.subscriptions, [&](const auto& other) { return other.get() == &handle; });
  if (!topic.subscriptions.empty()) return;
  endHeld(topic, &KelCounters::discarded);
  topic.books.each([&](RunBook& book) { released_.take(book, ports_.dispatcher); });
  refusals_.forget(topic.topic);
  if (!topic.answered) --subscribing_;
  ports_.subscribes.cancel(topic.topic);
  refetch_.remove(topic.place);
  shelf_->remove(topic);
  topics_.erase(topics_.find(topic.topic));
}

void Inbox::linkUp() {
  upSince_ = ports_.now;
  std::vector<const std::string*> filters;
  filters.reserve(topics_.size());
  for (const auto& [filter, topic] : topics_) {
    filters.push_back(&filter);
  }
  refetch_.linkUp(ports_.now);
  std::sort(filters.begin(), filters.end(), [](const auto* a, const auto* b) { return *a < *b; });
  for (const std::string* filter : filters) ports_.subscribes.request(*filter, ports_.qos);
}

void Inbox::linkDown(std::string_view reason) {
  upSince_.reset();
  groupSince_.reset();
  refusals_.linkDown();
  subscribing_ = topics_.size();
  for (auto& [filter, topic] : topics_) {
    topic->answered.reset();
    topic->refusal.clear();
    topic->unreadable = false;
    forgetPayloads(*topic);
    topic->books.linkDown();
    endHeld(*topic, &KelCounters::discarded);
    disconnect(*topic, reason);
    forgetLast(*topic);
    topic->owed.clear();
    topic->unheard = false;
  }
}

void Inbox::subscribed(std::string_view filter, std::string_view failure) {
  const auto at = topics_.find(filter);
  if (at == topics_.end()) return;
  if (!at->second->answered) {
    at->second->answered = ports_.now;
    --subscribing_;
  }
  at->second->refusal = failure;
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
  fetchAgain();
}

void Inbox::message(std::string_view name, std::shared_ptr<Record> record, const std::string& error,
                    const Arrival& arrival) {
  const auto at = topics_.find(name);
  if (at == topics_.end()) return;
  Topic& topic = *at->second;
  if (!arrival.kept) refetch_.live();
  if (saysNothingNew(topic, record, arrival)) return;
  if (!error.empty()) {
    RunBook& nobody = topic.books.of({});
    nobody.arrived(0);
    count(nobody, &KelCounters::received);
    count(nobody, &KelCounters::decodeErrors);
    complain(topic, error);
    // It says something newer than what is shown, and nobody knows what.
    topic.unreadable = true;
    endHeld(topic, &KelCounters::discarded);
    disconnect(topic, "its newest record cannot be read: " + error);
  } else if (record == nullptr) {
    closed(topic);
  } else {
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
  RunBook& book = topic.books.of(publisher);
  topic.unreadable = false;
  count(book, &KelCounters::received);
  const std::int64_t missing = book.arrived(publisher.empty() ? 0 : record->sequence);
  addCapped(book.counters.gaps, missing);
  gaps_ += missing;
  if (missing < 0) {
    // The newer one has the word already; but nobody knows yet that it was the publisher's.
    count(book, &KelCounters::superseded);
    fetchSoon(topic);
    return;
  }
  const bool current = topic.state == SubscriptionState::connected && topic.publisher == publisher;
  if (publisher.empty() || current || ports_.peers.alive(publisher)) {
    take(topic, book, record);
  } else {
    hold(topic, book, std::move(record));
  }
}

void Inbox::hold(Topic& topic, RunBook& book, std::shared_ptr<Record> record) {
  std::int64_t known = book.taken;
  if (topic.held && std::string_view(topic.held->publisher) == record->publisher) {
    known = std::max(known, topic.held->sequence);
  }
  if (record->sequence != 0 && record->sequence < known) {
    count(book, &KelCounters::repeated);
    return;
  }
  endHeld(topic, &KelCounters::superseded);
  count(book, &KelCounters::held);
  topic.held = std::move(record);
  shelve(topic);
}

/// What was held, if anything, ends in this way.
void Inbox::endHeld(Topic& topic, std::int64_t KelCounters::*counter) {
  topic.owed.clear();
  if (!topic.held) return;
  RunBook& book = topic.books.existing(topic.held->publisher);
  topic.held.reset();
  shelf_->weigh(topic);
  count(book, &KelCounters::held, -1);
  count(book, counter);
}

void Inbox::take(Topic& topic, RunBook& book, const std::shared_ptr<Record>& record) {
  const std::string_view publisher = record->publisher;
  const bool foreign = publisher.empty();
  const SubscriptionState next = foreign ? SubscriptionState::connectedForeign : SubscriptionState::connected;
  if (!foreign && record->sequence != 0) {
    // A count that is not beyond the last one is news only when the record is the first since (re)connecting.
    const bool first = !topic.last.known || topic.last.publisher != publisher;
    if (book.taken != 0 && (record->sequence < book.taken || (record->sequence == book.taken && !first))) {
      count(book, &KelCounters::repeated);
      if (record->sequence < book.taken) fetchSoon(topic);
      return;
    }
    book.taken = record->sequence;
    book.onLink = true;
    book.doubted.reset();
  }
  if (record->quality == -1) {
    disconnect(topic, *record->reason == '\0' ? "the publication has no value" : record->reason);
    topic.publisher = publisher;
  } else {
    const bool wasWaiting = topic.state == SubscriptionState::waiting;
    topic.publisher = publisher;
    transition(topic.state, next, "subscription to " + topic.publication, "record of a live publisher");
    if (wasWaiting) {
      for (const auto& handle : topic.subscriptions) tellConnected(handle);
    }
  }
  topic.unheard = false;
  forgetLast(topic);
  topic.last.set(record);
  for (std::size_t i = 0; i < topic.subscriptions.size(); ++i) {
    if (i > 0) count(book, &KelCounters::resends);
    ports_.dispatcher.post(topic.subscriptions[i], Event::data(record, book.handOff));
  }
  shelve(topic);
}

void Inbox::closed(Topic& topic) {
  topic.unreadable = false;
  endHeld(topic, &KelCounters::discarded);
  disconnect(topic, "the publication is closed");
  forgetLast(topic);
  topic.books.closed();
  topic.publisher.clear();
  topic.unheard = false;
  forgetPayloads(topic);
}

void Inbox::disconnect(Topic& topic, std::string_view reason) {
  if (topic.state == SubscriptionState::waiting) return;
  // First: what cannot be told for want of memory has not happened yet.
  for (const auto& handle : topic.subscriptions) {
    ports_.dispatcher.post(handle, Event::disconnected(std::string(reason)));
  }
  transition(topic.state, SubscriptionState::waiting, "subscription to " + topic.publication, reason);
  forgetLast(topic);
}

void Inbox::peerAlive(std::string_view peer) {
  for (auto& [filter, topic] : topics_) {
    if (topic->held && topic->held->publisher == peer) {
      const std::shared_ptr<Record> record = std::exchange(topic->held, nullptr);
      RunBook& book = topic->books.existing(peer);
      count(book, &KelCounters::held, -1);
      shelf_->weigh(*topic);
      take(*topic, book, record);
    } else if ((topic->unheard && topic->publisher == peer) || topic->owed == peer) {
      // It never knew that it was taken for gone, so it will not send again: the broker has its last record.
      topic->unheard = false;
      topic->owed.clear();
      forgetPayloads(*topic);
      ports_.subscribes.request(filter, ports_.qos);
    }
  }
}

void Inbox::peerGone(std::string_view peer, std::string_view reason, bool withdrawn) {
  for (auto& [filter, topic] : topics_) {
    if (RunBook* book = topic->books.find(peer)) book->doubted.reset();
    if (topic->state == SubscriptionState::connected && topic->publisher == peer) {
      disconnect(*topic, reason);
      topic->unheard = !withdrawn;
      if (!withdrawn) forgetPayloads(*topic);
    }
    if (withdrawn && topic->publisher == peer) topic->unheard = false;
    if (withdrawn && topic->owed == peer) topic->owed.clear();
    // When it comes back it sends its last record again; what was kept is older than that.
    if (withdrawn && topic->held && topic->held->publisher == peer) endHeld(*topic, &KelCounters::discarded);
  }
}

void Inbox::addCounters(std::string_view publication, KelCounters& counters) const {
  for (const auto& [filter, topic] : topics_) {
    if (topic->publication != publication) continue;
    counters = KelCounters();
    topic->books.each([&](const RunBook& book) {
      addReceived(counters, book.counters);
      addHandOff(counters, ports_.dispatcher.of(*book.handOff));
    });
    counters.listenerExceptions = ports_.dispatcher.of(*topic->tally).exceptions;
  }
}

std::vector<KelReceived> Inbox::ledger() const {
  std::vector<const Topic*> topics;
  topics.reserve(topics_.size());
  for (const auto& [filter, topic] : topics_) topics.push_back(topic.get());
  std::sort(topics.begin(), topics.end(),
            [](const Topic* a, const Topic* b) { return a->publication < b->publication; });
  std::vector<KelReceived> rows;
  for (const Topic* topic : topics) {
    topic->books.each(
        [&](const RunBook& book) { rows.push_back(book.row(topic->publication, ports_.dispatcher)); });
  }
  KelReceived released = released_.row({}, ports_.dispatcher);
  if (released.counters.received + released.counters.resends != 0) rows.push_back(std::move(released));
  return rows;
}

}  // namespace kel
