// LineWriter: lines to a stream that perhaps nobody reads.
//
// Purpose    A thread of its own writes the lines, in order and each in one run, so that a reader who has
//            stopped reading stops nobody else and one who has gone ends nobody (no SIGPIPE).
// Ownership  Lives as long as the process: the thread, which the first line starts, is never ended.
// Thread     Any.
// Errors     Lines wait for the reader up to a bound; what is beyond it, and what a write refuses, is
//            counted, and the count is said in its place as soon as a line can be written again.
#pragma once

#include <sys/types.h>

#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <deque>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>

class LineWriter {
 public:
  /// The line, with its end, that says how many lines could not be written.
  using LossLine = std::string (*)(unsigned long lines);

  /// Lines that wait for the reader, in bytes; one line alone may be longer.
  static constexpr std::size_t waitingBytes = 1 << 20;

  LineWriter(std::FILE* stream, LossLine lossLine) : stream_(stream), lossLine_(lossLine) {}
  LineWriter(const LineWriter&) = delete;
  LineWriter& operator=(const LineWriter&) = delete;

  /// Returns when the line is written, so that it is not lost when the process ends right after; but waits
  /// only a moment for a reader who does not read, and not at all while lines of before still wait for him.
  void write(std::string line);

 private:
  struct Line {
    std::optional<std::string> text;  ///< none: only the count is to be said
    unsigned long lostBefore;         ///< lines that found no place just before this one
  };

  bool haveThread();
  void run();
  Line next();
  void settle(std::size_t bytes);
  bool put(std::string_view text);
  [[nodiscard]] bool writable() const;

  std::FILE* const stream_;
  const LossLine lossLine_;

  std::mutex mutex_;  // guards what follows
  std::condition_variable something_;
  std::condition_variable settledOne_;
  std::deque<Line> lines_;
  std::size_t bytes_ = 0;          ///< of the lines that wait and of the one being written
  unsigned long lost_ = 0;         ///< found no place since the last line that did
  std::uint64_t accepted_ = 0;     ///< lines that found a place
  std::uint64_t settled_ = 0;      ///< of these, written or refused
  bool patient_ = true;            ///< callers wait for their line
  std::optional<pid_t> threadOf_;  ///< the process that has the thread; a child of it has none

  bool torn_ = false;  ///< the thread's own: a line was refused in its middle
};
