#include <fmt/format.h>
#include <kel/KelBrowser.h>

#include <CLI/CLI.hpp>
#include <algorithm>

#include "Command.h"
#include "DpValue.h"
#include "KelValue.h"
#include "Pairs.h"
#include "PlantState.h"

namespace kelgw {
namespace {

constexpr const char* footer =
    "Without a server: is the file right, and can every mapping work? With --live also: is every subscribed\n"
    "publication there, does it have the field, and does the field's type go into the element?\n"
    "A wrong file is exit code 2, a mapping that does not work with what is live now is exit code 1.\n"
    "\n"
    "Examples:\n"
    "  kelgw check plant.yaml\n"
    "  kelgw check plant.yaml --live\n"
    "  kelgw check plant.yaml --json | jq .errors\n";

struct LiveFinding {
  int line;
  std::string publication;
  std::string what;
};

std::vector<LiveFinding> lookLive(const pvss::PlantFile& plant, const Settings& settings) {
  KelBrowser browser(settings.kel);
  if (!browser.look(settings.limit())) {
    throw unreachableBroker(settings, browser.error());
  }
  std::vector<LiveFinding> findings;
  for (const pvss::PlantFile::Subscription& subscription : plant.subscribe) {
    const auto& seen = browser.publications();
    const auto at = std::find_if(seen.begin(), seen.end(), [&](const KelPublicationInfo& each) {
      return each.name == subscription.publication;
    });
    if (at == seen.end() || !at->hasRecord) {
      findings.push_back(
          {subscription.line, subscription.publication, "nothing is published under this name"});
      continue;
    }
    if (!at->readable) {
      findings.push_back(
          {subscription.line, subscription.publication,
           fmt::format("what is published there is not a record: {}", escapeText(at->decodeError))});
      continue;
    }
    for (const pvss::PlantFile::Field& field : subscription.fields) {
      const int kelType = at->record.getValueType(field.tag.c_str());
      const pvss::PlantFile::Element* const element = plant.find(field.element);
      if (kelType == 0) {
        findings.push_back({field.line, subscription.publication,
                            fmt::format("the record has no field \"{}\"", escapeText(field.tag))});
      } else if (element != nullptr && !kelFeeds(kelType, element->type)) {
        findings.push_back(
            {field.line, subscription.publication,
             fmt::format("field \"{}\" is a {}, which goes into {}, but {} is {}", escapeText(field.tag),
                         kelTypeName(kelType), elementTypeFedBy(kelType), escapeText(element->name),
                         typeName(element->type))});
      }
    }
  }
  return findings;
}

int run(const std::string& path, bool live, Context& context) {
  const pvss::PlantFile plant = readPlant(path);
  if (!plant.errors.empty()) {
    showPlantErrors(plant, path, context);
    return exitBadInput;
  }
  const std::vector<LiveFinding> findings =
      live ? lookLive(plant, context.settings) : std::vector<LiveFinding>();
  const std::size_t fed = plant.clientTexts().size();
  if (context.out.json()) {
    Json::Array list;
    for (const LiveFinding& finding : findings) {
      list.push_back(Json::Object{{"line", Json(finding.line)},
                                  {"publication", Json(finding.publication)},
                                  {"what", Json(finding.what)}});
    }
    context.out.document(
        Json::Object{{"file", Json(path)},
                     {"ok", Json(findings.empty())},
                     {"elements", Json(static_cast<std::uint64_t>(plant.elements.size()))},
                     {"fed", Json(static_cast<std::uint64_t>(fed))},
                     {"publications", Json(static_cast<std::uint64_t>(plant.publish.size()))},
                     {"errors", Json(Json::Array())},
                     {"live", Json(std::move(list))}});
  } else {
    for (const LiveFinding& finding : findings) {
      context.out.line(
          fmt::format("{}:{}: {}: {}", path, finding.line, escapeText(finding.publication), finding.what));
    }
    const auto counted = [](std::size_t count, const char* what) {
      return fmt::format("{} {}{}", count, what, count == 1 ? "" : "s");
    };
    context.out.line(fmt::format(
        "{}: {}, {} fed by {}; {} sent: {}", path, counted(plant.elements.size(), "element"), fed,
        counted(plant.subscribe.size(), "publication"), counted(plant.publish.size(), "publication"),
        findings.empty() ? "all right"
                         : counted(findings.size(), "thing") + " cannot work with what is live now"));
  }
  return findings.empty() ? exitDone : exitNotHeld;
}

}  // namespace

void addCheck(CLI::App& parent, Chosen& chosen) {
  CLI::App* const command = parent.add_subcommand(
      "check", "Say, before anything runs, which mapping of a plant file cannot work and why");
  const auto path = std::make_shared<std::string>();
  const auto live = std::make_shared<bool>(false);
  command->add_option("PLANT", *path, "The plant file (YAML)")->required();
  command->add_flag("--live", *live, "Compare with what is published now, too");
  command->footer(footer);
  command->callback([&chosen, path, live] {
    chosen.action = [path, live](Context& context) { return run(*path, *live, context); };
  });
}

}  // namespace kelgw
