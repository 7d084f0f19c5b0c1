// What is fetched again: the part of Inbox that asks for kept records and knows those that say nothing new.

#include "data/Record.h"
#include "session/InboxTopic.h"
#include "session/Transition.h"

namespace kel {
namespace {

/// Whoever has a live publisher and is fetched so often, with nothing coming at all, is closed.
constexpr int mostUnanswered = 3;

/// How long a broker must keep a record below the last one taken before that one is not believed any more. A
/// publisher that comes back sends again what nobody acknowledged, beginning with the oldest, and for so long
/// the kept record goes back. After an outage the broker itself may have lost the newest.
constexpr std::chrono::seconds doubtOnLink{10};
constexpr std::chrono::seconds doubtAfterOutage{60};

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

void Inbox::fetchSoon(Topic& topic) {
  if (!topic.answered || !topic.refusal.empty()) return;
  if (topic.asked && ports_.now - *topic.asked < Refetch::roundPause) return;
  topic.asked = ports_.now;
  ports_.subscribes.request(topic.topic, ports_.qos);
}

/// What the broker keeps of a process run that is alive is that run's newest. When it stays below the last
/// one taken, that one was somebody else's, or is lost; and it must not stop the true ones for ever.
bool Inbox::refutes(Topic& topic, RunBook& book, const Record& record) {
  if (!ports_.peers.alive(record.publisher)) return false;
  if (!book.doubted) book.doubted = ports_.now;
  if (ports_.now - *book.doubted < (book.onLink ? doubtOnLink : doubtAfterOutage)) return false;
  log(LogLevel::warn, topic.publication + ": number " + std::to_string(book.taken) + " of " + book.run +
                          " is not believed any more, the broker keeps " + std::to_string(record.sequence) +
                          "; who else may write " + topic.topic + "?");
  gaps_ -= book.refuted(record.sequence);
  return true;
}

bool Inbox::saysNothingNew(Topic& topic, const std::shared_ptr<Record>& record, const Arrival& arrival) {
  topic.keptBytes = arrival.bytes;
  topic.unanswered = 0;
  const bool likeNewest = topic.newest == arrival.hash;
  const bool likeKept = topic.kept == arrival.hash;
  bool old = false;
  if (arrival.kept) {
    topic.keeps = topic.keeps || (likeNewest && topic.newestLive);
    topic.kept = arrival.hash;
    RunBook* book = record == nullptr ? nullptr : topic.books.find(record->publisher);
    if (record != nullptr && record->sequence != 0) {
      const bool below = book != nullptr && record->sequence < book->taken;
      if (below && refutes(topic, *book, *record)) {
        topic.newest = arrival.hash;
        topic.newestLive = false;
        return false;
      }
      if (!below && book != nullptr) book->doubted.reset();
      old = likeKept || below;
    } else if (record != nullptr) {
      // Without a count: who publishes without keeping leaves an old record with the broker.
      const bool older = record->hasTime && topic.last.known && topic.last.hasTime &&
                         record->time.timeNanoseconds < topic.last.time.timeNanoseconds;
      old = older || (likeKept && !topic.keeps);
    }
    old = old || likeNewest;
  }
  if (old) {
    count(topic.books.existing(record == nullptr ? std::string_view() : record->publisher),
          &KelCounters::refetched);
    // Only the very last one: an older one that the broker keeps must not be shown as the newest.
    const bool last = record != nullptr && topic.last.known && topic.last.publisher == record->publisher &&
                      (record->sequence != 0 ? record->sequence == topic.last.sequence : likeNewest);
    if (last && topic.wanted) giveAgain(topic, record);
    return true;
  }
  topic.newest = arrival.hash;
  topic.newestLive = !arrival.kept;
  return false;
}

}  // namespace kel
