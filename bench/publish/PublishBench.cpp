// Buffered publishing under a flood of changes: every element of every publication changes many times within
// the buffer time, and a subscriber of its own counts what comes out. Store in memory, loopback broker, one
// process: a flood of this size is more than one Redis gives away on a small machine, and it is the gateway's
// part that is measured.
//
// usage: bench_publish [--json] [--publications N] [--fields N] [--buffer MS] [--rate PER_SECOND]
//                      [--seconds N]
#include <kel/Kel.h>
#include <kel/KelCounters.h>
#include <kel/KelData.h>
#include <kel/KelFactory.h>
#include <pvss/FloatVar.h>
#include <pvss/testing/MemoryPlant.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "Bench.h"
#include "KelApiManager.h"
#include "KelApiResources.h"

using bench::cpuSeconds;
using bench::elementName;
using bench::publicationName;
using bench::tagName;

namespace {

using Clock = std::chrono::steady_clock;

struct Wanted {
  bool json = false;
  int publications = 1000;
  int fields = 10;
  int bufferMs = 100;
  int rate = 50;  // changes of each element a second
  int seconds = 30;
};

Wanted wantedFrom(int argc, char** argv) {
  Wanted wanted;
  wanted.json = bench::readSwitches(argc, argv,
                                    {{"--publications", wanted.publications},
                                     {"--fields", wanted.fields},
                                     {"--buffer", wanted.bufferMs},
                                     {"--rate", wanted.rate},
                                     {"--seconds", wanted.seconds}});
  return wanted;
}

/// What one publication brought.
class Receiver final : public KelSubscriptionListener {
 public:
  explicit Receiver(int fields) : fields_(fields) {}
  void handleMessage(KelSubscription* /*subscription*/, KelData& data) override {
    const std::lock_guard guard(mutex_);
    ++records_;
    good_ = data.getQuality() == 1;
    whole_ = good_ && data.size() == static_cast<std::size_t>(fields_);
    if (!whole_) {
      return;
    }
    last_ = data.extractFloat(tagName(0).c_str());
    for (int f = 1; f < fields_; ++f) {
      whole_ = whole_ && data.extractFloat(tagName(f).c_str()) == last_;
    }
  }
  void disconnected(KelSubscription* /*subscription*/, char* /*reason*/) override {}
  void connected(KelSubscription* /*subscription*/) override {}
  void handleException(KelSubscription* /*subscription*/, KelException& /*exception*/) override {}

  void restart() {
    const std::lock_guard guard(mutex_);
    records_ = 0;
  }
  [[nodiscard]] int records() const {
    const std::lock_guard guard(mutex_);
    return records_;
  }
  [[nodiscard]] bool isLast(float value) const {
    const std::lock_guard guard(mutex_);
    return whole_ && last_ == value;
  }

 private:
  const int fields_;
  mutable std::mutex mutex_;
  int records_ = 0;
  bool good_ = false;
  bool whole_ = false;
  float last_ = -1;
};

/// Changes the elements at the wanted rate from inside the manager's loop, and ends it.
class Driver final : public pvss::testing::ManagerObserver {
 public:
  Driver(const Wanted& wanted, pvss::testing::MemoryPlant& plant,
         std::vector<std::unique_ptr<Receiver>>& receivers)
      : wanted_(wanted), plant_(plant), receivers_(receivers) {
    for (int p = 0; p < wanted.publications; ++p) {
      batches_.emplace_back();
      for (int f = 0; f < wanted.fields; ++f) {
        batches_.back().emplace_back(elementName(p, f), pvss::testing::ElementWrite{});
      }
    }
  }

  void onDispatch(long /*sec*/, long /*usec*/) override {
    const auto now = Clock::now();
    if (phase_ == Phase::warm && now - created_ > std::chrono::seconds(1)) {
      for (const auto& receiver : receivers_) {
        receiver->restart();
      }
      began_ = now;
      cpuBegan_ = cpuSeconds();
      phase_ = Phase::flood;
    }
    if (phase_ == Phase::flood) {
      flood(now);
    }
    if (phase_ == Phase::settle && now - ended_ > std::chrono::milliseconds(10L * wanted_.bufferMs + 1000)) {
      KelApiManager::doExit = PVSS_TRUE;
    }
  }

  [[nodiscard]] double floodSeconds() const { return std::chrono::duration<double>(ended_ - began_).count(); }
  [[nodiscard]] double cpu() const { return cpu_; }
  [[nodiscard]] std::int64_t changes() const { return writes_ * wanted_.fields; }
  [[nodiscard]] float lastOf(int publication) const {
    const std::int64_t rounds = writes_ / wanted_.publications;
    const bool oneMore = publication < writes_ % wanted_.publications;
    return static_cast<float>(rounds + (oneMore ? 1 : 0));
  }

 private:
  enum class Phase { warm, flood, settle };

