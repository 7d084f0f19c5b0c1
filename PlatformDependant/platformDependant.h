// platformDependant: threads, locks, events, reports, assertions and the clock on POSIX.
//
// Purpose    Everything that the gateway asks of the operating system, under its own names.
// Thread     Each class says for itself. The reporting functions and the clock may be used from any thread.
// Units      Milliseconds, unless a name says otherwise.
// Errors     Nothing here throws. Broken invariants end the process through the standard assertion failure.
#pragma once

#include <pthread.h>
#include <sys/time.h>
#include <sys/timeb.h>

#include <atomic>
#include <ctime>
#include <type_traits>

#include "SString.h"
#include "lockAnnotations.h"

/// A thread with a body and a polite stop request.
/// Ownership: the object outlives its thread. Threads are neither joined nor detached.
/// Thread: start and stop belong to the owner; the thread itself clears the handle at its end.
class SThread {
 public:
  SThread() = default;
  SThread(const SThread&) = delete;
  SThread& operator=(const SThread&) = delete;

  /// Runs threadMain on a new thread; on a running one it only takes a stop request back. Does not block.
  void start();
  /// Asks the thread to end and returns at once.
  void stop();
  [[nodiscard]] bool isRunning() const;
  /// Sleeps `n` microseconds. The name says otherwise and callers know it.
  static void msSleep(unsigned long n);

 protected:
  ~SThread() = default;

  /// The body. It looks at shouldStop and returns when that is set.
  virtual void threadMain() = 0;

  /// Handle of the running thread, 0 when none runs. Shared with the thread, which clears it at its end.
  std::atomic<pthread_t> hThread{0};
  std::atomic<bool> shouldStop{false};

 private:
  static void* ThreadLaunch(void* thread);
};

/// A named lock. Not recursive: a thread that locks it twice waits for itself.
class RUNTIME_CAPABILITY("mutex") SMutex {
 public:
  explicit SMutex(const SString& name);
  SMutex(const SMutex&) = delete;
  SMutex& operator=(const SMutex&) = delete;
  virtual ~SMutex();

  void lock() RUNTIME_ACQUIRE();
  void release() RUNTIME_RELEASE();

  [[nodiscard]] const char* getName() const;
  /// Counts the operations of both kinds, lock and release; behind the largest number comes the lowest.
  [[nodiscard]] int getLockCount() const;

 protected:
  std::atomic<int> lockCount;  ///< written by the holder only, read by anybody

 private:
  void countOperation();

  pthread_mutex_t hMutex = PTHREAD_MUTEX_INITIALIZER;
  SString mutexName;
};

/// Holds a lock for as long as it lives.
class RUNTIME_SCOPED_CAPABILITY SmutexGuard {
 public:
  explicit SmutexGuard(SMutex& mutex) RUNTIME_ACQUIRE(mutex);
  SmutexGuard(const SmutexGuard&) = delete;
  SmutexGuard& operator=(const SmutexGuard&) = delete;
  virtual ~SmutexGuard() RUNTIME_RELEASE();

 private:
  SMutex& mux;
};

/// A wake-up that is not lost when nobody waits yet. Several signals before a wait count as one.
class SEvent {
 public:
  static constexpr short signalled = 0;
  static constexpr short timedOut = -1;
  static constexpr short failed = -2;

  explicit SEvent(const SString& name);
  SEvent(const SEvent&) = delete;
  SEvent& operator=(const SEvent&) = delete;
  ~SEvent();

  /// Wakes at most one waiter.
  void signal();
  /// Forgets a signal that nobody has waited for. Takes no lock.
  void clearPending();
  /// Waits once, at most `ms` milliseconds, without limit when negative. A spurious wake-up counts as a
  /// signal.
  short wait(long ms);

  [[nodiscard]] bool isPending() const { return eventPending; }
  [[nodiscard]] const char* getName() const;

  /// The moment `ms` after `now` in whole milliseconds; what is below a millisecond of `now` is dropped.
  [[nodiscard]] static timespec deadlineAfter(const timeval& now, long ms);
  /// The result of wait() for what the system's wait returned.
  [[nodiscard]] static short resultOf(int waitError);

