// What a record costs from send() to handleMessage() on the in-process broker: all threads' processor time.
//
// items_per_second counts fields.
#include <benchmark/benchmark.h>
#include <kel/Kel.h>

#include <atomic>
#include <memory>
#include <string>
#include <thread>
#include <vector>

namespace {

class Counting final : public KelSubscriptionListener {
 public:
  explicit Counting(const std::vector<std::string>& tags) : tags_(tags) {}
  void handleMessage(KelSubscription* /*subscription*/, KelData& data) override {
    double sum = 0;
    for (const std::string& tag : tags_) sum += data.extractDouble(tag.c_str());
    benchmark::DoNotOptimize(sum);
    received.fetch_add(1, std::memory_order_release);
  }
  void disconnected(KelSubscription* /*subscription*/, char* /*reason*/) override {}
  void connected(KelSubscription* /*subscription*/) override {}
  void handleException(KelSubscription* /*subscription*/, KelException& /*exception*/) override {}

  std::atomic<std::int64_t> received{0};

 private:
  const std::vector<std::string>& tags_;
};

void throughTheBroker(benchmark::State& state) {
  std::vector<std::string> tags;
  for (std::int64_t i = 0; i < state.range(0); ++i) tags.push_back("boiler.temperature" + std::to_string(i));
  Counting listener(tags);
  KelOptions options;
  options.url = "loopback:bench" + std::to_string(state.range(0));
  const std::unique_ptr<KelFactory> subscriber(Kel::create(nullptr, options));
  const std::unique_ptr<KelFactory> publisher(Kel::create(nullptr, options));
  subscriber->createSubscription("x", &listener);
  KelPublication* publication = publisher->createPublication("x", nullptr);
  KelData data;
  std::int64_t sent = 0;
  const auto sendOne = [&] {
    for (const std::string& tag : tags) data.insert(static_cast<double>(sent), tag.c_str());
    publication->send(data, KelTimestamp(++sent));
  };
  sendOne();
  while (listener.received.load() < 1) std::this_thread::yield();
  sent = 1;
  for (auto unused : state) {
    sendOne();
    // Never so far ahead that records are superseded, as a plant is not.
    while (sent - listener.received.load(std::memory_order_acquire) > 2000) std::this_thread::yield();
  }
  while (listener.received.load(std::memory_order_acquire) < sent) std::this_thread::yield();
  state.SetItemsProcessed(state.iterations() * state.range(0));
  const KelCounters counters = subscriber->counters();
  state.counters["superseded"] = static_cast<double>(counters.superseded);
  state.counters["gaps"] = static_cast<double>(counters.gaps);
}

BENCHMARK(throughTheBroker)->Arg(1)->Arg(20)->MeasureProcessCPUTime();

}  // namespace
