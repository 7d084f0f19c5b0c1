// kel-live-input: publishes this machine's own readings, so that the demonstration has real input.
#include <fmt/format.h>
#include <kel/Kel.h>

#include <CLI/CLI.hpp>
#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <map>
#include <memory>
#include <string>
#include <thread>

#include "Records.h"

namespace {

std::atomic<bool> stopWanted{false};
static_assert(std::atomic<bool>::is_always_lock_free, "the signal handler sets it");
extern "C" void askToStop(int /*signal*/) {
  stopWanted.store(true);
}

struct Options {
  std::string kel;
  std::string publisher = "live-input";
  double intervalSeconds = 1;
  double forSeconds = 0;
  bool summaryJson = false;
  bool quiet = false;
};

/// Says on standard error what the library reports, one line each.
class Reporter : public KelPublicationErrorHandler {
 public:
  void handleException(KelPublication* publication, KelException& exception) override {
    const std::string line =
        fmt::format("kel-live-input: {}: {}\n", publication->getTopicName(), exception.what());
    std::fwrite(line.data(), 1, line.size(), stderr);
  }
};

using Clock = std::chrono::steady_clock;

Clock::duration span(double seconds) {
  return std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(seconds));
}

/// In short pieces, because a signal does not wake a sleep; false when one came.
bool sleepUntil(Clock::time_point until) {
  while (!stopWanted && Clock::now() < until) {
    std::this_thread::sleep_for(
        std::min<Clock::duration>(std::chrono::milliseconds(50), until - Clock::now()));
  }
  return !stopWanted;
}

std::int64_t nowNanoseconds() {
  using namespace std::chrono;
  return duration_cast<nanoseconds>(system_clock::now().time_since_epoch()).count();
}

void publish(KelFactory& factory, const Options& options) {
  Reporter reporter;
  std::map<std::string, KelPublication*> publications;
  for (const std::string& name : liveinput::publicationNames()) {
    publications[name] = factory.createPublication(name.c_str(), &reporter);
  }
  liveinput::Machine machine;
  const Clock::time_point start = Clock::now();
  Clock::time_point next = start;
  do {
    const std::int64_t time = nowNanoseconds();
    for (const liveinput::NamedRecord& each : machine.read()) {
      publications.at(each.publication)->send(each.record, KelTimestamp(time));
    }
    // A late turn is left out rather than caught up with.
    next += span(options.intervalSeconds);
    next = std::max(next, Clock::now());
  } while ((options.forSeconds == 0 || next < start + span(options.forSeconds)) && sleepUntil(next));
  factory.flush(std::chrono::seconds(5));
  // Closing withdraws the records: whoever is a little behind gets a moment to take the last ones.
  std::this_thread::sleep_for(std::chrono::milliseconds(250));
  for (const auto& [name, publication] : publications) {
    factory.destroyPublication(publication);
  }
}

/// The closing line; true when the broker has taken over everything that was sent.
bool summarize(const KelCounters& counters, const Options& options) {
  if (options.summaryJson) {
    fmt::print(
        "{{\"sent\": {}, \"acknowledged\": {}, \"superseded\": {}, \"refused\": {}, \"pending\": {}, "
        "\"reconnects\": {}}}\n",
        counters.sends, counters.acknowledged, counters.outgoingSuperseded, counters.refused,
        counters.outgoingPending, counters.reconnects);
  } else if (!options.quiet) {
    fmt::print("{} records sent, {} acknowledged by the broker\n", counters.sends, counters.acknowledged);
  }
  std::fflush(stdout);
  return counters.acknowledged == counters.sends;
}

}  // namespace

int main(int count, char** arguments) {
  Options options;
  CLI::App app{
      "Publishes this machine's own readings over Kel: load, memory, use of each core, network, disks, "
      "uptime.",
      "kel-live-input"};
  app.add_option("--kel", options.kel, "Address of the Kel broker (default: the variable KEL_URL)")
      ->type_name("URL");
  app.add_option("--publisher", options.publisher, "Publisher's name")->capture_default_str();
  app.add_option("--interval", options.intervalSeconds, "Seconds from one reading to the next")
      ->check(CLI::Range(0.001, 3600.0))
      ->capture_default_str();
  app.add_option("--for", options.forSeconds, "End after this many seconds (0: when interrupted)")
      ->check(CLI::NonNegativeNumber)
      ->capture_default_str();
  app.add_flag("--summary-json", options.summaryJson, "At the end one line of JSON with the counters");
  app.add_flag("--quiet", options.quiet, "No closing line");
  app.footer(
      "Exit codes: 0 everything sent was acknowledged, 1 something was not, 2 usage, 3 nothing was: no "
      "broker.\n"
      "SIGINT and SIGTERM end it in order: what was sent is acknowledged, the publications are closed.");
  try {
    app.parse(count, arguments);
  } catch (const CLI::ParseError& error) {
    return app.exit(error) == 0 ? 0 : 2;
  }
  std::signal(SIGINT, askToStop);
  std::signal(SIGTERM, askToStop);
  std::signal(SIGPIPE, SIG_IGN);
  try {
    KelOptions kelOptions;
    kelOptions.url = options.kel;
    const std::unique_ptr<KelFactory> factory(Kel::create(options.publisher.c_str(), kelOptions));
    publish(*factory, options);
    const KelCounters counters = factory->counters();
    if (summarize(counters, options)) {
      return 0;
    }
    return counters.acknowledged == 0 ? 3 : 1;
  } catch (const KelException& error) {
    fmt::print(stderr, "kel-live-input: {}\n", error.what());
    return 2;
  }
}