 private:
  pthread_mutex_t hMutex = PTHREAD_MUTEX_INITIALIZER;
  pthread_cond_t hCondition = PTHREAD_COND_INITIALIZER;
  std::atomic<bool> eventPending;  ///< under hMutex, except in clearPending
  SString eventName;
};

namespace runtime {

/// How a conversion of a text and the type of its argument fit together.
template <typename Argument>
constexpr bool conversionFits(char length, char conversion) {
  if constexpr (std::is_same_v<Argument, const char*>) {
    return length == 0 && conversion == 's';
  } else if constexpr (std::is_same_v<Argument, int>) {
    return length == 0 && (conversion == 'd' || conversion == 'i');
  } else if constexpr (std::is_same_v<Argument, unsigned long>) {
    return length == 'l' && conversion == 'u';
  } else {
    return false;
  }
}

/// Whether `text` asks for exactly the arguments given, in their order.
template <typename... Arguments>
consteval bool textFits(const char* text) {
  [[maybe_unused]] const auto next = [&text](auto fits) {
    while (*text != 0 && *text != '%') {
      ++text;
    }
    if (*text == 0) {
      return false;
    }
    ++text;
    const char length = *text == 'l' ? *text++ : '\0';
    return *text != 0 && fits(length, *text++);
  };
  const bool all =
      (next([](char length, char conversion) { return conversionFits<Arguments>(length, conversion); }) &&
       ...);
  while (*text != 0 && *text != '%') {
    ++text;
  }
  return all && *text == 0;
}

/// An error report: the unit and the number by which it is known, and its text. Checked when compiled.
template <typename... Arguments>
struct Report {
  consteval Report(const char* reportUnit, int reportNumber, const char* reportText)
      : unit(reportUnit), number(reportNumber), text(reportText) {
    if (!textFits<Arguments...>(reportText)) {
      throw "the text does not fit the arguments";
    }
  }
  const char* unit;
  int number;
  const char* text;
};

/// An informational line: the unit that prints it and its text. Checked when compiled.
template <typename... Arguments>
struct Notice {
  consteval Notice(const char* noticeUnit, const char* noticeText) : unit(noticeUnit), text(noticeText) {
    if (!textFits<Arguments...>(noticeText)) {
      throw "the text does not fit the arguments";
    }
  }
  const char* unit;
  const char* text;
};

/// A condition that must hold for the process to go on, with the place by which its failure is known.
struct Invariant {
  const char* unit;
  unsigned int number;
  const char* text;
};

/// One uninterrupted run of characters on standard output, written when this returns; a reader who does not
/// read holds nobody up for longer than a moment, and what could not be written is counted and said later.
void writeReport(const char* unit, int number, const char* text, ...);
void writeNotice(const char* text, ...);

/// Prints "ERROR:", the unit and the number, and the text with its arguments.
template <typename... Arguments>
void report(const Report<Arguments...>& what, std::type_identity_t<Arguments>... arguments) {
  writeReport(what.unit, what.number, what.text, arguments...);
}

/// Prints the text with its arguments.
template <typename... Arguments>
void inform(const Notice<Arguments...>& what, std::type_identity_t<Arguments>... arguments) {
  writeNotice(what.text, arguments...);
}

/// Ends the process through the standard assertion failure, in every build type.
[[noreturn]] void failAssertion(const Invariant& broken, const char* function);

/// Does nothing when `holds`; else the process ends. The caller's name is filled in by the compiler.
inline void require(bool holds, const Invariant& invariant, const char* function = __builtin_FUNCTION()) {
  if (!holds) {
    failAssertion(invariant, function);
  }
}

/// The wall clock in seconds and milliseconds since the epoch.
using WallClock = timeb (*)();
[[nodiscard]] timeb wallClockNow();
/// Puts another clock in place, the system's own for null, and returns the one before it. For tests.
WallClock setWallClock(WallClock clock);

}  // namespace runtime
