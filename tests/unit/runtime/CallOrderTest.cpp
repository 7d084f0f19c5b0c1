// In which order the runtime layer calls the system, and what another thread would see of the object just
// then. The calls are those of this program alone: the linker puts the functions below in their place.
#include <gtest/gtest.h>
#include <linux/futex.h>
#include <sched.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <functional>
#include <memory>
#include <new>
#include <string>
#include <utility>
#include <vector>

#include "platformDependant.h"

namespace {

using Watch = std::function<void(const std::string& call)>;
using Calls = std::vector<std::string>;

thread_local const Watch* watching = nullptr;
std::atomic<int> threadsThatWaited{0};
std::atomic<bool> noThreads{false};

void tell(const char* call) {
  if (const Watch* const watch =
          std::exchange(watching, nullptr)) {  // what the watch itself calls is not told
    (*watch)(call);
    watching = watch;
  }
}

/// Has the calls of this thread told, each before it is made, for as long as this lives.
class Watching {
 public:
  explicit Watching(Watch watch) : watch_(std::move(watch)) { watching = &watch_; }
  ~Watching() { watching = nullptr; }
  Watching(const Watching&) = delete;
  Watching& operator=(const Watching&) = delete;

 private:
  const Watch watch_;
};

}  // namespace

// NOLINTBEGIN(bugprone-reserved-identifier,cert-dcl37-c,cert-dcl51-cpp): the names that the linker gives them
extern "C" {
int __real_pthread_mutex_lock(pthread_mutex_t* mutex);
int __real_pthread_mutex_unlock(pthread_mutex_t* mutex);
int __real_pthread_mutex_destroy(pthread_mutex_t* mutex);
int __real_pthread_cond_signal(pthread_cond_t* condition);
int __real_pthread_cond_wait(pthread_cond_t* condition, pthread_mutex_t* mutex);
int __real_pthread_cond_timedwait(pthread_cond_t* condition, pthread_mutex_t* mutex,
                                  const timespec* deadline);
int __real_pthread_cond_destroy(pthread_cond_t* condition);
int __real_pthread_create(pthread_t* thread, const pthread_attr_t* how, void* (*body)(void*), void* argument);
[[noreturn]] void __real_pthread_exit(void* result);
long __real_syscall(long number, long a, long b, long c, long d, long e, long f);

int __wrap_pthread_mutex_lock(pthread_mutex_t* mutex) {
  tell("lock");
  return __real_pthread_mutex_lock(mutex);
}
int __wrap_pthread_mutex_unlock(pthread_mutex_t* mutex) {
  tell("unlock");
  return __real_pthread_mutex_unlock(mutex);
}
int __wrap_pthread_mutex_destroy(pthread_mutex_t* mutex) {
  tell("destroy the mutex");
  return __real_pthread_mutex_destroy(mutex);
}
int __wrap_pthread_cond_signal(pthread_cond_t* condition) {
  tell("signal");
  return __real_pthread_cond_signal(condition);
}
int __wrap_pthread_cond_wait(pthread_cond_t* condition, pthread_mutex_t* mutex) {
  tell("wait");
  return __real_pthread_cond_wait(condition, mutex);
}
int __wrap_pthread_cond_timedwait(pthread_cond_t* condition, pthread_mutex_t* mutex,
                                  const timespec* deadline) {
  tell("wait until");
  return __real_pthread_cond_timedwait(condition, mutex, deadline);
}
int __wrap_pthread_cond_destroy(pthread_cond_t* condition) {
  tell("destroy the condition");
  return __real_pthread_cond_destroy(condition);
}
int __wrap_pthread_create(pthread_t* thread, const pthread_attr_t* how, void* (*body)(void*),
                          void* argument) {
  if (noThreads) {
    *thread = 1;  // what is there after a failure is not defined
    return EAGAIN;
  }
  const int result = __real_pthread_create(thread, how, body, argument);
  tell("created");
  return result;
}
[[noreturn]] void __wrap_pthread_exit(void* result) {
  tell("exit");
  __real_pthread_exit(result);
}
long __wrap_syscall(long number, long a, long b, long c, long d, long e, long f) {
  if (number == SYS_futex && (b & FUTEX_CMD_MASK) == FUTEX_WAIT) {
    ++threadsThatWaited;
  }
  if (number == SYS_futex && (b & FUTEX_CMD_MASK) == FUTEX_WAKE) {
    tell("wake");
  }
  return __real_syscall(number, a, b, c, d, e, f);
}
}
// NOLINTEND(bugprone-reserved-identifier,cert-dcl37-c,cert-dcl51-cpp)

