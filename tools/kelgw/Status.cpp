#include <fmt/format.h>
#include <kel/KelBrowser.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <charconv>
#include <map>
#include <thread>

#include "Command.h"
#include "DpValue.h"
#include "KelValue.h"
#include "Status.h"
#include "Times.h"

namespace kelgw {
namespace {

constexpr const char* footer =
    "Looks twice, so that it can say what moves; counters that moved show their rate. Exit code 0 needs a "
    "manager\n"
    "that is alive and holds its number; 3 means that store or broker did not answer (the other one is "
    "shown).\n"
    "\n"
    "With --ledger it says instead whether every value is accounted for, by publication and direction: it "
    "looks\n"
    "until two looks running are the same, and then compares what was published, received, written and "
    "applied.\n"
    "Exit code 0 balanced, 1 something is missing, 3 a server did not answer.\n"
    "\n"
    "Examples:\n"
    "  kelgw status\n"
    "  kelgw status --window 5\n"
    "  kelgw status --json | jq '.store.changesPerSecond'\n"
    "  kelgw status --ledger\n"
    "  kelgw status --ledger --settle 30 --json | jq '.balanced, .why'\n";

struct StoreSide {
  std::string error;  ///< empty when it answered
  int exitCode = exitDone;
  pvss::StoreStatistics statistics;
  std::vector<pvss::StoreManager> before;
  std::vector<pvss::StoreManager> managers;
  double changesPerSecond = 0;
  double seconds = 1;
};

struct BrokerSide {
  std::string error;
  std::chrono::steady_clock::time_point when;
  std::size_t alive = 0;
  std::size_t gone = 0;
  std::size_t foreign = 0;
  std::size_t unreadable = 0;
  std::vector<KelPublisherInfo> publishers;
};

StoreSide lookAtStore(double windowSeconds, Context& context) {
  using namespace std::chrono;
  StoreSide side;
  try {
    pvss::StoreAdmin store = openStore(context.settings);
    side.before = store.managers();
    const std::uint64_t sequence = store.logStatistics().sequence;
    const auto start = steady_clock::now();
    const auto end = start + milliseconds(static_cast<std::int64_t>(windowSeconds * 1000));
    while (!context.stop && steady_clock::now() < end) {
      std::this_thread::sleep_for(
          std::min<steady_clock::duration>(milliseconds(50), end - steady_clock::now()));
    }
    side.managers = store.managers();
    side.statistics = store.statistics();
    side.seconds = std::max(0.001, duration<double>(steady_clock::now() - start).count());
    const std::uint64_t now = side.statistics.log.sequence;
    side.changesPerSecond = now > sequence ? static_cast<double>(now - sequence) / side.seconds : 0;
  } catch (const pvss::StoreError& error) {
    side.error = error.what();
    side.exitCode = error.exitCode();
  }
  return side;
}

BrokerSide lookAtBroker(const Settings& settings) {
  BrokerSide side;
  KelBrowser browser(settings.kel);
  if (!browser.look(settings.limit())) {
    side.error = unreachableBroker(settings, browser.error()).what();
    return side;
  }
  for (const KelPublicationInfo& publication : browser.publications()) {
    if (!publication.readable) {
      ++side.unreadable;
    } else if (publication.liveness == KelPublicationInfo::Liveness::foreign) {
      ++side.foreign;
    } else if (publication.liveness == KelPublicationInfo::Liveness::alive) {
      ++side.alive;
    } else if (publication.hasRecord) {
      ++side.gone;
    }
  }
  side.publishers = browser.publishers();
  side.when = std::chrono::steady_clock::now();
  return side;
}

std::int64_t counterOf(const KelPublisherInfo& publisher, const std::string& name) {
  const auto at = publisher.counters.find(name);
  return at == publisher.counters.end() ? 0 : at->second;
}

/// What a counter of one process run grew by a second between the two looks.
double rateOf(const KelPublisherInfo& now, const std::string& name, const BrokerSide& before,
              const BrokerSide& after) {
  const double seconds = std::chrono::duration<double>(after.when - before.when).count();
  for (const KelPublisherInfo& old : before.publishers) {
    if (old.name == now.name && old.incarnation == now.incarnation && seconds > 0) {
      return static_cast<double>(counterOf(now, name) - counterOf(old, name)) / seconds;
    }
  }
  return 0;
}

std::optional<std::int64_t> numberOf(const std::string& text) {
  std::int64_t number = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
  if (error != std::errc() || end != text.data() + text.size() || text.empty()) {
    return std::nullopt;
  }
  return number;
}

/// What grew between the two looks, per second, for one run of one manager.
std::map<std::string, double> ratesOf(const pvss::StoreManager& now, const StoreSide& side) {
  std::map<std::string, double> rates;
  for (const pvss::StoreManager& before : side.before) {
    // Counters are as of the beat: the time between two beats counts, not the time between two looks.
    const double seconds = static_cast<double>(now.lastBeatMs - before.lastBeatMs) / 1000;
    if (before.writer != now.writer || seconds <= 0) {
      continue;
    }
    const std::map<std::string, std::string> old(before.counters.begin(), before.counters.end());
    for (const auto& [name, text] : now.counters) {
      const auto number = numberOf(text);
      const auto previous = old.contains(name) ? numberOf(old.at(name)) : std::nullopt;
      if (number && previous && *number > *previous) {
        rates[name] = static_cast<double>(*number - *previous) / seconds;
      }
    }
  }
  return rates;
}

bool healthy(const pvss::StoreManager& manager) {
  return manager.alive && manager.leaseHeld && manager.leaseHolder == manager.writer;
}

std::string showBytes(std::uint64_t bytes) {
  if (bytes < 10'240) {
    return fmt::format("{} bytes", bytes);
  }
  const auto kib = static_cast<double>(bytes) / 1024;
  return kib < 10'240 ? fmt::format("{:.0f} KiB", kib) : fmt::format("{:.1f} MiB", kib / 1024);
}

void showStore(const StoreSide& side, Output& out) {
  if (!side.error.empty()) {
    out.line(fmt::format("{}   {}", out.styled("store", Style::head), out.styled(side.error, Style::bad)));
    return;
  }
  const pvss::StoreStatistics& is = side.statistics;
  out.line(fmt::format("{}   {}  Redis {}  functions {}", out.styled("store", Style::head),
                       escapeText(is.address), escapeText(is.serverVersion),
                       is.functions.empty() ? out.styled("missing: run `kelgw apply`", Style::bad)
                                            : escapeText(is.functions)));
  out.line(
      fmt::format("        {} elements, {} changes so far, {:.1f} a second now; log {} entries, {} of {}",
                  is.elements, is.log.sequence, side.changesPerSecond, is.log.entries,
                  showBytes(is.log.bytes), showBytes(is.log.boundBytes)));
}

void showPublishers(const BrokerSide& before, const BrokerSide& side, Output& out) {
  if (!side.error.empty() || side.publishers.empty()) {
    return;
  }
  out.line("");
  Table table({"ON THE BROKER", "STATE", "HOST", "PROCESS", "SENT", "A SECOND", "RECEIVED", "A SECOND"});
  const auto number = [](std::int64_t count) { return Cell(fmt::format("{}", count), Style::plain, true); };
  const auto rate = [](double each) {
    return Cell(each > 0 ? fmt::format("{:.1f}", each) : "", Style::plain, true);
  };
  for (const KelPublisherInfo& publisher : side.publishers) {
    const bool alive = publisher.liveness == KelPublisherInfo::Liveness::alive;
    table.row({escapeText(publisher.name), Cell(alive ? "alive" : "silent", alive ? Style::good : Style::bad),
               escapeText(publisher.host), number(publisher.process), number(counterOf(publisher, "sends")),
               rate(rateOf(publisher, "sends", before, side)), number(counterOf(publisher, "received")),
               rate(rateOf(publisher, "received", before, side))});
  }
  out.table(table);
}

/// One line for each direction of each healthy manager; its Kel side is the publisher of the same process.
void showFlow(const StoreSide& store, const BrokerSide& before, const BrokerSide& broker, Output& out) {
  for (const pvss::StoreManager& manager : store.managers) {
    if (!healthy(manager)) {
      continue;
    }
    const auto rates = ratesOf(manager, store);
    const auto written = rates.find("confirmed");
    double sent = 0;
    for (const KelPublisherInfo& publisher : broker.publishers) {
      if (publisher.process == manager.process && publisher.host == manager.host) {
        sent = rateOf(publisher, "sends", before, broker);
      }
    }
    const auto said = [&](double rate, const char* what) {
      return rate > 0 ? out.styled(fmt::format("{:.1f} {} a second", rate, what), Style::good)
                      : std::string("quiet");
    };
    out.line(fmt::format("{}    manager {}: Kel to elements {}; elements to Kel {}",
                         out.styled("flow", Style::head), manager.number,
                         said(written == rates.end() ? 0 : written->second, "attributes"),
                         said(sent, "records")));
  }
}

void showBroker(const BrokerSide& side, const Settings& settings, Output& out) {
  if (!side.error.empty()) {
    out.line(fmt::format("{}  {}", out.styled("broker", Style::head), out.styled(side.error, Style::bad)));
    return;
  }
  out.line(fmt::format("{}  {}", out.styled("broker", Style::head), escapeText(brokerAddress(settings))));
  std::string counts =
      fmt::format("{} publications alive, {} without their publisher", side.alive, side.gone);
  if (side.foreign != 0) {
    counts += fmt::format(", {} from foreign publishers", side.foreign);
  }
  if (side.unreadable != 0) {
    counts += fmt::format(", {} unreadable", side.unreadable);
  }
  out.line(fmt::format("        {}", counts));
}

void showManagers(const StoreSide& side, Output& out) {
  if (!side.error.empty()) {
    return;
  }
  if (side.managers.empty()) {
    out.line("");
    out.line(out.styled("No manager has been here within the last day.", Style::bad));
    return;
  }
  out.line("");
  Table table({"MANAGER", "STATE", "LAST BEAT", "HOST", "PROCESS", "VERSION"});
  for (const pvss::StoreManager& manager : side.managers) {
    const bool good = healthy(manager);
    const std::string state = good             ? "alive"
                              : !manager.alive ? "gone"
                                               : fmt::format("waits for {}", escapeText(manager.leaseHolder));
    table.row({fmt::format("{} {}", escapeText(manager.kind), manager.number),
               Cell(state, good ? Style::good : Style::bad), showSpanMs(manager.beatAgeMs) + " ago",
               escapeText(manager.host), fmt::format("{}", manager.process),
               escapeText(manager.versionText)});
  }
  out.table(table);
  for (const pvss::StoreManager& manager : side.managers) {
    if (!manager.alive) {
      continue;
    }
    const auto rates = ratesOf(manager, side);
    out.line("");
    Table counters({fmt::format("{} {}", escapeText(manager.kind), manager.number), "NOW", "A SECOND"});
    for (const auto& [name, text] : manager.counters) {
      const auto rate = rates.find(name);
      counters.row(
          {escapeText(name), Cell(escapeText(text), Style::plain, true),
           Cell(rate == rates.end() ? "" : fmt::format("{:.1f}", rate->second), Style::plain, true)});
    }
    out.table(counters);
  }
}

Json jsonOfStore(const StoreSide& side) {
  if (!side.error.empty()) {
    return Json::Object{{"reachable", Json(false)}, {"error", Json(side.error)}};
  }
  const pvss::StoreStatistics& is = side.statistics;
  Json::Array writers;
  for (const pvss::StoreWriter& writer : is.writers) {
    writers.push_back(Json::Object{{"writer", Json(writer.writer)},
                                   {"lastClientSequence", Json(writer.lastClientSequence)},
                                   {"applied", Json(writer.applied)},
                                   {"lastUseMs", Json(writer.lastUseMs)}});
  }
  return Json::Object{{"reachable", Json(true)},
                      {"address", Json(is.address)},
                      {"serverVersion", Json(is.serverVersion)},
                      {"runId", Json(is.runId)},
                      {"functions", Json(is.functions)},
                      {"elements", Json(is.elements)},
                      {"usedMemoryBytes", Json(is.usedMemoryBytes)},
                      {"sequence", Json(is.log.sequence)},
                      {"changesPerSecond", Json(side.changesPerSecond)},
                      {"logEntries", Json(is.log.entries)},
                      {"logBytes", Json(is.log.bytes)},
                      {"logBoundBytes", Json(is.log.boundBytes)},
                      {"writers", Json(std::move(writers))}};
}

Json jsonOfManager(const pvss::StoreManager& manager, const StoreSide& side) {
  Json::Object counters;
  for (const auto& [name, text] : manager.counters) {
    const auto number = numberOf(text);
    counters.emplace_back(name, number ? Json(*number) : Json(text));
  }
  Json::Object rates;
  for (const auto& [name, rate] : ratesOf(manager, side)) {
    rates.emplace_back(name, Json(rate));
  }
  return Json::Object{{"number", Json(manager.number)},
                      {"kind", Json(manager.kind)},
                      {"writer", Json(manager.writer)},
                      {"alive", Json(manager.alive)},
                      {"holdsNumber", Json(healthy(manager))},
                      {"leaseHolder", Json(manager.leaseHolder)},
                      {"host", Json(manager.host)},
                      {"process", Json(manager.process)},
                      {"version", Json(manager.versionText)},
                      {"beatAgeMs", Json(manager.beatAgeMs)},
                      {"counters", Json(std::move(counters))},
                      {"perSecond", Json(std::move(rates))}};
}

Json jsonOfBroker(const BrokerSide& before, const BrokerSide& side, const Settings& settings) {
  Json::Object object{{"reachable", Json(side.error.empty())}, {"address", Json(brokerAddress(settings))}};
  if (!side.error.empty()) {
    object.emplace_back("error", Json(side.error));
    return object;
  }
  object.emplace_back("alive", Json(static_cast<std::uint64_t>(side.alive)));
  object.emplace_back("withoutPublisher", Json(static_cast<std::uint64_t>(side.gone)));
  object.emplace_back("foreign", Json(static_cast<std::uint64_t>(side.foreign)));
  object.emplace_back("unreadable", Json(static_cast<std::uint64_t>(side.unreadable)));
  Json::Array publishers;
  for (const KelPublisherInfo& publisher : side.publishers) {
    Json::Object counters;
    for (const auto& [name, count] : publisher.counters) {
      counters.emplace_back(name, Json(count));
    }
    publishers.push_back(
        Json::Object{{"name", Json(publisher.name)},
                     {"alive", Json(publisher.liveness == KelPublisherInfo::Liveness::alive)},
                     {"host", Json(publisher.host)},
                     {"process", Json(publisher.process)},
                     {"sentPerSecond", Json(rateOf(publisher, "sends", before, side))},
                     {"receivedPerSecond", Json(rateOf(publisher, "received", before, side))},
                     {"counters", Json(std::move(counters))}});
  }
  object.emplace_back("publishers", Json(std::move(publishers)));
  return object;
}

int run(double windowSeconds, Context& context) {
  const BrokerSide before = lookAtBroker(context.settings);
  const StoreSide store = lookAtStore(windowSeconds, context);
  // A broker that was away a moment ago is not waited for again.
  const BrokerSide broker = before.error.empty() ? lookAtBroker(context.settings) : before;
  const bool anyHealthy = std::any_of(store.managers.begin(), store.managers.end(), healthy);
  if (context.out.json()) {
    Json::Array managers;
    for (const pvss::StoreManager& manager : store.managers) {
      managers.push_back(jsonOfManager(manager, store));
    }
    context.out.document(Json::Object{{"healthy", Json(anyHealthy && broker.error.empty())},
                                      {"store", jsonOfStore(store)},
                                      {"broker", jsonOfBroker(before, broker, context.settings)},
                                      {"managers", Json(std::move(managers))}});
  } else {
    showStore(store, context.out);
    showBroker(broker, context.settings, context.out);
    showFlow(store, before, broker, context.out);
    showPublishers(before, broker, context.out);
    showManagers(store, context.out);
  }
  if (store.exitCode != exitDone) {
    return store.exitCode;
  }
  if (!broker.error.empty()) {
    return exitUnreachable;
  }
  return anyHealthy ? exitDone : exitNotHeld;
}

}  // namespace

void addStatus(CLI::App& parent, Chosen& chosen) {
  CLI::App* const command =
      parent.add_subcommand("status", "Is data flowing? Store, broker, managers and their counters");
  const auto window = std::make_shared<double>(2.5);
  command->add_option("--window", *window, "Seconds between the two looks")
      ->check(CLI::Range(0.0, 600.0))
      ->type_name("SECONDS")
      ->capture_default_str();
  const auto ledger = std::make_shared<bool>(false);
  const auto settle = std::make_shared<double>(10);
  CLI::Option* const flag = command->add_flag("--ledger", *ledger, "Is every value accounted for?");
  command->add_option("--settle", *settle, "Seconds to wait for traffic to end, with --ledger")
      ->check(CLI::Range(0.0, 3600.0))
      ->type_name("SECONDS")
      ->capture_default_str()
      ->needs(flag);
  command->footer(footer);
  command->callback([&chosen, window, ledger, settle] {
    chosen.action = [window, ledger, settle](Context& context) {
      return *ledger ? statusLedger(*settle, context) : run(*window, context);
    };
  });
}

}  // namespace kelgw
