// Mutexes whose promises the compiler holds (clang's thread-safety analysis; nothing for other compilers).
#pragma once

#include <chrono>
#include <condition_variable>
#include <mutex>

#if defined(__clang__)
#define KEL_TSA(x) __attribute__((x))
#else
#define KEL_TSA(x)
#endif

#define KEL_CAPABILITY(x) KEL_TSA(capability(x))
#define KEL_SCOPED_CAPABILITY KEL_TSA(scoped_lockable)
#define KEL_GUARDED_BY(x) KEL_TSA(guarded_by(x))
#define KEL_REQUIRES(...) KEL_TSA(requires_capability(__VA_ARGS__))
#define KEL_EXCLUDES(...) KEL_TSA(locks_excluded(__VA_ARGS__))
#define KEL_ACQUIRE(...) KEL_TSA(acquire_capability(__VA_ARGS__))
#define KEL_RELEASE(...) KEL_TSA(release_capability(__VA_ARGS__))

namespace kel {

class KEL_CAPABILITY("mutex") Mutex {
 public:
  void lock() KEL_ACQUIRE() { mutex_.lock(); }
  void unlock() KEL_RELEASE() { mutex_.unlock(); }

 private:
  friend class Condition;
  std::mutex mutex_;
};

class KEL_SCOPED_CAPABILITY MutexLock {
 public:
  explicit MutexLock(Mutex& mutex) KEL_ACQUIRE(mutex) : mutex_(mutex) { mutex_.lock(); }
  ~MutexLock() KEL_RELEASE() { mutex_.unlock(); }
  MutexLock(const MutexLock&) = delete;
  MutexLock& operator=(const MutexLock&) = delete;

 private:
  Mutex& mutex_;
};

/// Says that the mutex is held where the analysis cannot see it: in a lambda called under the lock.
class KEL_SCOPED_CAPABILITY MutexHeld {
 public:
  explicit MutexHeld(Mutex& mutex) KEL_ACQUIRE(mutex) { static_cast<void>(mutex); }
  ~MutexHeld() KEL_RELEASE() {}  // NOLINT(modernize-use-equals-default)
  MutexHeld(const MutexHeld&) = delete;
  MutexHeld& operator=(const MutexHeld&) = delete;
};

/// Waits with the mutex released and has it again on return; the caller loops on what it waits for.
class Condition {
 public:
  void wait(Mutex& mutex) KEL_REQUIRES(mutex) {
    std::unique_lock<std::mutex> lock(mutex.mutex_, std::adopt_lock);
    condition_.wait(lock);
    lock.release();
  }
  /// False when the time is over.
  bool waitUntil(Mutex& mutex, std::chrono::steady_clock::time_point end) KEL_REQUIRES(mutex) {
    std::unique_lock<std::mutex> lock(mutex.mutex_, std::adopt_lock);
    const bool inTime = condition_.wait_until(lock, end) == std::cv_status::no_timeout;
    lock.release();
    return inTime;
  }
  void notifyOne() { condition_.notify_one(); }
  void notifyAll() { condition_.notify_all(); }

 private:
  std::condition_variable condition_;
};

}  // namespace kel