  void flood(Clock::time_point now) {
    constexpr int atOnce = 20;  // as many hot-links as one turn of the loop delivers
    const double elapsed = std::chrono::duration<double>(now - began_).count();
    if (elapsed >= wanted_.seconds) {
      phase_ = Phase::settle;
      ended_ = now;
      cpu_ = cpuSeconds() - cpuBegan_;
      return;
    }
    const auto due = static_cast<std::int64_t>(elapsed * wanted_.rate * wanted_.publications);
    for (int n = 0; n < atOnce && writes_ < due; ++n, ++writes_) {
      const auto publication = static_cast<std::size_t>(writes_ % wanted_.publications);
      const std::int64_t round = writes_ / wanted_.publications + 1;
      const auto value = std::make_shared<const FloatVar>(static_cast<double>(round));
      for (auto& [name, write] : batches_[publication]) {
        write.value = value;
      }
      plant_.write(batches_[publication], 1'700'000'000'000 + writes_);
    }
  }

  const Wanted wanted_;
  pvss::testing::MemoryPlant& plant_;
  std::vector<std::unique_ptr<Receiver>>& receivers_;
  std::vector<std::vector<std::pair<std::string, pvss::testing::ElementWrite>>> batches_;
  Phase phase_ = Phase::warm;
  const Clock::time_point created_ = Clock::now();
  Clock::time_point began_;
  Clock::time_point ended_;
  double cpuBegan_ = 0;
  double cpu_ = 0;
  std::int64_t writes_ = 0;
};

void fill(pvss::testing::MemoryPlant& plant, const Wanted& wanted) {
  std::vector<std::string> entries;
  for (int p = 0; p < wanted.publications; ++p) {
    std::string entry =
        publicationName(p) + CkelClientManager::pubNameDelimiter + std::to_string(wanted.bufferMs);
    for (int f = 0; f < wanted.fields; ++f) {
      plant.addElement(elementName(p, f), DPELEMENT_FLOAT);
      plant.write(elementName(p, f), FloatVar(0));
      entry += CkelClientManager::pubNameDelimiter + elementName(p, f) + CkelClientManager::pubNameDelimiter +
               tagName(f);
    }
    entries.push_back(entry);
  }
  plant.addElement("Bench.publications", DPELEMENT_DYNTEXT);
  plant.writeTexts("Bench.publications", entries);
}

}  // namespace

int main(int argc, char** argv) {
  const Wanted wanted = wantedFrom(argc, argv);
  setenv("KEL_URL", "loopback:", 1);

  pvss::testing::MemoryPlant plant;
  plant.setRecording(false);
  fill(plant, wanted);
  KelApiResources::pubSourceName = "Bench.publications";
  KelApiResources::publisherName = "bench-gateway";

  KelOptions options;
  options.url = "loopback:";
  KelFactory* const witness = Kel::create("bench-witness", options);
  std::vector<std::unique_ptr<Receiver>> receivers;
  for (int p = 0; p < wanted.publications; ++p) {
    receivers.push_back(std::make_unique<Receiver>(wanted.fields));
    witness->createSubscription(publicationName(p).c_str(), receivers.back().get());
  }

  Driver driver(wanted, plant, receivers);
  plant.observe(&driver);

  std::unique_ptr<KelApiManager> manager;
  {
    const bench::Quiet quiet;
    KelApiManager::kelFactory = Kel::create(KelApiResources::publisherName);
    manager = std::make_unique<KelApiManager>();
    manager->run();
  }

  const double seconds = driver.floodSeconds();
  // One interval is open when the flood begins and one when it ends.
  const double allowed = seconds * 1000 / wanted.bufferMs + 2;
  std::int64_t records = 0;
  int most = 0;
  int tooOften = 0;
  int notLast = 0;
  for (int p = 0; p < wanted.publications; ++p) {
    const Receiver& receiver = *receivers[static_cast<std::size_t>(p)];
    records += receiver.records();
    most = std::max(most, receiver.records());
    tooOften += receiver.records() > allowed ? 1 : 0;
    notLast += receiver.isLast(driver.lastOf(p)) ? 0 : 1;
  }
  const auto counters = witness->counters();
  std::printf(
      "{\"seconds\": %.2f, \"cpuSeconds\": %.2f, \"changes\": %lld, \"wantedChanges\": %.0f, \"records\": "
      "%lld, "
      "\"mostPerPublication\": %d, \"allowedPerPublication\": %.0f, \"tooOften\": %d, \"notLast\": %d, "
      "\"gaps\": %lld, \"repeated\": %lld}\n",
      seconds, driver.cpu(), static_cast<long long>(driver.changes()),
      static_cast<double>(wanted.publications) * wanted.fields * wanted.rate * seconds,
      static_cast<long long>(records), most, allowed, tooOften, notLast,
      static_cast<long long>(counters.gaps), static_cast<long long>(counters.repeated));
  std::fflush(stdout);
  std::_Exit(tooOften == 0 && notLast == 0 ? 0 : 1);
}
