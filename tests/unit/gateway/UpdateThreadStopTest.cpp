// What the thread that sends buffered publications finds when it is woken for its end.
#include <gtest/gtest.h>
#include <sched.h>

#include <atomic>
#include <functional>
#include <string>
#include <vector>

#include "kelPubGroup.h"

namespace {

/// What is done before this thread signals an event.
thread_local const std::function<void()>* beforeSignal = nullptr;

/// As long as this is more than nothing, whoever has waited for an event stands still; each sleep takes one.
std::atomic<int> sleepsToGo{0};
std::atomic<int> waits{0};

}  // namespace

// NOLINTBEGIN(bugprone-reserved-identifier,cert-dcl37-c,cert-dcl51-cpp): the names that the linker asks for.
extern "C" {
void __real__ZN6SEvent6signalEv(SEvent* event);

void __wrap__ZN6SEvent6signalEv(SEvent* event);
void __wrap__ZN6SEvent6signalEv(SEvent* event) {
  if (beforeSignal != nullptr) {
    (*beforeSignal)();
  }
  __real__ZN6SEvent6signalEv(event);
}

short __real__ZN6SEvent4waitEl(SEvent* event, long ms);

short __wrap__ZN6SEvent4waitEl(SEvent* event, long ms);
short __wrap__ZN6SEvent4waitEl(SEvent* event, long ms) {
  ++waits;
  const short result = __real__ZN6SEvent4waitEl(event, ms);
  while (sleepsToGo > 0) {
    sched_yield();
  }
  return result;
}

void __real__ZN7SThread7msSleepEm(unsigned long n);

void __wrap__ZN7SThread7msSleepEm(unsigned long n);
void __wrap__ZN7SThread7msSleepEm(unsigned long n) {
  --sleepsToGo;
  __real__ZN7SThread7msSleepEm(n);
}
}
// NOLINTEND(bugprone-reserved-identifier,cert-dcl37-c,cert-dcl51-cpp)

namespace gateway_test {
namespace {

class StopRequest : public SThread {
 public:
  static bool of(const SThread& thread) { return thread.*&StopRequest::shouldStop; }

 protected:
  ~StopRequest() = default;
};

TEST(UpdateThreadStop, isAskedForBeforeTheThreadIsWoken) {
  // Woken before, it could come to wait again, and nobody would wake it then.
  PublicationUpdateThread thread;
  thread.start();
  std::vector<std::string> atSignal;
  const std::function<void()> look = [&] {
    atSignal.emplace_back(StopRequest::of(thread) ? "asked" : "not asked");
  };
  beforeSignal = &look;
  thread.stopInOrder();
  beforeSignal = nullptr;
  EXPECT_EQ(atSignal, std::vector<std::string>{"asked"});
  EXPECT_FALSE(thread.isRunning());
}

TEST(UpdateThreadStop, waitsForAThreadThatTakesItsTime) {
  PublicationUpdateThread thread;
  sleepsToGo = 3;
  const int before = waits;
  thread.start();
  while (waits == before) {
    sched_yield();
  }
  thread.stopInOrder();
  EXPECT_LE(sleepsToGo, 0);
  EXPECT_FALSE(thread.isRunning());
  sleepsToGo = 0;
}

}  // namespace
}  // namespace gateway_test
