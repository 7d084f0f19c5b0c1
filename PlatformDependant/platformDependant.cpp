#include "platformDependant.h"

#include <unistd.h>

#include <cassert>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <string>
#include <utility>

#include "LineWriter.h"

namespace {

constexpr runtime::Invariant threadCreated{"platformDependant", 58, "hThread != 0"};
constexpr runtime::Notice<unsigned long> linesNotWritten{
    "platformDependant", "%lu lines could not be written to standard output\n"};

constexpr long msPerSecond = 1000;
constexpr long usPerMs = 1000;
constexpr long nsPerMs = 1'000'000;

}  // namespace

// --- SThread

void SThread::start() {
  shouldStop = false;
  pthread_t running = hThread;
  if (running == 0) {
    if (pthread_create(&running, nullptr, &SThread::ThreadLaunch, this) != 0) {
      running = 0;
    }
    hThread = running;
    hThread.notify_all();
  }
  runtime::require(running != 0, threadCreated);
}

void* SThread::ThreadLaunch(void* thread) {
  auto& self = *static_cast<SThread*>(thread);
  self.hThread.wait(0);  // a body that ends at once must not clear the handle before start() has set it
  self.threadMain();
  self.shouldStop = true;
  self.hThread = 0;  // from here on the object may be gone
  pthread_exit(nullptr);
}

void SThread::stop() {
  shouldStop = true;
}

bool SThread::isRunning() const {
  return hThread != 0;
}

void SThread::msSleep(unsigned long n) {
  usleep(static_cast<useconds_t>(n));
}

// --- SMutex, SmutexGuard

SMutex::SMutex(const SString& name) : lockCount(0), mutexName(name) {}

SMutex::~SMutex() {
  pthread_mutex_destroy(&hMutex);
}

void SMutex::lock() RUNTIME_NO_LOCK_ANALYSIS {  // the lock itself
  pthread_mutex_lock(&hMutex);
  countOperation();
}

void SMutex::release() RUNTIME_NO_LOCK_ANALYSIS {  // the lock itself
  countOperation();
  pthread_mutex_unlock(&hMutex);
}

void SMutex::countOperation() {
  lockCount.fetch_add(1, std::memory_order_relaxed);  // begins anew at the lowest number, by definition
}

const char* SMutex::getName() const {
  return mutexName.getString();
}

int SMutex::getLockCount() const {
  return lockCount.load(std::memory_order_relaxed);
}

SmutexGuard::SmutexGuard(SMutex& mutex) : mux(mutex) {
  mux.lock();
}

SmutexGuard::~SmutexGuard() {
  mux.release();
}

// --- SEvent

SEvent::SEvent(const SString& name) : eventPending(false), eventName(name) {}

SEvent::~SEvent() {
  pthread_cond_destroy(&hCondition);
  pthread_mutex_destroy(&hMutex);
}

void SEvent::signal() {
  pthread_mutex_lock(&hMutex);
  eventPending = true;
  pthread_cond_signal(&hCondition);
  pthread_mutex_unlock(&hMutex);
}

void SEvent::clearPending() {
  eventPending = false;
}

short SEvent::wait(long ms) {
  pthread_mutex_lock(&hMutex);
  int waitError = 0;
  if (!eventPending) {
    if (ms < 0) {
      waitError = pthread_cond_wait(&hCondition, &hMutex);
    } else {
      timeval now{};
      gettimeofday(&now, nullptr);
      const timespec deadline = deadlineAfter(now, ms);
      waitError = pthread_cond_timedwait(&hCondition, &hMutex, &deadline);
    }
  }
  eventPending = false;
  pthread_mutex_unlock(&hMutex);
  return resultOf(waitError);
}

timespec SEvent::deadlineAfter(const timeval& now, long ms) {
  const long totalMs = ms % msPerSecond + now.tv_usec / usPerMs;
  timespec deadline{};
  deadline.tv_sec = now.tv_sec + ms / msPerSecond + totalMs / msPerSecond;
  deadline.tv_nsec = (totalMs % msPerSecond) * nsPerMs;
  return deadline;
}

short SEvent::resultOf(int waitError) {
  switch (waitError) {
    case 0:
      return signalled;
    case ETIMEDOUT:
      return timedOut;
    default:
      return failed;
  }
}

const char* SEvent::getName() const {
  return eventName.getString();
}

// --- reports

namespace {

void appendFormatted(std::string& out, const char* text, va_list arguments) {
  va_list again;
  va_copy(again, arguments);
  const int length = std::vsnprintf(nullptr, 0, text, arguments);
  if (length > 0) {
    const std::size_t before = out.size();
    out.resize(before + static_cast<std::size_t>(length));
    std::vsnprintf(out.data() + before, static_cast<std::size_t>(length) + 1, text, again);
  }
  va_end(again);
}

std::string formatted(const char* text, ...) {
  std::string out;
  va_list arguments;
  va_start(arguments, text);
  appendFormatted(out, text, arguments);
  va_end(arguments);
  return out;
}

std::string linesLost(unsigned long lines) {
  return formatted(linesNotWritten.text, lines);
}

void writeToStandardOutput(std::string text) {
  // Never destroyed: static objects still report while they go.
  static auto* const output = new LineWriter(stdout, &linesLost);
  output->write(std::move(text));
}

}  // namespace

namespace runtime {

void writeReport(const char* unit, int number, const char* text, ...) {
  std::string out = "ERROR: ";
  out.append(unit).append(" ").append(std::to_string(number)).append(" ");
  va_list arguments;
  va_start(arguments, text);
  appendFormatted(out, text, arguments);
  va_end(arguments);
  writeToStandardOutput(std::move(out));
}

void writeNotice(const char* text, ...) {
  std::string out;
  va_list arguments;
  va_start(arguments, text);
  appendFormatted(out, text, arguments);
  va_end(arguments);
  writeToStandardOutput(std::move(out));
}

void failAssertion(const Invariant& broken, const char* function) {
  __assert_fail(broken.text, broken.unit, broken.number, function);
}

// --- the clock

namespace {

timeb systemClock() {
  timespec now{};
  clock_gettime(CLOCK_REALTIME, &now);
  timeb result{};
  result.time = now.tv_sec;
  result.millitm = static_cast<unsigned short>(now.tv_nsec / nsPerMs);
  return result;
}

constinit std::atomic<WallClock> currentClock{&systemClock};

}  // namespace

timeb wallClockNow() {
  return currentClock.load()();
}

WallClock setWallClock(WallClock clock) {
  return currentClock.exchange(clock != nullptr ? clock : &systemClock);
}

}  // namespace runtime
