#include "session/Dispatcher.h"

#include <exception>

#include "Log.h"

namespace kel {
namespace {

/// More than this many changes of connection waiting for one listener are not worth telling one by one.
constexpr std::size_t mostControlEvents = 100;

/// Where what is counted in this tally stands now.
HandOffTally& standing(HandOffTally& tally) {
  HandOffTally* last = &tally;
  while (last->into) last = last->into.get();
  return *last;
}

std::string whatIsThrown() {
  try {
    throw;
  } catch (const std::exception& exception) {
    return exception.what();
  } catch (...) {
    return "something that is not an exception";
  }
}

/// Without a word when there is no memory for one.
void sayWhatIsThrown() noexcept {
  try {
    log(LogLevel::warn, "a listener threw: " + whatIsThrown());
  } catch (...) {  // NOLINT(bugprone-empty-catch): it is counted all the same
  }
}

}  // namespace

Dispatcher::Dispatcher(std::size_t mostRecords, std::size_t mostBytes)
    : queue_(mostRecords, mostBytes), thread_([this] { run(); }), threadId_(thread_.get_id()) {}

Dispatcher::~Dispatcher() {
  stop();
}

void Dispatcher::drop(HandOffTally& tally, std::int64_t HandOffTally::*counter) {
  HandOffTally& counts = standing(tally);
  --counts.pending;
  --total_.pending;
  ++(counts.*counter);
  ++(total_.*counter);
}

void Dispatcher::fold(const std::shared_ptr<HandOffTally>& from, const std::shared_ptr<HandOffTally>& into) {
  const MutexLock lock(mutex_);
  into->delivered += from->delivered;
  into->superseded += from->superseded;
  into->discarded += from->discarded;
  into->pending += from->pending;
  into->exceptions += from->exceptions;
  from->into = into;
}

bool Dispatcher::foldsAway(Target& target, const Event& event) {
  const auto& items = target.lane.items;
  if (event.droppable || items.size() - target.lane.droppable < mostControlEvents) return false;
  const Event::Kind last = items.back().kind;
  if (last == event.kind) return true;
  const bool opposite = (event.kind == Event::Kind::connected && last == Event::Kind::disconnected) ||
                        (event.kind == Event::Kind::disconnected && last == Event::Kind::connected);
  if (opposite) queue_.dropNewest(target);
  return opposite;
}

void Dispatcher::post(const std::shared_ptr<Target>& target, Event event) {
  const MutexLock lock(mutex_);
  if (stopping_) {
    if (event.droppable) {
      ++standing(*event.tally).discarded;
      ++total_.discarded;
    }
    return;
  }
  if (foldsAway(*target, event)) return;
  if (event.droppable) {
    ++standing(*event.tally).pending;
    ++total_.pending;
  }
  queue_.push(target, std::move(event), [&](const Event& old) {
    const MutexHeld held(mutex_);
    drop(*old.tally, &HandOffTally::superseded);
  });
  if (idle_) wake_.notifyOne();
}

void Dispatcher::cancel(Target& target) {
  const MutexLock lock(mutex_);
  queue_.clear(target, [&](const Event& waiting) {
    const MutexHeld held(mutex_);
    drop(*waiting.tally, &HandOffTally::discarded);
  });
  if (std::this_thread::get_id() == threadId_) return;
  while (running_ == &target) finished_.wait(mutex_);
}

void Dispatcher::stop() {
  {
    const MutexLock lock(mutex_);
    if (stopping_ && !thread_.joinable()) return;
    stopping_ = true;
    wake_.notifyOne();
  }
  if (thread_.joinable()) thread_.join();
  const MutexLock lock(mutex_);
  while (auto next = queue_.pop()) {
    if (next->second.droppable) drop(*next->second.tally, &HandOffTally::discarded);
  }
}

HandOffTally Dispatcher::total() const {
  const MutexLock lock(mutex_);
  return total_;
}

HandOffTally Dispatcher::of(const HandOffTally& tally) const {
  const MutexLock lock(mutex_);
  return tally;
}

void Dispatcher::run() {
  mutex_.lock();
  while (!stopping_) {
    auto next = queue_.pop();
    if (!next) {
      idle_ = true;
      wake_.wait(mutex_);
      idle_ = false;
      continue;
    }
    const std::shared_ptr<Target> target = std::move(next->first);
    const Event event = std::move(next->second);
    running_ = target.get();
    mutex_.unlock();
    bool threw = false;
    try {
      target->deliver(event);
    } catch (...) {
      threw = true;
      sayWhatIsThrown();
    }
    mutex_.lock();
    if (threw) {
      ++target->tally->exceptions;
      ++total_.exceptions;
    }
    if (event.droppable) drop(*event.tally, &HandOffTally::delivered);
    running_ = nullptr;
    finished_.notifyAll();
  }
  mutex_.unlock();
}

}  // namespace kel
