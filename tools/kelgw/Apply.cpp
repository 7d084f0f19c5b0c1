#include <fmt/format.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <charconv>

#include "Command.h"
#include "DpValue.h"
#include "PlantState.h"

namespace kelgw {
namespace {

constexpr const char* footer =
    "Writes what differs, in this order: elements and addresses, values, the two lists, then (with --prune)\n"
    "deletions. A second run has nothing to do. A file with any mistake is refused whole and the store is "
    "not\n"
    "touched; every mistake is named with its line.\n"
    "\n"
    "Values: `value:` in the file is an initial value. It is written when the element has none yet or its "
    "type\n"
    "changes; a value that is there stays, because somebody set it. --reset-values writes it all the same.\n"
    "Elements that the file does not have stay unless --prune is given.\n"
    "A running gateway follows new elements, addresses and publications by itself. Publications that changed "
    "or went\n"
    "need a restart of it; they are named at the end.\n"
    "The store's function library is installed when it is missing or older than this program's.\n"
    "\n"
    "Examples:\n"
    "  kelgw apply plant.yaml --dry-run\n"
    "  kelgw apply plant.yaml\n"
    "  kelgw apply plant.yaml --prune --json | jq .restart\n";

struct Options {
  std::string path;
  bool dryRun = false;
  PlanOptions plan;
};

enum class Functions : std::uint8_t { current, missing, older };

long versionNumber(std::string_view text) {
  long number = -1;
  std::from_chars(text.data(), text.data() + text.size(), number);
  return number;
}

Functions functionsOf(pvss::StoreAdmin& store) {
  const std::string installed = store.functionsVersion();
  const std::string_view own = pvss::StoreAdmin::ownFunctionsVersion();
  if (installed.empty()) {
    return Functions::missing;
  }
  if (installed == own) {
    return Functions::current;
  }
  if (versionNumber(installed) > versionNumber(own)) {
    throw CommandError(exitNotHeld,
                       fmt::format("the store has function library {}, newer than {} of this program: "
                                   "use the kelgw that installed it",
                                   escapeText(installed), own));
  }
  return Functions::older;
}

Json jsonOfPlan(const Plan& plan, Functions functions, bool applied) {
  Json::Array steps;
  for (const PlanStep& step : plan.steps) {
    steps.push_back(Json::Object{{"action", Json(std::string(wordOf(step.action)))},
                                 {"name", Json(step.name)},
                                 {"detail", Json(step.detail)}});
  }
  Json::Array restart;
  for (const RestartNote& note : plan.restarts) {
    restart.push_back(Json::Object{{"publication", Json(note.publication)}, {"reason", Json(note.reason)}});
  }
  return Json::Object{{"applied", Json(applied)},
                      {"nothingToDo", Json(plan.nothingToDo() && functions == Functions::current)},
                      {"installFunctions", Json(functions != Functions::current)},
                      {"steps", Json(std::move(steps))},
                      {"restart", Json(std::move(restart))},
                      {"keptValues", Json(static_cast<std::uint64_t>(plan.keptValues))}};
}

void showPlan(const Plan& plan, Functions functions, bool dryRun, Output& out) {
  Table table({"STEP", "NAME", "WHAT"});
  if (functions != Functions::current) {
    table.row({"functions", "",
               fmt::format("{} version {}", functions == Functions::missing ? "install" : "replace by",
                           pvss::StoreAdmin::ownFunctionsVersion())});
  }
  // A dry run shows everything: the plan is what it is for.
  constexpr std::size_t shown = 100;
  const std::size_t rows = dryRun ? plan.steps.size() : std::min(shown, plan.steps.size());
  for (std::size_t index = 0; index < rows; ++index) {
    const PlanStep& step = plan.steps[index];
    table.row({std::string(wordOf(step.action)), escapeText(step.name), step.detail});
  }
  if (table.empty()) {
    out.line("nothing to do");
  } else {
    out.table(table);
    if (rows < plan.steps.size()) {
      out.line(fmt::format("... and {} more (--json shows all)", plan.steps.size() - rows));
    }
    const std::size_t count = plan.steps.size() + (functions != Functions::current ? 1 : 0);
    out.line(fmt::format("{} {} {}", count, count == 1 ? "step" : "steps",
                         dryRun ? "to do; nothing was changed (--dry-run)" : "done"));
  }
  if (plan.keptValues != 0) {
    out.line(fmt::format("{} {} from the plant and stay (--reset-values writes them)", plan.keptValues,
                         plan.keptValues == 1 ? "value differs" : "values differ"));
  }
  for (const RestartNote& note : plan.restarts) {
    out.line(fmt::format("publication {}: {}; restart the gateway to take it over",
                         escapeText(note.publication), note.reason));
  }
}

int run(const Options& options, Context& context) {
  const pvss::PlantFile plant = readPlant(options.path);
  if (!plant.errors.empty()) {
    showPlantErrors(plant, options.path, context);
    const std::size_t count = plant.errors.size();
    context.out.remark(fmt::format("{} {}: nothing was changed", count, count == 1 ? "mistake" : "mistakes"));
    return exitBadInput;
  }
  const WantedState wanted = wantedStateOf(plant);
  pvss::StoreAdmin store = openStore(context.settings);
  const Functions functions = functionsOf(store);
  FoundState found;
  found.elements = store.listElements();
  // Values are read by the functions; installing them changes no data, so a real run begins with that.
  if (functions != Functions::current && !options.dryRun) {
    store.installFunctions();
  }
  if (functions == Functions::current || !options.dryRun) {
    found.readings = store.readElements(valuesNeeded(wanted)).readings;
  } else if (!found.elements.empty()) {
    context.out.remark(
        "without the right function library values and lists cannot be read: they are shown as never "
        "written");
  }
  const Plan plan = makePlan(wanted, found, options.plan);
  if (!options.dryRun) {
    if (!plan.work.put.empty() || !plan.work.values.empty() || !plan.work.lists.empty()) {
      store.apply(plan.work);
    }
    if (!plan.removals.empty()) {
      store.removeElements(plan.removals);
    }
  }
  if (context.out.json()) {
    context.out.document(jsonOfPlan(plan, functions, !options.dryRun));
  } else {
    showPlan(plan, functions, options.dryRun, context.out);
  }
  return exitDone;
}

}  // namespace

void addApply(CLI::App& parent, Chosen& chosen) {
  CLI::App* const command = parent.add_subcommand("apply", "Make the store match a plant file");
  const auto options = std::make_shared<Options>();
  command->add_option("PLANT", options->path, "The plant file (YAML)")->required();
  command->add_flag("--dry-run", options->dryRun, "Only print what would be done");
  command->add_flag("--prune", options->plan.prune, "Delete elements that the file does not have");
  command->add_flag("--reset-values", options->plan.resetValues,
                    "Write every value of the file, also over values that are there");
  command->footer(footer);
  command->callback(
      [&chosen, options] { chosen.action = [options](Context& context) { return run(*options, context); }; });
}

}  // namespace kelgw
