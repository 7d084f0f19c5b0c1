#include "core/Backlog.h"

#include <algorithm>
#include <bit>
#include <map>
#include <utility>

#include "basics/Values.h"

namespace pvss {

namespace {

std::size_t bytesOf(const ElementAttributes& attributes) {
  return sizeof(ElementAttributes) + (attributes.value ? sizeOf(*attributes.value) : 0);
}

std::uint32_t unitsOf(const ElementAttributes& attributes, bool impliedFlag) {
  return static_cast<std::uint32_t>(std::popcount(attributes.mask)) - (impliedFlag ? 1U : 0U);
}

constexpr std::uint8_t attributeBits[4] = {attributeValue, attributeInvalid, attributeUserBit1,
                                           attributeUserBit2};

}  // namespace

Backlog::Newest& Backlog::newestOf(ElementId element) {
  if (element >= newest_.size()) {
    newest_.resize(std::max<std::size_t>(element + 1, newest_.size() * 2));
  }
  return newest_[element];
}

void Backlog::remember(const Entry& entry) {
  const WriteBatch& batch = entry.batch;
  for (const ElementAttributes& attributes : batch.elements) {
    Newest& newest = newestOf(attributes.element);
    newest.stamp = entry.stamp;
    for (std::size_t line = 0; line < 4; ++line) {
      if ((attributes.mask & attributeBits[line]) != 0) {
        newest.sequence[line] = batch.clientSequence;
        newest.timeMs[line] = batch.timeMs;
      }
    }
    if ((attributes.mask & attributeValue) != 0) {
      newest.value = attributes.value;
    }
    if ((attributes.mask & attributeInvalid) != 0) {
      newest.invalid = attributes.invalid;
    }
    if ((attributes.mask & attributeUserBit1) != 0) {
      newest.userBit1 = attributes.userBit1;
    }
    if ((attributes.mask & attributeUserBit2) != 0) {
      newest.userBit2 = attributes.userBit2;
    }
    newest.byMask[attributes.mask & 15U] = batch.clientSequence;
  }
}

std::uint64_t Backlog::append(PreparedWrite write) {
  if (write.batch.elements.empty()) {
    return 0;
  }
  Entry& entry = entries_.emplace_back();
  entry.batch = std::move(write.batch);
  entry.impliedFlag = std::move(write.impliedFlag);
  entry.stamp = write.stamp;
  entry.batch.clientSequence = ++lastSequence_;
  entry.bytes = sizeof(Entry);
  for (std::size_t index = 0; index < entry.batch.elements.size(); ++index) {
    const bool implied = !entry.impliedFlag.empty() && entry.impliedFlag[index];
    entry.units += unitsOf(entry.batch.elements[index], implied);
    entry.bytes += bytesOf(entry.batch.elements[index]);
  }
  remember(entry);
  bytes_ += entry.bytes;
  counters_.pending += entry.units;
  counters_.pendingHigh = std::max(counters_.pendingHigh, counters_.pending);
  const std::uint64_t gone = bytes_ > bound_ && bytes_ > nextSweepBytes_ ? makeRoom() : 0;
  counters_.backlogBytes = bytes_;
  counters_.backlogBytesHigh = std::max<std::uint64_t>(counters_.backlogBytesHigh, bytes_);
  return gone;
}

const WriteBatch* Backlog::next() const {
  return handed_ < entries_.size() ? &entries_[handed_].batch : nullptr;
}

void Backlog::handedOver(std::size_t place) {
  Entry& entry = entries_[place];
  if (place == handed_) {
    ++handed_;
  }
  counters_.handed += entry.units;
  if (entry.everHanded) {
    counters_.resent += entry.units;
  }
  entry.everHanded = true;
}

void Backlog::forget(const Entry& entry) {
  bytes_ -= entry.bytes;
  if (bytes_ <= bound_) {
    nextSweepBytes_ = 0;
  }
  counters_.backlogBytes = bytes_;
  counters_.pending -= entry.units;
}

// The store counts in attributes too, but it cannot tell a flag that was written from one that was implied.
void Backlog::settled(const Entry& entry) {
  if (entry.batch.restore) {
    return;
  }
  for (const ElementAttributes& attributes : entry.batch.elements) {
    counters_.settled += unitsOf(attributes, false);
  }
}

void Backlog::confirm(std::uint64_t clientSequence, WriteOutcome outcome,
                      const std::vector<std::uint32_t>& leftOut) {
  while (!entries_.empty() && entries_.front().batch.clientSequence <= clientSequence && handed_ > 0) {
    const Entry& entry = entries_.front();
    const bool refused = outcome == WriteOutcome::refused && entry.batch.clientSequence == clientSequence;
    std::uint32_t rejected = refused ? entry.units : 0;
    if (!refused && !entry.batch.restore && entry.batch.clientSequence == clientSequence) {
      for (const std::uint32_t place : leftOut) {
        if (place < entry.batch.elements.size()) {
          const bool implied = !entry.impliedFlag.empty() && entry.impliedFlag[place];
          rejected += unitsOf(entry.batch.elements[place], implied);
        }
      }
    }
    counters_.rejected += rejected;
    counters_.confirmed += entry.units - rejected;
    settled(entry);
    lastConfirmed_ = entry.batch.clientSequence;
    forget(entry);
    entries_.pop_front();
    --handed_;
  }
}

void Backlog::linkLost() {
  handed_ = 0;
}

void Backlog::settle(std::uint64_t lastKnown) {
  handed_ = 0;
  while (!entries_.empty() && entries_.front().batch.clientSequence <= lastKnown &&
         entries_.front().everHanded) {
    const Entry& entry = entries_.front();
    counters_.confirmed += entry.units;
    settled(entry);
    lastConfirmed_ = entry.batch.clientSequence;
    forget(entry);
    entries_.pop_front();
  }
  lastSequence_ = std::max(lastSequence_, lastKnown);
}

std::uint64_t Backlog::restoreLost(std::uint64_t lastKnown) {
  handed_ = 0;
  // Everything whose newest write the store does not know and that does not wait in the backlog anyway,
  // sorted by the call that wrote it: what was written together comes back together, in the old order and
  // with the old times. What a store still knows of a writer is never more than a beginning of what that
  // wrote.
  std::erase_if(entries_, [this](const Entry& entry) {
    if (entry.batch.restore) {
      forget(entry);
    }
    return entry.batch.restore;
  });
  const std::uint64_t firstWaiting = entries_.empty() ? ~0ULL : entries_.front().batch.clientSequence;
  std::map<std::uint64_t, WriteBatch> lost;
  std::uint32_t stamp = 0;
  for (ElementId element = 0; element < newest_.size(); ++element) {
    const Newest& newest = newest_[element];
    for (std::size_t line = 0; line < 4; ++line) {
      const std::uint64_t sequence = newest.sequence[line];
      if (sequence <= lastKnown || sequence >= firstWaiting) {
        continue;
      }
      WriteBatch& batch = lost[sequence];
      stamp = std::max(stamp, newest.stamp);
      batch.timeMs = newest.timeMs[line];
      if (batch.elements.empty() || batch.elements.back().element != element) {
        ElementAttributes attributes;
        attributes.element = element;
        attributes.invalid = newest.invalid;
        attributes.userBit1 = newest.userBit1;
        attributes.userBit2 = newest.userBit2;
        batch.elements.push_back(std::move(attributes));
      }
      ElementAttributes& attributes = batch.elements.back();
      attributes.mask = static_cast<std::uint8_t>(attributes.mask | attributeBits[line]);
      if (attributeBits[line] == attributeValue) {
        attributes.value = newest.value;
      }
    }
  }
  lastSequence_ = std::max(lastSequence_, lastKnown);
  std::deque<Entry> waiting;
  waiting.swap(entries_);
  std::uint64_t restored = 0;
  for (auto& [sequence, batch] : lost) {
    Entry& entry = entries_.emplace_back();
    entry.batch = std::move(batch);
    entry.batch.restore = true;
    entry.stamp = stamp;
    entry.batch.clientSequence = ++lastSequence_;
    entry.bytes = sizeof(Entry);
    for (const ElementAttributes& attributes : entry.batch.elements) {
      restored += static_cast<std::uint64_t>(std::popcount(attributes.mask));
      entry.bytes += bytesOf(attributes);
    }
    bytes_ += entry.bytes;
    remember(entry);
  }
  for (Entry& entry : waiting) {
    entry.batch.clientSequence = ++lastSequence_;
    remember(entry);
    entries_.push_back(std::move(entry));
  }
  counters_.restored += restored;
  counters_.backlogBytes = bytes_;
  return restored;
}

std::uint64_t Backlog::dropAll() {
  std::uint64_t dropped = 0;
  for (const Entry& entry : entries_) {
    dropped += entry.units;
  }
  entries_.clear();
  newest_.clear();  // it is not for this manager to bring anything back any more
  handed_ = 0;
  bytes_ = 0;
  nextSweepBytes_ = 0;
  counters_.dropped += dropped;
  counters_.pending -= dropped;
  counters_.backlogBytes = 0;
  return dropped;
}

bool Backlog::superseded(const ElementAttributes& attributes, std::uint64_t sequence) const {
  if (attributes.element >= newest_.size()) {
    return false;
  }
  const Newest& newest = newest_[attributes.element];
  for (unsigned mask = attributes.mask; mask < 16; ++mask) {
    if ((mask & attributes.mask) == attributes.mask && newest.byMask[mask] > sequence) {
      return true;
    }
  }
  return false;
}

// Takes the elements for which `goes` holds out of one entry; gives the attribute writes that are gone with
// them.
template <class Goes>
std::uint64_t Backlog::takeOut(Entry& entry, Goes goes) {
  std::uint64_t gone = 0;
  std::vector<ElementAttributes>& elements = entry.batch.elements;
  std::size_t kept = 0;
  for (std::size_t index = 0; index < elements.size(); ++index) {
    const bool implied = !entry.impliedFlag.empty() && entry.impliedFlag[index];
    if (goes(elements[index])) {
      const std::size_t bytes = bytesOf(elements[index]);
      const std::uint32_t units = entry.batch.restore ? 0 : unitsOf(elements[index], implied);
      entry.bytes -= bytes;
      entry.units -= units;
      bytes_ -= bytes;
      gone += units;
      continue;
    }
    if (kept != index) {
      elements[kept] = std::move(elements[index]);
      if (!entry.impliedFlag.empty()) {
        entry.impliedFlag[kept] = implied;
      }
    }
    ++kept;
  }
  elements.resize(kept);
  if (!entry.impliedFlag.empty()) {
    entry.impliedFlag.resize(kept);
  }
  if (kept == 0) {
    bytes_ -= entry.bytes;
    entry.bytes = 0;
  }
  return gone;
}

// Takes every superseded write out of one entry: what was written in one call does not go in part for want of
// room alone.
std::uint64_t Backlog::thin(Entry& entry) {
  return takeOut(entry, [&](const ElementAttributes& attributes) {
    return superseded(attributes, entry.batch.clientSequence);
  });
}

std::uint64_t Backlog::dropOutdated(const Catalogue& catalogue) {
  for (ElementId element = 0; element < newest_.size(); ++element) {
    if (newest_[element].stamp < catalogue.at(element).moved) {
      newest_[element] = Newest();  // not to be restored either
    }
  }
  std::uint64_t dropped = 0;
  for (std::size_t index = handed_; index < entries_.size(); ++index) {
    Entry& entry = entries_[index];
    if (entry.stamp < catalogue.stamp()) {
      dropped += takeOut(entry, [&](const ElementAttributes& attributes) {
        return catalogue.at(attributes.element).moved > entry.stamp;
      });
    }
  }
  std::erase_if(entries_, [](const Entry& entry) { return entry.batch.elements.empty(); });
  counters_.dropped += dropped;
  counters_.pending -= dropped;
  counters_.backlogBytes = bytes_;
  return dropped;
}

std::uint64_t Backlog::makeRoom() {
  // A little more than needed, so that the next call does not sweep again.
  const std::size_t slack = bound_ / 16;
  const std::size_t target = bound_ - slack;
  std::uint64_t gone = 0;
  for (std::size_t index = handed_; index < entries_.size() && bytes_ > target; ++index) {
    if (!entries_[index].everHanded) {
      gone += thin(entries_[index]);
    }
  }
  std::erase_if(entries_, [](const Entry& entry) { return entry.batch.elements.empty(); });
  counters_.coalesced += gone;
  counters_.pending -= gone;
  nextSweepBytes_ = bytes_ > target ? bytes_ + slack : 0;
  return gone;
}

}  // namespace pvss
