// Mailbox: hands events from a library's thread to the thread of the command.
//
// Purpose    Bounded: a full mailbox makes the sender wait, so that the library's own bounded queue with its
//            stated policy decides what to keep when nobody reads fast enough.
// Thread     put() from any thread, take() from one, close() from any.
#pragma once

#include <chrono>
#include <condition_variable>
#include <deque>
#include <mutex>
#include <optional>
#include <utility>

#if defined(__clang__)
#define KELGW_TOOL_THREAD(x) __attribute__((x))
#else
#define KELGW_TOOL_THREAD(x)
#endif

namespace kelgw {

/// std::mutex with the declarations that clang checks.
class KELGW_TOOL_THREAD(capability("mutex")) Mutex {
 public:
  void lock() KELGW_TOOL_THREAD(acquire_capability()) { mutex.lock(); }
  void unlock() KELGW_TOOL_THREAD(release_capability()) { mutex.unlock(); }

 private:
  std::mutex mutex;
};

class KELGW_TOOL_THREAD(scoped_lockable) Lock {
 public:
  explicit Lock(Mutex& theMutex) KELGW_TOOL_THREAD(acquire_capability(theMutex)) : mutex(theMutex) {
    mutex.lock();
  }
  ~Lock() KELGW_TOOL_THREAD(release_capability()) { mutex.unlock(); }
  Lock(const Lock&) = delete;
  Lock& operator=(const Lock&) = delete;

 private:
  Mutex& mutex;
};

template <typename Event>
class Mailbox {
 public:
  static constexpr std::size_t bound = 1000;

  /// Waits while the mailbox is full; drops the event once it is closed.
  void put(Event event) {
    const Lock lock(mutex);
    while (!closed && events.size() >= bound) {
      changed.wait(mutex);
    }
    if (!closed) {
      events.push_back(std::move(event));
      changed.notify_all();
    }
  }

  /// The oldest event, or nothing when none came in time.
  std::optional<Event> take(std::chrono::milliseconds atMost) {
    const auto end = std::chrono::steady_clock::now() + atMost;
    const Lock lock(mutex);
    while (events.empty()) {
      if (changed.wait_until(mutex, end) == std::cv_status::timeout && events.empty()) {
        return std::nullopt;
      }
    }
    std::optional<Event> event(std::move(events.front()));
    events.pop_front();
    changed.notify_all();
    return event;
  }

  void close() {
    const Lock lock(mutex);
    closed = true;
    changed.notify_all();
  }

 private:
  Mutex mutex;
  std::condition_variable_any changed;
  std::deque<Event> events KELGW_TOOL_THREAD(guarded_by(mutex));
  bool closed KELGW_TOOL_THREAD(guarded_by(mutex)) = false;
};

}  // namespace kelgw
