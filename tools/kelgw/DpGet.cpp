#include <CLI/CLI.hpp>

#include "Command.h"
#include "DpValue.h"
#include "Times.h"

namespace kelgw {
namespace {

constexpr const char* footer =
    "All values are as of one moment. BITS are user bit 2 and user bit 1: 11 good, 01 of lesser standing, 00 "
    "bad.\n"
    "SOURCE TIME is when the value arose at its source.\n"
    "\n"
    "Examples:\n"
    "  kelgw dp get Boiler1.temperature\n"
    "  kelgw dp get 'Boiler1.*' Pump1.speed\n"
    "  kelgw dp get Boiler1.temperature --json | jq '.elements[0].value'\n";

struct Options {
  std::vector<std::string> names;
  bool valueOnly = false;
};

int run(const Options& options, Context& context) {
  pvss::StoreAdmin store = openStore(context.settings);
  const pvss::StoreReadings readings = store.readElements(expandNames(store, options.names));
  if (context.out.json()) {
    Json::Array elements;
    for (const pvss::StoreReading& reading : readings.readings) {
      elements.push_back(jsonOf(reading));
    }
    context.out.document(
        Json::Object{{"sequence", Json(readings.sequence)}, {"elements", Json(std::move(elements))}});
    return exitDone;
  }
  if (options.valueOnly) {
    for (const pvss::StoreReading& reading : readings.readings) {
      context.out.line(showValue(reading, 0));
    }
    return exitDone;
  }
  Table table({"ELEMENT", "TYPE", "VALUE", "INVALID", "BITS", "SOURCE TIME"});
  for (const pvss::StoreReading& reading : readings.readings) {
    table.row({escapeText(reading.name), std::string(typeName(reading.type)), showValue(reading, 60),
               Cell(reading.invalid ? "yes" : "no", reading.invalid ? Style::bad : Style::plain),
               std::string(reading.userBit2 ? "1" : "0") + (reading.userBit1 ? "1" : "0"),
               showTimeMs(reading.valueTimeMs)});
  }
  context.out.table(table);
  return exitDone;
}

}  // namespace

void addDpGet(CLI::App& parent, Chosen& chosen) {
  CLI::App* const command =
      parent.add_subcommand("get", "Show value, invalid flag, user bits and source time of elements");
  const auto options = std::make_shared<Options>();
  command->add_option("NAME", options->names, "Elements, or patterns with * and ?")->required();
  command->add_flag("--value", options->valueOnly, "Only the values, one a line, never shortened");
  command->footer(footer);
  command->callback(
      [&chosen, options] { chosen.action = [options](Context& context) { return run(*options, context); }; });
}

}  // namespace kelgw
