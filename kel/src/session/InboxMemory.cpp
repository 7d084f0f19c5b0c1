// What is remembered of each publication, within a bound: the part of Inbox that gives records up and asks
// the broker for them when they are wanted again.

#include <utility>

#include "data/Record.h"
#include "session/InboxTopic.h"
#include "session/RecordShelf.h"

namespace kel {

void LastRecord::set(const std::shared_ptr<Record>& newest) {
  known = true;
  record = newest;
  publisher = newest->publisher;
  sequence = newest->sequence;
  time = newest->time;
  hasTime = newest->hasTime;
}

void LastRecord::reset() {
  known = false;
  record.reset();
}

void Inbox::shelve(Topic& topic) {
  shelf_->weigh(topic);
  while (Topic* const heaviest = shelf_->overweight()) {
    if (RecordShelf::bytes(heaviest->held.get()) > RecordShelf::bytes(heaviest->last.record.get())) {
      // When its publisher is alive, the broker is asked for what it then keeps.
      std::string owed = heaviest->held->publisher;
      endHeld(*heaviest, &KelCounters::discarded);
      heaviest->owed = std::move(owed);
    } else {
      count(heaviest->books.existing(heaviest->last.publisher), &KelCounters::givenUp);
      heaviest->last.record.reset();
    }
    shelf_->weigh(*heaviest);
  }
}

void Inbox::forgetLast(Topic& topic) {
  topic.last.reset();
  topic.wanted = false;
  for (const auto& handle : topic.subscriptions) handle->wantsLast = false;
  shelf_->weigh(topic);
}

void Inbox::resend(SubscriptionHandle& handle) {
  if (handle.topic == nullptr || !handle.topic->last.known) return;
  Topic& topic = *handle.topic;
  if (topic.last.record) {
    RunBook& book = topic.books.existing(topic.last.publisher);
    count(book, &KelCounters::resends);
    ports_.dispatcher.post(handle.shared_from_this(), Event::data(topic.last.record, book.handOff));
    return;
  }
  handle.wantsLast = true;
  if (std::exchange(topic.wanted, true)) return;
  if (topic.answered && topic.refusal.empty()) ports_.subscribes.request(topic.topic, ports_.qos);
}

/// The broker has given the very record that was given up.
void Inbox::giveAgain(Topic& topic, std::shared_ptr<Record> record) {
  topic.wanted = false;
  topic.last.record = std::move(record);
  for (const auto& handle : topic.subscriptions) {
    if (std::exchange(handle->wantsLast, false)) resend(*handle);
  }
  shelve(topic);
}

}  // namespace kel
