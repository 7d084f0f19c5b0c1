// What the tests of LineWriter share: a pipe behind one, and a hand on its thread.
#pragma once

#include <fcntl.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <sched.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cstdio>
#include <fstream>
#include <functional>
#include <limits>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "LineWriter.h"

namespace test_support {

/// Run once, by the writer's thread and outside of its lock, when it is about to say a loss. To be set before
/// the last line is handed to the writer.
inline std::function<void()>& atLoss() {
  static std::function<void()> action;
  return action;
}

inline std::string lossLine(unsigned long lines) {
  if (const auto action = std::exchange(atLoss(), {})) {
    action();
  }
  return std::to_string(lines) + " lost\n";
}

/// Its thread never ends, so neither may the writer and its stream.
inline LineWriter* writerTo(std::FILE* stream) {
  static auto* const all = new std::vector<LineWriter*>;
  all->push_back(new LineWriter(stream, &lossLine));
  return all->back();
}

/// A pipe, a stream on its writing end, and a writer of lines that lives as long as the process. So does the
/// pipe: with its reader gone, what is left in the writer would be refused, and be said as a loss in the
/// middle of a later test.
class Pipe {
 public:
  Pipe() {
    EXPECT_EQ(pipe(ends_.data()), 0);
    writer_ = writerTo(fdopen(ends_[1], "w"));
  }
  Pipe(const Pipe&) = delete;
  Pipe& operator=(const Pipe&) = delete;

  void write(const std::string& line) { writer_->write(line); }
  void closeReader() {
    if (ends_[0] >= 0) {
      close(ends_[0]);
      ends_[0] = -1;
    }
  }
  /// Whether a write into the pipe waits for room or is refused.
  void setNonBlocking(bool wanted) const { setNonBlocking(ends_[1], wanted); }
  /// Fills the pipe to the last byte.
  void fill() const {
    setNonBlocking(true);
    const std::string block(4096, '#');
    std::size_t size = block.size();
    while (size != 0) {
      if (::write(ends_[1], block.data(), size) < 0) size /= 2;
    }
    setNonBlocking(false);
  }
  /// Everything up to and with `end`, without what fill() has put there.
  [[nodiscard]] std::string readUpTo(const std::string& end) const {
    std::string seen;
    while (seen.find(end) == std::string::npos) {
      if (!readSome(seen)) return seen + "<end>";
    }
    return seen;
  }
  /// The same without waiting for anything.
  [[nodiscard]] std::string readWhatIsThere() const {
    std::string seen;
    setNonBlocking(ends_[0], true);
    while (readSome(seen)) {
    }
    setNonBlocking(ends_[0], false);
    return seen;
  }

 private:
  static void setNonBlocking(int end, bool wanted) {
    const int flags = fcntl(end, F_GETFL);
    fcntl(end, F_SETFL, wanted ? flags | O_NONBLOCK : flags & ~O_NONBLOCK);
  }
  bool readSome(std::string& seen) const {
    std::array<char, 4096> some{};
    const ssize_t count = read(ends_[0], some.data(), some.size());
    const std::string_view piece(some.data(), static_cast<std::size_t>(std::max<ssize_t>(count, 0)));
    for (std::size_t from = piece.find_first_not_of('#'); from < piece.size();) {
      const std::size_t to = std::min(piece.find('#', from), piece.size());
      seen += piece.substr(from, to - from);
      from = std::min(piece.find_first_not_of('#', to), piece.size());
    }
    return count > 0;
  }

  std::array<int, 2> ends_{};
  LineWriter* writer_ = nullptr;
};

/// A line of what the system says of the thread, without its name.
inline std::string statusOf(pid_t thread, const std::string& name) {
  std::ifstream status("/proc/self/task/" + std::to_string(thread) + "/status");
  for (std::string line; std::getline(status, line);) {
    if (line.starts_with(name)) {
      return line.substr(line.find_first_not_of(" \t", name.size()));
    }
  }
  ADD_FAILURE() << "no thread " << thread;
  return "0";
}

/// How often the thread has gone to wait so far.
inline long timesWaited(pid_t thread) {
  return std::stol(statusOf(thread, "voluntary_ctxt_switches:"));
}

/// Whether the thread waits for something, at this moment.
inline bool waits(pid_t thread) {
  return statusOf(thread, "State:").starts_with('S');
}

/// How often the caller goes to wait while the line is written.
inline long waitsToWrite(Pipe& to, const std::string& line) {
  const long before = timesWaited(gettid());
  to.write(line);
  return timesWaited(gettid()) - before;
}

/// Holds the thread of the writer that says a loss next, just before it says it.
class HoldAtLoss {
 public:
  HoldAtLoss() {
    atLoss() = [this] {
      thread_ = gettid();
      while (timesWaited(caller_) < until_) {
        sched_yield();
      }
      left_ = true;
    };
  }
  ~HoldAtLoss() {
    release();
    while (!left_) {
      sched_yield();
    }
  }
  HoldAtLoss(const HoldAtLoss&) = delete;
  HoldAtLoss& operator=(const HoldAtLoss&) = delete;

  /// Returns when the writer's thread is held; gives its id.
  [[nodiscard]] pid_t awaitHeld() const {
    while (thread_ == 0) {
      sched_yield();
    }
    return thread_;
  }
  /// Lets it go on as soon as this thread has gone to wait `times` more times.
  void releaseWhenWaited(long times) { until_ = timesWaited(caller_) + times; }
  void release() { until_ = 0; }

 private:
  const pid_t caller_ = gettid();
  std::atomic<long> until_{std::numeric_limits<long>::max()};
  std::atomic<pid_t> thread_{0};
  std::atomic<bool> left_{false};
};

/// No thread can be had for as long as this lives.
class NoNewThreads {
 public:
  NoNewThreads() {
    pthread_getattr_default_np(&before_);
    pthread_attr_t attributes;
    pthread_attr_init(&attributes);
    pthread_attr_setstacksize(&attributes, std::size_t{1} << 60);  // no system has that much
    EXPECT_EQ(pthread_setattr_default_np(&attributes), 0);
    pthread_attr_destroy(&attributes);
  }
  ~NoNewThreads() {
    EXPECT_EQ(pthread_setattr_default_np(&before_), 0);
    pthread_attr_destroy(&before_);
  }
  NoNewThreads(const NoNewThreads&) = delete;
  NoNewThreads& operator=(const NoNewThreads&) = delete;

 private:
  pthread_attr_t before_{};
};

}  // namespace test_support
