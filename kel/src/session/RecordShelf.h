// RecordShelf: what the last and the held records of all subscribed topics take together, and which of them
// goes first when that is too much: the largest, for it frees most and the broker has it. Not thread-safe:
// under the session's lock.
#pragma once

#include <cstddef>
#include <set>
#include <utility>

#include "data/Record.h"
#include "session/InboxTopic.h"

namespace kel {

class RecordShelf {
 public:
  explicit RecordShelf(std::size_t mostBytes) : mostBytes_(mostBytes) {}

  /// After every change of the topic's records.
  void weigh(InboxTopic& topic) { weigh(topic, bytes(topic.last.record.get()) + bytes(topic.held.get())); }
  void remove(InboxTopic& topic) { weigh(topic, 0); }
  /// The topic that is to give up its larger record; null while all is within bounds.
  [[nodiscard]] InboxTopic* overweight() const {
    return total_ <= mostBytes_ || heavy_.empty() ? nullptr : heavy_.rbegin()->second;
  }

  static std::size_t bytes(const Record* record) { return record == nullptr ? 0 : record->memoryBytes() + 1; }

 private:
  void weigh(InboxTopic& topic, std::size_t weight) {
    if (topic.weight == weight) return;
    if (topic.weight != 0) heavy_.erase({topic.weight, &topic});
    if (weight != 0) heavy_.emplace(weight, &topic);
    total_ += weight - topic.weight;
    topic.weight = weight;
  }

  const std::size_t mostBytes_;
  std::size_t total_ = 0;
  std::set<std::pair<std::size_t, InboxTopic*>> heavy_;
};

}  // namespace kel
