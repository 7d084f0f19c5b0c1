// RecordingListener: writes down what a transport reports, and lets a test wait for it without sleeping.
#pragma once

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <map>
#include <mutex>
#include <set>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "transport/KelTransport.h"

namespace kel::testing {

class RecordingListener : public TransportListener {
 public:
  struct Message {
    std::string topic;
    std::string payload;
    bool retained = false;
  };
  struct TooLarge {
    std::size_t size = 0;
    std::size_t limit = 0;
    bool endsLink = false;
    bool operator==(const TooLarge&) const = default;
  };
  /// What has been reported so far; a test reads it inside waitFor() or through snapshot().
  struct Record {
    int ups = 0;
    std::vector<std::string> downs;
    std::vector<std::string> failures;  ///< attempts to connect that came to nothing
    std::vector<Message> messages;
    std::map<std::uint64_t, std::string> published;   ///< token to failure text
    std::map<std::uint64_t, std::string> subscribed;  ///< likewise
    std::map<std::uint64_t, TooLarge> oversized;      ///< of `published`, those refused for their size
    std::vector<std::uint64_t> publishedInOrder;
    std::uint64_t ticks = 0;
    std::chrono::milliseconds longestWithoutTick{0};
    std::set<std::thread::id> threads;
    bool overlapped = false;  ///< two calls at a time, or one inside another
  };

  /// Runs on the transport's thread inside message(), after it was written down. Set before the start.
  std::function<void(const Message&)> onMessage;
  /// Likewise inside up().
  std::function<void()> onUp;

  void up() override {
    note([&] { ++record_.ups; });
    if (onUp) onUp();
    leave();
  }
  void down(std::string_view reason) override {
    note([&] { record_.downs.emplace_back(reason); });
    leave();
  }
  void unreachable(std::string_view reason) override {
    note([&] { record_.failures.emplace_back(reason); });
    leave();
  }
  void message(std::string_view topic, std::string_view payload, bool retained) override {
    const Message message{std::string(topic), std::string(payload), retained};
    note([&] { record_.messages.push_back(message); });
    if (onMessage) onMessage(message);
    leave();
  }
  void published(std::uint64_t token, std::string_view failure) override {
    note([&] {
      record_.published[token] = failure;
      record_.publishedInOrder.push_back(token);
    });
    leave();
  }
  void oversize(std::uint64_t token, const Oversize& what) override {
    note([&] {
      record_.oversized[token] = {what.size, what.limit, what.endsLink};
      record_.published[token] = what.failure;
      record_.publishedInOrder.push_back(token);
    });
    leave();
  }
  void subscribed(std::uint64_t token, std::string_view failure) override {
    note([&] { record_.subscribed[token] = failure; });
    leave();
  }
  void tick(std::chrono::steady_clock::time_point now) override {
    note([&] {
      if (record_.ticks > 0) {
        record_.longestWithoutTick =
            std::max(record_.longestWithoutTick,
                     std::chrono::duration_cast<std::chrono::milliseconds>(now - lastTick_));
      }
      lastTick_ = now;
      ++record_.ticks;
    });
    leave();
  }

  /// True once `holds` does; false if that takes longer than `limit`.
  bool waitFor(const std::function<bool(const Record&)>& holds,
               std::chrono::milliseconds limit = std::chrono::seconds(20)) {
    std::unique_lock lock(mutex_);
    return changed_.wait_for(lock, limit, [&] { return holds(record_); });
  }
  Record snapshot() {
    const std::lock_guard lock(mutex_);
    return record_;
  }

 private:
  template <typename Change>
  void note(Change change) {
    const bool alone = inside_.fetch_add(1) == 0;
    {
      const std::lock_guard lock(mutex_);
      record_.overlapped |= !alone;
      record_.threads.insert(std::this_thread::get_id());
      change();
    }
    changed_.notify_all();
  }
  void leave() { inside_.fetch_sub(1); }

  std::atomic<int> inside_{0};
  std::mutex mutex_;
  std::condition_variable changed_;
  Record record_;
  std::chrono::steady_clock::time_point lastTick_{};
};

}  // namespace kel::testing
