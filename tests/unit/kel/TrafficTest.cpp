// Everything at once: traffic from several threads while links are cut, subscriptions come and go and
// publishers end and begin. What must hold, holds throughout; the thread sanitizer looks on.

#include <random>

#include "KelFixture.h"

namespace kel {
namespace {

using namespace std::chrono_literals;
using testing::KelFixture;

/// Checks the order of what it is told.
class Strict final : public KelSubscriptionListener {
 public:
  explicit Strict(std::atomic<int>& heardByAll) : heard(heardByAll) {}
  void handleMessage(KelSubscription* /*subscription*/, KelData& data) override {
    const InCall inCall(*this);
    if (!connected_ && data.getQuality() != -1) ++faults;
    const std::string publisher = data.getPublisher();
    const std::int64_t sequence = data.getSequence();
    if (publisher == publisher_ && sequence < sequence_) ++faults;
    publisher_ = publisher;
    sequence_ = sequence;
    ++heard;
  }
  void disconnected(KelSubscription* /*subscription*/, char* /*reason*/) override {
    const InCall inCall(*this);
    // Who was told nothing so far may hear that it is not connected.
    if (!connected_ && told_) ++faults;
    told_ = true;
    connected_ = false;
  }
  void connected(KelSubscription* /*subscription*/) override {
    const InCall inCall(*this);
    if (connected_) ++faults;
    told_ = true;
    connected_ = true;
  }
  void handleException(KelSubscription* /*subscription*/, KelException& /*exception*/) override { ++faults; }

  std::atomic<int> faults{0};
  std::atomic<int>& heard;
  std::atomic<bool> released{false};

 private:
  /// One call at a time, none after the release.
  class InCall {
   public:
    explicit InCall(Strict& of) : of_(of) {
      if (of_.inside_.fetch_add(1) != 0 || of_.released) ++of_.faults;
    }
    ~InCall() { --of_.inside_; }
    InCall(const InCall&) = delete;
    InCall& operator=(const InCall&) = delete;

   private:
    Strict& of_;
  };
  std::atomic<int> inside_{0};
  bool connected_ = false;
  bool told_ = false;
  std::string publisher_;
  std::int64_t sequence_ = 0;
};

struct TrafficTest : KelFixture {
  static constexpr int names = 6;
  static std::string nameOf(unsigned long number) { return "x" + std::to_string(number % names); }
};

TEST_F(TrafficTest, KeepsItsPromisesWhileEverythingChanges) {
  constexpr int enough = 5000;
  const auto limit = std::chrono::steady_clock::now() + 60s;
  std::atomic<bool> stop{false};
  std::atomic<int> heard{0};
  std::atomic<int> cuts{0};
  std::deque<Strict> listeners;
  auto subscriber = factory("sub", "s1");
  std::vector<std::thread> threads;
  // Publishers that begin, send, declare bad, and end.
  for (unsigned p = 0; p < 3; ++p) {
    threads.emplace_back([this, p, &stop] {
      std::mt19937 random(p);
      for (int life = 0; !stop; ++life) {
        const auto own =
            factory("pub" + std::to_string(p), "p" + std::to_string(p) + "n" + std::to_string(life));
        std::vector<KelPublication*> publications;
        publications.reserve(names);
        for (int i = 0; i < names; ++i)
          publications.push_back(own->createPublication(nameOf(random()).c_str(), nullptr));
        for (int i = 0; i < 300 && !stop; ++i) {
          KelPublication* publication = publications[random() % publications.size()];
          if (random() % 10 == 0) {
            publication->declareBad("so it is");
          } else {
            send(publication, i);
          }
        }
        own->destroyPublication(publications[random() % publications.size()]);
        EXPECT_TRUE(balanced(own->counters()));
        EXPECT_TRUE(addsUp(*own, false));
      }
    });
  }
  // A network that fails.
  threads.emplace_back([this, &stop, &heard, &cuts] {
    std::mt19937 random(99);
    for (int next = 100; !stop;) {
      advance(50ms);
      if (heard < next) continue;
      next = heard + 100;
      ++cuts;
      const char* const victims[] = {"sub", "pub0", "pub1", "pub2"};
      broker->cut(victims[random() % 4]);
    }
  });
  // Subscriptions that come and go.
  std::mt19937 random(7);
  std::vector<std::pair<KelSubscription*, Strict*>> held;
  while ((heard < enough || cuts < 10) && std::chrono::steady_clock::now() < limit) {
    if (held.size() < 8) {
      Strict& listener = listeners.emplace_back(heard);
      held.emplace_back(subscriber->createSubscription(nameOf(random()).c_str(), &listener), &listener);
    }
    const auto chosen = held.begin() + static_cast<std::ptrdiff_t>(random() % held.size());
    chosen->first->requestResend();
    if (random() % 4 == 0) {
      subscriber->releaseSubscription(chosen->first);
      chosen->second->released = true;
      held.erase(chosen);
    }
    EXPECT_TRUE(balanced(subscriber->counters()));
    EXPECT_TRUE(addsUp(*subscriber, false));
  }
  stop = true;
  for (std::thread& thread : threads) thread.join();
  settle();
  EXPECT_TRUE(balanced(subscriber->counters()));
  subscriber.reset();
  for (const Strict& listener : listeners) EXPECT_EQ(listener.faults, 0);
  EXPECT_GE(heard, enough);
  EXPECT_GE(cuts, 10);
}

}  // namespace
}  // namespace kel
