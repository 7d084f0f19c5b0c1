#include <fmt/format.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <thread>

#include "Command.h"
#include "DpValue.h"
#include "Times.h"

namespace kelgw {
namespace {

constexpr const char* footer =
    "First the current values (marked \"now\"), then one line for every write, equal values included. The "
    "time is\n"
    "the source time: when the value arose, not when it arrived. Ctrl-C ends.\n"
    "\n"
    "  --count N    ends after N changes; current values do not count\n"
    "  --for S      ends after S seconds; with --count, fewer than N changes by then is exit code 1\n"
    "\n"
    "Examples:\n"
    "  kelgw dp watch Boiler1.temperature\n"
    "  kelgw dp watch 'Boiler1.*' --for 10\n"
    "  kelgw dp watch Pump1.speed --count 1 --for 5 --json\n";

struct Options {
  std::vector<std::string> names;
  std::uint64_t count = 0;
  std::optional<double> seconds;
};

const char* wordOf(pvss::StoreChange::Kind kind) {
  switch (kind) {
    case pvss::StoreChange::Kind::current:
      return "now";
    case pvss::StoreChange::Kind::written:
      return "set";
    case pvss::StoreChange::Kind::defined:
      return "defined";
    case pvss::StoreChange::Kind::removed:
      return "removed";
  }
  return "";
}

Json jsonOfChange(const pvss::StoreChange& change) {
  Json json = jsonOf(change.reading);
  auto& object = std::get<Json::Object>(json.data);
  object.insert(object.begin(), {"event", Json(wordOf(change.kind))});
  object.emplace_back("sequence", Json(change.sequence));
  object.emplace_back("writeTimeMs", Json(change.timeMs));
  object.emplace_back("writer", Json(change.writer));
  object.emplace_back("attributes", Json(change.attributes));
  return json;
}

std::string lineOfChange(const pvss::StoreChange& change, std::size_t width, const Output& out) {
  const pvss::StoreReading& reading = change.reading;
  // A write that touched only the flag or the bits has a time of its own.
  const std::int64_t timeMs =
      change.kind == pvss::StoreChange::Kind::current ? reading.valueTimeMs : change.timeMs;
  std::string line = fmt::format("{:<24}  {:<7}  {:<{}}  {}", showTimeMs(timeMs), wordOf(change.kind),
                                 escapeText(reading.name), width, showValue(reading, 100));
  if (change.kind == pvss::StoreChange::Kind::removed) {
    return line;
  }
  if (reading.invalid) {
    line += "  " + out.styled("invalid", Style::bad);
  }
  line +=
      out.styled(fmt::format("  bits {}{}", reading.userBit2 ? 1 : 0, reading.userBit1 ? 1 : 0), Style::dim);
  return line;
}

/// Ends a watch that waits: by a signal, or because nobody reads any more.
class Ending {
 public:
  explicit Ending(Context& context)
      : watcher([this, &context] {
          while (!over && !flag) {
            flag = context.stop || context.out.readerGone();
            std::this_thread::sleep_for(std::chrono::milliseconds(50));
          }
        }) {}
  ~Ending() {
    over = true;
    watcher.join();
  }
  Ending(const Ending&) = delete;
  Ending& operator=(const Ending&) = delete;
  [[nodiscard]] const std::atomic<bool>& wanted() const { return flag; }

 private:
  std::atomic<bool> flag{false};
  std::atomic<bool> over{false};
  std::thread watcher;  // last: it uses the two above
};

int run(const Options& options, Context& context) {
  pvss::StoreAdmin store = openStore(context.settings);
  const std::vector<std::string> names = expandNames(store, options.names);
  std::size_t width = 0;
  for (const std::string& name : names) {
    width = std::max(width, escapeText(name).size());
  }
  std::uint64_t seen = 0;
  const Ending ending(context);
  store.watch(
      names,
      [&](const pvss::StoreChange& change) {
        const bool read = context.out.json() ? context.out.event(jsonOfChange(change))
                                             : context.out.line(lineOfChange(change, width, context.out));
        seen += change.kind == pvss::StoreChange::Kind::current ? 0U : 1U;
        return read && (options.count == 0 || seen < options.count);
      },
      ending.wanted(), spanOf(options.seconds));
  return options.count != 0 && seen < options.count && !context.stop ? exitNotHeld : exitDone;
}

}  // namespace

void addDpWatch(CLI::App& parent, Chosen& chosen) {
  CLI::App* const command = parent.add_subcommand("watch", "Show elements as they change");
  const auto options = std::make_shared<Options>();
  command->add_option("NAME", options->names, "Elements, or patterns with * and ?")->required();
  command->add_option("--count", options->count, "End after this many changes")->check(CLI::PositiveNumber);
  command->add_option("--for", options->seconds, "End after this many seconds")
      ->check(CLI::NonNegativeNumber)
      ->type_name("SECONDS");
  command->footer(footer);
  command->callback(
      [&chosen, options] { chosen.action = [options](Context& context) { return run(*options, context); }; });
}

}  // namespace kelgw
