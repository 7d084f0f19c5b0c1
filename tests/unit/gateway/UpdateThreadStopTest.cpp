// What the thread that sends buffered publications finds when it is woken for its end.
#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <vector>

#include "kelPubGroup.h"

namespace {

/// What is done before this thread signals an event.
thread_local const std::function<void()>* beforeSignal = nullptr;

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

}  // namespace
}  // namespace gateway_test
