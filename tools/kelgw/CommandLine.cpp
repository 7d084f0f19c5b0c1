#include <fmt/format.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cmath>
#include <sstream>

#include "Command.h"
#include "kel/KelException.h"
#include "pvss/StoreAdmin.h"

namespace kelgw {
namespace {

constexpr const char* exitCodes =
    "Exit codes: 0 done, 1 it did not hold, 2 usage or bad input, 3 a server could not be reached.";

constexpr const char* mainFooter =
    "Addresses:\n"
    "  PVSS_STORE (or --store)   redis+unix:///path/redis.sock, redis://host:6379, rediss://...,\n"
    "                            redis+sentinel://host:26379,host:26379/master\n"
    "  KEL_URL    (or --kel)     mqtt://host:1883, mqtts://host:8883?ca=FILE; without it "
    "mqtt://127.0.0.1:1883\n"
    "\n"
    "Examples:\n"
    "  export PVSS_STORE=redis+unix:///run/redis/redis.sock\n"
    "  kelgw check plant.yaml                         can every mapping of the file work?\n"
    "  kelgw apply plant.yaml --dry-run               what would change in the store?\n"
    "  kelgw apply plant.yaml                         make the store match the file\n"
    "  kelgw dp watch 'Boiler1.*'                     see values as they change\n"
    "  kelgw dp set Pump1.speed 12.5                  change one\n"
    "  kelgw kel sub plant/pump1                      see what the gateway publishes\n"
    "  kelgw status                                   is data flowing?\n"
    "\n"
    "Results are on standard output, errors on standard error. `kelgw COMMAND --help` explains each "
    "command.\n";

int runAction(const Action& action, Context& context) {
  try {
    return action(context);
  } catch (const CommandError& error) {
    context.out.remark(error.what());
    return error.code;
  } catch (const DatumError& error) {
    context.out.remark(error.what());
    return exitBadInput;
  } catch (const KelException& error) {
    context.out.remark(escapeText(error.what()));
    return exitBadInput;
  } catch (const pvss::StoreError& error) {
    const bool unreachable = error.kind() == pvss::StoreError::Kind::unreachable;
    context.out.remark(fmt::format(
        "{}{}", error.what(),
        unreachable ? "; is the store running, and is PVSS_STORE (or --store) its address?" : ""));
    return error.exitCode();
  }
}

/// Every help text ends alike, so that nobody has to look for the exit codes.
void finish(CLI::App* command) {
  const std::string own = command->get_footer();
  command->footer(fmt::format("{}{}For every command: --store --kel --json --limit, see `kelgw --help`.\n{}",
                              own, own.empty() ? "" : "\n", exitCodes));
  command->fallthrough();
}

/// Names what is no command among the words of the line; empty when every one is.
std::string unknownCommand(const CLI::App& app, int count, const char* const* arguments) {
  const CLI::App* level = &app;
  for (int index = 1; index < count; ++index) {
    const std::string word = arguments[index];
    if (word == "--store" || word == "--kel" || word == "--limit") {
      ++index;  // its value
      continue;
    }
    if (word.starts_with('-')) {
      continue;
    }
    const auto commands = level->get_subcommands([](const CLI::App*) { return true; });
    if (commands.empty()) {
      return {};
    }
    const auto at = std::find_if(commands.begin(), commands.end(),
                                 [&](const CLI::App* command) { return command->get_name() == word; });
    if (at == commands.end()) {
      std::string known;
      for (const CLI::App* const command : commands) {
        known += " " + command->get_name();
      }
      return fmt::format("there is no command \"{}\" here; there are:{}", escapeText(word), known);
    }
    level = *at;
  }
  return {};
}

CLI::App& group(CLI::App& app, const char* name, const char* text) {
  CLI::App* const made = app.add_subcommand(name, text);
  made->require_subcommand(1);
  return *made;
}

}  // namespace

std::optional<std::chrono::milliseconds> spanOf(std::optional<double> seconds) {
  if (!seconds) {
    return std::nullopt;
  }
  return std::chrono::milliseconds(std::llround(*seconds * 1000));
}

int runCommandLine(int count, const char* const* arguments, std::FILE* results, std::FILE* remarks,
                   const std::atomic<bool>& stop) {
  Settings settings;
  Chosen chosen;
  CLI::App app{"kelgw: look at and change both sides of a Kel gateway.", "kelgw"};
  app.require_subcommand(1);
  app.fallthrough();
  app.add_option("--store", settings.store,
                 "Address of the data point store (default: the variable PVSS_STORE)")
      ->type_name("ADDRESS");
  app.add_option("--kel", settings.kel, "Address of the Kel broker (default: the variable KEL_URL)")
      ->type_name("URL");
  app.add_flag("--json", settings.json, "For scripts: one JSON document, or one line of JSON for each event");
  app.add_option("--limit", settings.limitSeconds, "Seconds to wait for a server before giving up")
      ->check(CLI::Range(0.05, 3600.0))
      ->type_name("SECONDS")
      ->capture_default_str();

  addApply(app, chosen);
  addCheck(app, chosen);
  CLI::App& dp = group(app, "dp", "Look at and change data point elements");
  addDpLs(dp, chosen);
  addDpGet(dp, chosen);
  addDpSet(dp, chosen);
  addDpWatch(dp, chosen);
  CLI::App& kel = group(app, "kel", "Look at and send Kel publications");
  addKelLs(kel, chosen);
  addKelSub(kel, chosen);
  addKelPub(kel, chosen);
  addStatus(app, chosen);
  addExplain(app, chosen);

  for (CLI::App* const command : app.get_subcommands([](CLI::App*) { return true; })) {
    const auto parts = command->get_subcommands([](CLI::App*) { return true; });
    std::for_each(parts.begin(), parts.end(), finish);
    finish(command);
  }
  // Last, because a subcommand takes over the footer that its parent has when it is made.
  app.footer(fmt::format("{}{}", mainFooter, exitCodes));

  try {
    app.parse(count, arguments);
  } catch (const CLI::ParseError& error) {
    std::ostringstream help;
    std::ostringstream complaint;
    const int code = app.exit(error, help, complaint);
    const std::string helpText = help.str();
    const std::string unknown = code == 0 ? std::string() : unknownCommand(app, count, arguments);
    const std::string complaintText = unknown.empty() ? tamed(complaint.str()) : "kelgw: " + unknown + "\n";
    std::fwrite(helpText.data(), 1, helpText.size(), results);
    std::fwrite(complaintText.data(), 1, complaintText.size(), remarks);
    std::fflush(results);
    return code == 0 ? exitDone : exitBadInput;
  }

  Output out(results, remarks, settings.json);
  Context context{settings, out, stop};
  try {
    return runAction(chosen.action, context);
  } catch (const std::exception& error) {
    out.remark(fmt::format("unexpected: {}", escapeText(error.what())));
    return exitNotHeld;
  }
}

}  // namespace kelgw
