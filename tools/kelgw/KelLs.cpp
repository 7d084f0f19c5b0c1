#include <fmt/format.h>
#include <kel/KelBrowser.h>

#include <CLI/CLI.hpp>

#include "Command.h"
#include "KelValue.h"
#include "Pattern.h"
#include "Times.h"

namespace kelgw {
namespace {

constexpr const char* footer =
    "STATE  alive      its publisher is alive\n"
    "       gone       a last record is there, its publisher is not: subscribers see it as disconnected\n"
    "       silent     its publisher has not given a sign of life yet\n"
    "       foreign    published by something that does not say who it is\n"
    "       closed     claimed by a publisher, nothing is published\n"
    "       unreadable what is published there is not a Kel record\n"
    "\n"
    "Examples:\n"
    "  kelgw kel ls\n"
    "  kelgw kel ls 'plant/*' --fields\n"
    "  kelgw kel ls --json | jq -r '.publications[] | select(.state != \"alive\") | .name'\n";

struct Options {
  std::string pattern;
  bool fields = false;
};

std::string stateOf(const KelPublicationInfo& publication) {
  if (!publication.readable) {
    return "unreadable";
  }
  switch (publication.liveness) {
    case KelPublicationInfo::Liveness::closed:
      return "closed";
    case KelPublicationInfo::Liveness::ownerGone:
      return "gone";
    case KelPublicationInfo::Liveness::unconfirmed:
      return "silent";
    case KelPublicationInfo::Liveness::alive:
      return "alive";
    case KelPublicationInfo::Liveness::foreign:
      return "foreign";
  }
  return "";
}

Json jsonOfPublication(const KelPublicationInfo& publication) {
  Json::Object object{{"name", Json(publication.name)},
                      {"state", Json(stateOf(publication))},
                      {"owner", Json(publication.owner)},
                      {"incarnation", Json(publication.incarnation)},
                      {"payloadBytes", Json(static_cast<std::uint64_t>(publication.payloadBytes))}};
  object.emplace_back("record",
                      publication.hasRecord && publication.readable ? jsonOf(publication.record) : Json());
  if (!publication.readable) {
    object.emplace_back("error", Json(publication.decodeError));
  }
  return object;
}

Json jsonOfPublisher(const KelPublisherInfo& publisher) {
  Json::Object counters;
  for (const auto& [name, count] : publisher.counters) {
    counters.emplace_back(name, Json(count));
  }
  return Json::Object{{"name", Json(publisher.name)},
                      {"incarnation", Json(publisher.incarnation)},
                      {"alive", Json(publisher.liveness == KelPublisherInfo::Liveness::alive)},
                      {"host", Json(publisher.host)},
                      {"process", Json(publisher.process)},
                      {"started", Json(showTimeNs(publisher.startedNanoseconds))},
                      {"counters", Json(std::move(counters))}};
}

void showPublication(const KelPublicationInfo& publication, bool fields, Table& table) {
  const std::string state = stateOf(publication);
  const bool record = publication.hasRecord && publication.readable;
  std::string content;
  if (!publication.readable) {
    content = escapeText(publication.decodeError);
  } else if (record) {
    content = fields ? showFields(publication.record, 60) : fmt::format("{}", publication.record.size());
  }
  const Style style = state == "alive" || state == "foreign" ? Style::good : Style::bad;
  table.row({escapeText(publication.name), Cell(state, style), escapeText(publication.owner),
             record ? qualityWord(publication.record.getQuality()) : "-",
             record ? showTimeNs(publication.record.getTimestamp().timeNanoseconds) : "-", content});
}

int run(const Options& options, Context& context) {
  KelBrowser browser(context.settings.kel);
  if (!browser.look(context.settings.limit())) {
    throw unreachableBroker(context.settings, browser.error());
  }
  Table table({"PUBLICATION", "STATE", "OWNER", "QUALITY", "TIME", "FIELDS"});
  Json::Array publications;
  for (const KelPublicationInfo& publication : browser.publications()) {
    if (options.pattern.empty() || matches(options.pattern, publication.name)) {
      showPublication(publication, options.fields, table);
      publications.push_back(jsonOfPublication(publication));
    }
  }
  const bool none = publications.empty();
  if (context.out.json()) {
    Json::Array publishers;
    for (const KelPublisherInfo& publisher : browser.publishers()) {
      publishers.push_back(jsonOfPublisher(publisher));
    }
    context.out.document(Json::Object{{"publications", Json(std::move(publications))},
                                      {"publishers", Json(std::move(publishers))}});
  } else if (!none) {
    context.out.table(table);
  }
  if (none) {
    context.out.remark(options.pattern.empty()
                           ? std::string("nothing is published in this group")
                           : fmt::format("no publication matches \"{}\"", escapeText(options.pattern)));
  }
  return none && !options.pattern.empty() ? exitNotHeld : exitDone;
}

}  // namespace

void addKelLs(CLI::App& parent, Chosen& chosen) {
  CLI::App* const command =
      parent.add_subcommand("ls", "List the publications, their owners, and who is alive");
  const auto options = std::make_shared<Options>();
  command->add_option("PATTERN", options->pattern, "Only publications whose name matches (* and ?)");
  command->add_flag("--fields", options->fields,
                    "Show the fields of the last record instead of their number");
  command->footer(footer);
  command->callback(
      [&chosen, options] { chosen.action = [options](Context& context) { return run(*options, context); }; });
}

}  // namespace kelgw
