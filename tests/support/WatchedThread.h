// WatchedThread: a thread that a test can see waiting, so that "it waits for the lock" is looked at and not
// guessed from time that passed.
#pragma once

#include <sched.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <fstream>
#include <functional>
#include <string>
#include <thread>

namespace test_support {

class WatchedThread {
 public:
  explicit WatchedThread(std::function<void()> body)
      : thread_([this, run = std::move(body)] {
          id_ = static_cast<pid_t>(syscall(SYS_gettid));
          run();
          ended_ = true;
        }) {}
  ~WatchedThread() { join(); }
  WatchedThread(const WatchedThread&) = delete;
  WatchedThread& operator=(const WatchedThread&) = delete;

  void join() {
    if (thread_.joinable()) {
      thread_.join();
    }
  }
  [[nodiscard]] bool ended() const { return ended_; }
  /// Whether the body runs and waits for something in the kernel, at this moment.
  [[nodiscard]] bool waits() const { return id_ != 0 && !ended_ && field("State:").starts_with("S"); }
  /// How often the thread went to wait so far.
  [[nodiscard]] std::string timesWaited() const { return field("voluntary_ctxt_switches:"); }
  /// Returns when the thread waits or has ended; true when it waits.
  bool comesToWait() const {
    while (!ended_ && !waits()) {
      sched_yield();
    }
    return !ended_;
  }
  /// The same for a lock: what waits for an event, a time or a reader goes on by itself.
  bool comesToWaitForALock() const {
    while (!ended_ && !waitsForALock()) {
      sched_yield();
    }
    return !ended_;
  }

 private:
  [[nodiscard]] bool waitsForALock() const {
    if (id_ == 0) {
      return false;
    }
    // "number address operation ...": locks wait with the plain operation, condition variables with another.
    std::ifstream call("/proc/self/task/" + std::to_string(id_.load()) + "/syscall");
    std::string number;
    std::string address;
    std::string operation;
    call >> number >> address >> operation;
    return number == std::to_string(SYS_futex) && operation == "0x80";
  }
  [[nodiscard]] std::string field(const std::string& name) const {
    std::ifstream status("/proc/self/task/" + std::to_string(id_.load()) + "/status");
    for (std::string line; std::getline(status, line);) {
      if (line.starts_with(name)) {
        return line.substr(line.find_first_not_of(" \t", name.size()));
      }
    }
    return {};
  }

  std::atomic<pid_t> id_{0};
  std::atomic<bool> ended_{false};
  std::thread thread_;  // the last member: the body uses the others
};

}  // namespace test_support
