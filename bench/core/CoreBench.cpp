// What one received value costs: records go through the loopback broker, the gateway and the manager into the
// store in memory, all in this process and on one core, and the CPU time of the whole process is what counts.
//
// usage: bench_core [--json] [--publications N] [--fields N] [--seconds N]
#include <kel/Kel.h>
#include <pvss/Resources.h>
#include <pvss/testing/MemoryPlant.h>
#include <sched.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "Bench.h"
#include "KelApiManager.h"
#include "KelApiResources.h"

using bench::cpuSeconds;
using bench::elementName;
using bench::publicationName;
using bench::tagName;

namespace {

struct Wanted {
  bool json = false;
  int publications = 50;
  int fields = 20;
  int seconds = 5;
};

Wanted wantedFrom(int argc, char** argv) {
  Wanted wanted;
  wanted.json = bench::readSwitches(
      argc, argv,
      {{"--publications", wanted.publications}, {"--fields", wanted.fields}, {"--seconds", wanted.seconds}});
  return wanted;
}

/// All threads of the process on the core that it is on: the figure is what one core carries.
void stayOnOneCore() {
  cpu_set_t core;
  CPU_ZERO(&core);
  CPU_SET(static_cast<std::size_t>(sched_getcpu()), &core);
  if (sched_setaffinity(0, sizeof core, &core) != 0) {
    std::perror("bench_core: staying on one core");
  }
}

/// Watches the writes, and ends the manager's loop when the time is over.
class Meter final : public pvss::testing::ManagerObserver {
 public:
  Meter(std::int64_t valuesUntilFull, std::chrono::seconds duration)
      : valuesUntilFull_(valuesUntilFull), duration_(duration) {}

  void onDpSetTimed(const TimeVar& /*time*/, const DpIdValueList& values, unsigned int /*flags*/) override {
    const std::int64_t count = values.getNumberOfItems() / itemsPerValue;
    allValues_ += count;
    if (running_) {
      values_ += count;
      ++records_;
    }
  }
  void onDispatch(long /*sec*/, long /*usec*/) override {
    const auto now = std::chrono::steady_clock::now();
    if (!running_ && allValues_ >= valuesUntilFull_) {
      running_ = true;  // everything is subscribed and warm
      began_ = now;
      cpuBegan_ = cpuSeconds();
    }
    if (running_ && now - began_ >= duration_) {
      wall_ = std::chrono::duration<double>(now - began_).count();
      cpu_ = cpuSeconds() - cpuBegan_;
      KelApiManager::doExit = PVSS_TRUE;
    }
  }

  void print(bool json) const {
    const auto values = static_cast<double>(values_);
    const double perCpuSecond = values / cpu_;
    if (json) {
      std::printf(
          "{\"values\": %lld, \"records\": %lld, \"wallSeconds\": %.3f, \"cpuSeconds\": %.3f, "
          "\"valuesPerSecond\": %.0f, \"valuesPerCpuSecond\": %.0f}\n",
          static_cast<long long>(values_), static_cast<long long>(records_), wall_, cpu_, values / wall_,
          perCpuSecond);
    } else {
      std::printf(
          "%.0f values a second of one core, %.2f us of CPU a value (%.0f values a second of wall time)\n",
          perCpuSecond, 1e6 / perCpuSecond, values / wall_);
    }
  }

 private:
  static constexpr unsigned int itemsPerValue = 4;  // value, two user bits, invalid flag
  const std::int64_t valuesUntilFull_;
  const std::chrono::seconds duration_;
  bool running_ = false;
  std::int64_t allValues_ = 0;
  std::int64_t values_ = 0;
  std::int64_t records_ = 0;
  std::chrono::steady_clock::time_point began_;
  double cpuBegan_ = 0;
  double wall_ = 0;
  double cpu_ = 0;
};

/// Publishes record after record, never more than a few ahead of what has been delivered.
class Source {
 public:
  explicit Source(const Wanted& wanted) : wanted_(wanted) {
    KelOptions options;
    options.url = "loopback:";
    factory_.reset(Kel::create("bench-source", options));
    for (int p = 0; p < wanted.publications; ++p) {
      publications_.push_back(factory_->createPublication(publicationName(p).c_str(), &handler_));
    }
    for (int f = 0; f < wanted.fields; ++f) {
      tags_.push_back(tagName(f));
    }
    thread_ = std::thread([this] { run(); });
  }
  ~Source() {
    stop_ = true;
    thread_.join();
    for (KelPublication* const publication : publications_) {
      factory_->destroyPublication(publication);
    }
  }
  Source(const Source&) = delete;
  Source& operator=(const Source&) = delete;

 private:
  class Handler final : public KelPublicationErrorHandler {
   public:
    void handleException(KelPublication* /*publication*/, KelException& exception) override {
      std::fprintf(stderr, "bench_core: %s\n", exception.what());
    }
  };

  void run() {
    constexpr std::int64_t ahead = 2000;
    KelData data;
    for (int round = 0; !stop_; ++round) {
      for (std::size_t p = 0; p < publications_.size() && !stop_; ++p) {
        for (std::size_t f = 0; f < tags_.size(); ++f) {
          data.insert(round + static_cast<int>(f), tags_[f].c_str());
        }
        publications_[p]->send(data, KelTimestamp(std::int64_t{1'700'000'000'000'000'000} + round));
        ++sent_;
        while (!stop_ && KelApiManager::kelFactory != nullptr &&
               sent_ > KelApiManager::kelFactory->counters().received + ahead) {
          std::this_thread::sleep_for(std::chrono::microseconds(200));
        }
      }
    }
  }

  const Wanted wanted_;
  Handler handler_;
  std::unique_ptr<KelFactory> factory_;
  std::vector<KelPublication*> publications_;
  std::vector<std::string> tags_;
  std::int64_t sent_ = 0;
  std::atomic<bool> stop_{false};
  std::thread thread_;
};

}  // namespace

int main(int argc, char** argv) {
  const Wanted wanted = wantedFrom(argc, argv);
  stayOnOneCore();
  setenv("KEL_URL", "loopback:", 1);

  pvss::testing::MemoryPlant plant;
  plant.setRecording(false);
  std::vector<std::string> names;
  for (int p = 0; p < wanted.publications; ++p) {
    for (int f = 0; f < wanted.fields; ++f) {
      names.push_back(elementName(p, f));
      plant.addElement(names.back(), DPELEMENT_INT);
      plant.setAddress(names.back(), 1, "KEL",
                       publicationName(p) + CkelClientManager::pubNameDelimiter + tagName(f));
    }
  }
  plant.addElement("Bench.clients", DPELEMENT_DYNTEXT);
  plant.writeTexts("Bench.clients", names);
  KelApiResources::clientSourceName = "Bench.clients";
  KelApiResources::publisherName = "bench-gateway";

  Meter meter(10LL * wanted.publications * wanted.fields, std::chrono::seconds(wanted.seconds));
  plant.observe(&meter);

  {
    const bench::Quiet quiet;
    KelApiManager::kelFactory = Kel::create(KelApiResources::publisherName);
    const Source source(wanted);
    KelApiManager manager;
    manager.run();
  }
  meter.print(wanted.json);
  std::fflush(stdout);
  std::_Exit(0);
}
