// What is fetched again: the part of Inbox that asks for kept records and knows those that say nothing new.

#include "data/Record.h"
#include "session/InboxTopic.h"

namespace kel {
namespace {

/// Whoever has a live publisher and is fetched so often, with nothing coming at all, is closed.
constexpr int mostUnanswered = 3;

}  // namespace

void forgetPayloads(InboxTopic& topic) {
  topic.newest.reset();
  topic.kept.reset();
}

void Inbox::fetchAgain() {
  refetch_.tick(ports_.now);
  while (ports_.subscribes.room()) {
    Topic* topic = refetch_.next(ports_.now);
    if (topic == nullptr) return;
    // Who was refused is asked for again elsewhere; what was never answered is still under way.
    if (!topic->answered || !topic->refusal.empty()) continue;
    if (topic->state == SubscriptionState::connected && topic->unanswered >= mostUnanswered) {
      closed(*topic);  // and the word of it was dropped
    }
    ++topic->unanswered;
    ports_.subscribes.request(topic->topic, ports_.qos);
  }
}

bool Inbox::saysNothingNew(Topic& topic, const Record* record, const Arrival& arrival) {
  topic.keptBytes = arrival.bytes;
  topic.unanswered = 0;
  const bool likeNewest = topic.newest == arrival.hash;
  const bool likeKept = topic.kept == arrival.hash;
  bool old = false;
  if (arrival.kept) {
    topic.keeps = topic.keeps || (likeNewest && topic.newestLive);
    topic.kept = arrival.hash;
    const RunBook* book = record == nullptr ? nullptr : topic.books.find(record->publisher);
    if (record != nullptr && record->sequence != 0) {
      old = likeKept || (book != nullptr && record->sequence < book->taken);
    } else if (record != nullptr) {
      // Without a count: who publishes without keeping leaves an old record with the broker.
      const bool older = record->hasTime && topic.last && topic.last->hasTime &&
                         record->time.timeNanoseconds < topic.last->time.timeNanoseconds;
      old = older || (likeKept && !topic.keeps);
    }
    old = old || likeNewest;
  }
  if (old) {
    count(topic.books.existing(record == nullptr ? std::string_view() : record->publisher),
          &KelCounters::refetched);
    return true;
  }
  topic.newest = arrival.hash;
  topic.newestLive = !arrival.kept;
  return false;
}

}  // namespace kel
