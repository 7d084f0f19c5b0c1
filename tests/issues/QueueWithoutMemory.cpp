// The one thread that calls listeners took memory for taking the next record off its queue; when there was
// none, the whole process ended. Between two callbacks it needs none now, and what a callback lacks is the
// callback's trouble.
#include <gtest/gtest.h>

#include <atomic>
#include <cstdlib>
#include <future>
#include <memory>
#include <new>
#include <vector>

#include "session/Dispatcher.h"

namespace {

/// There is nothing left for this thread.
thread_local bool starved = false;

}  // namespace

// Not put in line: the compiler would see one half of a pair and take it for a mistake.
[[gnu::noinline]] void* operator new(std::size_t size) {
  void* const room = starved ? nullptr : std::malloc(size);
  if (room == nullptr) throw std::bad_alloc();
  return room;
}
[[gnu::noinline]] void operator delete(void* at) noexcept {
  std::free(at);
}
[[gnu::noinline]] void operator delete(void* at, std::size_t /*size*/) noexcept {
  std::free(at);
}

namespace {

using namespace kel;

/// Leaves its thread without memory whenever it returns; the first waits until it is let go.
class Starving final : public Target {
 public:
  explicit Starving(std::shared_future<void> go) : go_(std::move(go)) {}
  void deliver(const Event& /*event*/) override {
    starved = false;
    go_.wait();
    starved = true;
    if (++seen == throws) throw std::bad_alloc();
  }
  std::atomic<int> seen{0};
  int throws = 0;

 private:
  std::shared_future<void> go_;
};

TEST(QueueWithoutMemory, GivesEveryRecordToItsListener) {
  constexpr int records = 200;
  std::promise<void> go;
  std::vector<std::shared_ptr<Starving>> targets;
  const std::shared_future<void> gone = go.get_future().share();
  targets.reserve(100);
  for (int i = 0; i < 100; ++i) targets.push_back(std::make_shared<Starving>(gone));
  targets.front()->throws = 3;
  Dispatcher dispatcher(1'000'000, 1'000'000'000);
  const auto tally = std::make_shared<HandOffTally>();
  for (int i = 0; i < records; ++i) {
    for (const auto& target : targets) {
      dispatcher.post(target, Event::data(std::make_shared<Record>(), tally));
    }
  }
  go.set_value();
  while (dispatcher.of(*tally).pending > 0) std::this_thread::yield();
  for (const auto& target : targets) EXPECT_EQ(target->seen, records);
  EXPECT_EQ(dispatcher.total().delivered, std::int64_t{records} * 100);
  EXPECT_EQ(dispatcher.total().exceptions, 1)
      << "what one callback threw, which had memory enough until then";
}

}  // namespace
