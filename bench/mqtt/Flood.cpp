// bench_flood: publishes records as fast as the broker takes them, or at a given rate.
//
// The broker and the group are KEL_URL's. Publications are bench/p0, bench/p1, ... with fields field0,
// field1, ... of type double; field f of the n-th record of a publication (from 1) is n + f / 1024, so
// whoever receives can tell which record it has. Prints one JSON line when the broker has taken all of them
// over, and ends with 1 if any was not.
#include <kel/Kel.h>
#include <kel/KelCounters.h>
#include <kel/KelData.h>
#include <kel/KelException.h>
#include <kel/KelFactory.h>
#include <kel/KelPublication.h>
#include <kel/KelPublicationErrorHandler.h>
#include <kel/KelTimestamp.h>

#include <CLI/CLI.hpp>
#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <memory>
#include <nlohmann/json.hpp>
#include <string>
#include <thread>
#include <vector>

namespace {

using Clock = std::chrono::steady_clock;

std::atomic<bool> stopped{false};

struct Plan {
  int publications = 1;
  int fields = 1;
  std::int64_t records = 1000;  // in all
  double rate = 0;              // in all, a second
  int publishers = 1;
  int hold = 0;
};

class SaysTrouble : public KelPublicationErrorHandler {
 public:
  void handleException(KelPublication* publication, KelException& exception) override {
    static_cast<void>(
        std::fprintf(stderr, "bench_flood: %s: %s\n", publication->getTopicName(), exception.what()));
  }
};

/// One member of the group with its share of the publications.
class Publisher {
 public:
  Publisher(const std::string& name, int fields) : factory_(Kel::create(name.c_str())), tags_() {
    for (int f = 0; f < fields; ++f) tags_.push_back("field" + std::to_string(f));
  }
  ~Publisher() {
    for (const auto& publication : publications_) factory_->destroyPublication(publication.handle);
  }
  Publisher(const Publisher&) = delete;
  Publisher& operator=(const Publisher&) = delete;

  void add(const std::string& name) {
    publications_.push_back({factory_->createPublication(name.c_str(), &trouble_), 0});
  }

  void send(std::size_t index) {
    Publication& publication = publications_[index];
    ++publication.sent;
    for (std::size_t f = 0; f < tags_.size(); ++f) {
      data_.insert(static_cast<double>(publication.sent) + static_cast<double>(f) / 1024.0, tags_[f].c_str());
    }
    const auto now = std::chrono::system_clock::now().time_since_epoch();
    publication.handle->send(data_,
                             KelTimestamp(std::chrono::duration_cast<std::chrono::nanoseconds>(now).count()));
    // More than the broker takes at a time would only be superseded in our own queue.
    if (++sinceLook_ >= 500) {
      sinceLook_ = 0;
      while (!stopped && factory_->counters().outgoingPending > 2000)
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
  }

  [[nodiscard]] std::size_t size() const { return publications_.size(); }
  [[nodiscard]] KelFactory& factory() const { return *factory_; }

 private:
  struct Publication {
    KelPublication* handle;
    std::int64_t sent;
  };
  const std::unique_ptr<KelFactory> factory_;
  SaysTrouble trouble_;
  std::vector<Publication> publications_;
  std::vector<std::string> tags_;
  KelData data_;
  int sinceLook_ = 0;
};

void run(Publisher& publisher, std::int64_t records, double rate, Clock::time_point start) {
  for (std::int64_t n = 0; n < records && !stopped; ++n) {
    if (rate > 0) {
      std::this_thread::sleep_until(start +
                                    std::chrono::duration_cast<Clock::duration>(
                                        std::chrono::duration<double>(static_cast<double>(n) / rate)));
    }
    publisher.send(static_cast<std::size_t>(n) % publisher.size());
  }
}

}  // namespace

int main(int argc, char** argv) {
  Plan plan;
  CLI::App app{"Publishes records over Kel, as many and as fast as asked."};
  app.add_option("--publications", plan.publications, "how many, named bench/p0 and so on")
      ->check(CLI::Range(1, 100000));
  app.add_option("--fields", plan.fields, "fields in each record")->check(CLI::Range(1, 10000));
  app.add_option("--records", plan.records, "records in all")->check(CLI::PositiveNumber);
  app.add_option("--rate", plan.rate, "records a second in all; 0: as fast as possible")
      ->check(CLI::NonNegativeNumber);
  app.add_option("--publishers", plan.publishers, "members of the group, each with its thread")
      ->check(CLI::Range(1, 64));
  app.add_option("--hold", plan.hold, "seconds to stay afterwards")->check(CLI::NonNegativeNumber);
  CLI11_PARSE(app, argc, argv);
  static_cast<void>(std::signal(SIGTERM, [](int) { stopped = true; }));
  static_cast<void>(std::signal(SIGINT, [](int) { stopped = true; }));

  plan.publishers = std::min(plan.publishers, plan.publications);
  std::vector<std::unique_ptr<Publisher>> publishers;
  publishers.reserve(static_cast<std::size_t>(plan.publishers));
  for (int p = 0; p < plan.publishers; ++p) {
    publishers.push_back(std::make_unique<Publisher>("bench-flood-" + std::to_string(p), plan.fields));
  }
  for (int p = 0; p < plan.publications; ++p) {
    publishers[static_cast<std::size_t>(p % plan.publishers)]->add("bench/p" + std::to_string(p));
  }

  const auto start = Clock::now();
  std::vector<std::thread> threads;
  threads.reserve(publishers.size());
  for (int p = 0; p < plan.publishers; ++p) {
    // Each has the publications p, p + publishers, ..., so round-robin over all is round-robin in each.
    const std::int64_t share = plan.records / plan.publishers + (p < plan.records % plan.publishers ? 1 : 0);
    threads.emplace_back(run, std::ref(*publishers[static_cast<std::size_t>(p)]), share,
                         plan.rate / plan.publishers, start);
  }
  for (std::thread& thread : threads) thread.join();
  bool all = true;
  KelCounters sum;
  for (const auto& publisher : publishers) {
    all = publisher->factory().flush(std::chrono::seconds(60)) && all;
    const KelCounters counters = publisher->factory().counters();
    sum.sends += counters.sends;
    sum.acknowledged += counters.acknowledged;
    sum.refused += counters.refused;
    sum.outgoingSuperseded += counters.outgoingSuperseded;
  }
  const double seconds = std::chrono::duration<double>(Clock::now() - start).count();
  const nlohmann::json result = {
      {"sent", sum.sends},      {"acknowledged", sum.acknowledged},
      {"refused", sum.refused}, {"superseded", sum.outgoingSuperseded},
      {"seconds", seconds},     {"recordsPerSecond", static_cast<double>(sum.acknowledged) / seconds}};
  static_cast<void>(std::printf("%s\n", result.dump().c_str()));
  static_cast<void>(std::fflush(stdout));
  const auto until = Clock::now() + std::chrono::seconds(plan.hold);
  while (!stopped && Clock::now() < until) std::this_thread::sleep_for(std::chrono::milliseconds(50));
  return all && sum.acknowledged == plan.records ? 0 : 1;
}