namespace {

TEST(MutexCalls, operationsAreCountedWhileTheLockIsHeld) {
  SMutex mutex("m");
  Calls calls;
  {
    const Watching watched([&mutex, &calls](const std::string& call) {
      calls.push_back(call + " at " + std::to_string(mutex.getLockCount()));
    });
    mutex.lock();
    mutex.release();
  }
  EXPECT_EQ(calls, (Calls{"lock at 0", "unlock at 2"}));
}

TEST(MutexCalls, aMutexIsGivenBack) {
  auto mutex = std::make_unique<SMutex>("m");
  Calls calls;
  {
    const Watching watched([&calls](const std::string& call) { calls.push_back(call); });
    mutex.reset();
  }
  EXPECT_EQ(calls, Calls{"destroy the mutex"});
}

class EventCalls : public testing::Test {
 protected:
  [[nodiscard]] Calls of(const std::function<void()>& action) {
    Calls calls;
    const Watching watched([this, &calls](const std::string& call) {
      calls.push_back(call + (event->isPending() ? ", pending" : ""));
    });
    action();
    return calls;
  }
  std::unique_ptr<SEvent> event = std::make_unique<SEvent>("e");
};

TEST_F(EventCalls, aSignalIsSetUnderTheLockAndBeforeAnybodyWakes) {
  EXPECT_EQ(of([this] { event->signal(); }), (Calls{"lock", "signal, pending", "unlock, pending"}));
}

TEST_F(EventCalls, aSignalIsTakenUnderTheLock) {
  event->signal();
  EXPECT_EQ(of([this] { event->wait(-1); }), (Calls{"lock, pending", "unlock"}));
}

TEST_F(EventCalls, aWaitIsUnderTheLock) {
  EXPECT_EQ(of([this] { event->wait(0); }), (Calls{"lock", "wait until", "unlock"}));
}

TEST_F(EventCalls, whatAnEventIsMadeOfIsGivenBack) {
  Calls calls;
  {
    const Watching watched([&calls](const std::string& call) { calls.push_back(call); });
    event.reset();
  }
  EXPECT_EQ(calls, (Calls{"destroy the condition", "destroy the mutex"}));
}

class Worker final : public SThread {
 public:
  explicit Worker(std::function<void()> body) : body_(std::move(body)) {}
  ~Worker() { awaitEnd(); }
  void awaitEnd() const {
    while (isRunning()) {
      sched_yield();
    }
  }
  [[nodiscard]] const std::atomic<bool>& stopRequested() const { return shouldStop; }

 private:
  void threadMain() override { body_(); }
  const std::function<void()> body_;
};

TEST(ThreadCalls, theThreadWaitsForItsHandleAndIsWokenWhenItIsThere) {
  std::atomic<bool> begun{false};
  Worker worker([&begun] { begun = true; });
  const int before = threadsThatWaited;
  Calls calls;
  {
    const Watching watched([&](const std::string& call) {
      while (call == "created" && threadsThatWaited == before && !begun) {
        sched_yield();
      }
      calls.push_back(call + (begun ? ", begun" : "") + (worker.isRunning() ? ", running" : ""));
    });
    worker.start();
  }
  EXPECT_EQ(calls, (Calls{"created", "wake, running"}));
}

TEST(ThreadCalls, theThreadEndsWhenItNoLongerRuns) {
  static Calls calls;  // told when the worker may be gone, were it not static, too
  static std::atomic<bool> told{false};
  static Worker* worker = nullptr;
  static const Watch watch = [](const std::string& call) {
    calls.push_back(call + (worker->isRunning() ? ", running" : "") +
                    (worker->stopRequested() ? ", stopped" : ""));
    told = true;
  };
  static Worker endsByItself([] { watching = &watch; });
  worker = &endsByItself;
  endsByItself.start();
  while (!told) {
    sched_yield();
  }
  EXPECT_EQ(calls, Calls{"exit, stopped"});
}

TEST(ThreadCallsDeathTest, theHandleOfAThreadThatThereIsNotIsNotLookedAt) {
  testing::GTEST_FLAG(death_test_style) = "threadsafe";
  EXPECT_DEATH(
      {
        Worker worker([] {});
        noThreads = true;
        worker.start();
      },
      "platformDependant:58: .*start.*: Assertion `hThread != 0' failed");
}

/// A page of its own for an object; after protect() the first write to it is noted and lets the page be
/// written to.
class WatchedPage {
 public:
  WatchedPage() {
    size = static_cast<std::size_t>(sysconf(_SC_PAGESIZE));
    page =
        static_cast<char*>(mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
    struct sigaction action {};
    action.sa_sigaction = &noteWrite;
    action.sa_flags = SA_SIGINFO;
    sigaction(SIGSEGV, &action, &before_);
  }
  ~WatchedPage() {
    sigaction(SIGSEGV, &before_, nullptr);
    munmap(page, size);
  }
  WatchedPage(const WatchedPage&) = delete;
  WatchedPage& operator=(const WatchedPage&) = delete;

  [[nodiscard]] static char* memory() { return page; }
  static void protect() { mprotect(page, size, PROT_READ); }
  [[nodiscard]] static const void* firstWrite() { return first; }

 private:
  static void noteWrite(int signal, siginfo_t* what, void* /*context*/) {
    const char* const at = static_cast<const char*>(what->si_addr);
    if (at < page || at >= page + size) {
      std::signal(signal, SIG_DFL);  // somebody else's; happens again
      return;
    }
    first = at;
    mprotect(page, size, PROT_READ | PROT_WRITE);
  }
  struct sigaction before_ {};
  static inline char* page = nullptr;
  static inline std::size_t size = 0;
  static inline std::atomic<const void*> first{nullptr};
};

TEST(ThreadCalls, theHandleIsClearedLastForTheObjectMayBeGoneThen) {
  const WatchedPage page;
  auto* const worker = new (WatchedPage::memory()) Worker(&WatchedPage::protect);
  worker->start();
  worker->awaitEnd();
  EXPECT_EQ(WatchedPage::firstWrite(), &worker->stopRequested());
  worker->~Worker();
}

}  // namespace
