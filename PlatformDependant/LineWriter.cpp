#include "LineWriter.h"

#include <poll.h>
#include <pthread.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <system_error>
#include <thread>
#include <utility>

namespace {

// A reader who has taken nothing for so long does not read. Where the system says that there is room (or
// cannot know, as with files), it is rather the machine that is slow.
constexpr auto moment = std::chrono::milliseconds(100);
constexpr int moments = 10;

/// Waits at most `ms` milliseconds, without limit when negative; 0 when a write would still have to wait.
int awaitRoom(int descriptor, int ms) {
  std::array asked{pollfd{descriptor, POLLOUT, 0}};
  return ::poll(asked.data(), asked.size(), ms);
}

}  // namespace

void LineWriter::write(std::string line) {
  std::unique_lock<std::mutex> lock(mutex_);
  if (!haveThread() || (bytes_ != 0 && bytes_ + line.size() > waitingBytes)) {
    ++lost_;
    return;
  }
  // The last line of a full stream is read before this side knows of it.
  patient_ = patient_ || (lines_.empty() && writable());
  bytes_ += line.size();
  lines_.push_back({std::move(line), std::exchange(lost_, 0)});
  const std::uint64_t mine = ++accepted_;
  something_.notify_one();

  const auto settled = [this, mine] { return settled_ >= mine; };
  for (int i = 0; i < moments && patient_; ++i) {
    if (settledOne_.wait_for(lock, moment, settled) || !writable()) {
      break;
    }
  }
  patient_ = patient_ && settled();
}

bool LineWriter::haveThread() {
  const pid_t process = getpid();
  if (threadOf_ == process) {
    return true;
  }
  // No signal is this thread's business; a reader who has gone shows as an error of the write.
  sigset_t all;
  sigset_t before;
  sigfillset(&all);
  pthread_sigmask(SIG_SETMASK, &all, &before);
  try {
    std::thread([this] { run(); }).detach();
    threadOf_ = process;
  } catch (const std::system_error&) {  // none to be had now; the next line asks again
  }
  pthread_sigmask(SIG_SETMASK, &before, nullptr);
  return threadOf_ == process;
}

void LineWriter::run() {
  unsigned long unsaid = 0;
  for (;;) {
    const Line line = next();
    unsaid += line.lostBefore;
    if (unsaid != 0 && put(lossLine_(unsaid))) {
      unsaid = 0;
    }
    if (line.text) {
      if (!put(*line.text)) {
        ++unsaid;
      }
      settle(line.text->size());
    }
  }
}

LineWriter::Line LineWriter::next() {
  std::unique_lock<std::mutex> lock(mutex_);
  something_.wait(lock, [this] { return !lines_.empty() || lost_ != 0; });
  if (lines_.empty()) {
    return {std::nullopt, std::exchange(lost_, 0)};
  }
  Line line = std::move(lines_.front());
  lines_.pop_front();
  return line;
}

void LineWriter::settle(std::size_t bytes) {
  const std::lock_guard<std::mutex> lock(mutex_);
  bytes_ -= bytes;
  ++settled_;
  patient_ = patient_ || lines_.empty();
  settledOne_.notify_all();
}

bool LineWriter::put(std::string_view text) {
  std::fflush(stream_);  // what others have written to the stream stays before this line
  const std::string ended = torn_ ? "\n" + std::string(text) : std::string();
  std::string_view rest = torn_ ? std::string_view(ended) : text;
  const int descriptor = fileno(stream_);
  while (!rest.empty()) {
    const ssize_t written = ::write(descriptor, rest.data(), rest.size());
    if (written >= 0) {
      rest.remove_prefix(static_cast<std::size_t>(written));
      torn_ = !rest.empty();
    } else if (errno == EAGAIN) {
      awaitRoom(descriptor, -1);
    } else if (errno != EINTR) {
      return false;
    }
  }
  return true;
}

bool LineWriter::writable() const {
  return awaitRoom(fileno(stream_), 0) != 0;
}
