#include <fmt/format.h>
#include <kel/KelBrowser.h>

#include <CLI/CLI.hpp>
#include <algorithm>

#include "Command.h"
#include "DpValue.h"
#include "KelValue.h"
#include "Pairs.h"
#include "Plan.h"
#include "Times.h"

namespace kelgw {
namespace {

constexpr const char* footer =
    "Follows the element both ways: its value now, the publication that feeds it, the publications that it "
    "feeds,\n"
    "the lists that name it, the managers. Each line says ok, or !! and what is wrong; any !! gives exit "
    "code 1.\n"
    "\n"
    "Examples:\n"
    "  kelgw explain Boiler1.temperature\n"
    "  kelgw explain Boiler1.temperature --json | jq '.findings[] | select(.ok | not)'\n";

struct Finding {
  bool ok;
  std::string text;
};

struct Lists {
  std::vector<std::string> clients;  ///< list elements that name the element
  std::vector<std::pair<std::string, std::vector<std::string>>>
      publications;  ///< list element, entry's fields
};

class Story {
 public:
  Story(std::string elementName, Context& theContext)
      : name(std::move(elementName)), context(theContext), store(openStore(context.settings)) {}

  int tell() {
    const pvss::StoreReadings readings = store.readElements({name});
    reading = readings.readings.at(0);
    if (reading.type == DPELEMENT_NOELEMENT) {
      throw CommandError(
          exitNotHeld,
          fmt::format("no element is called \"{}\" (`kelgw dp ls` lists them all)", escapeText(name)));
    }
    findLists();
    KelBrowser browser(context.settings.kel);
    brokerReached = browser.look(context.settings.limit());
    brokerError = browser.error();
    publications = browser.publications();
    tellValue();
    tellManagers();
    tellSource();
    tellTargets();
    show();
    if (!brokerReached) {
      return exitUnreachable;
    }
    return std::all_of(findings.begin(), findings.end(), [](const Finding& each) { return each.ok; })
               ? exitDone
               : exitNotHeld;
  }

 private:
  void say(bool ok, std::string text) { findings.push_back({ok, std::move(text)}); }

  void findLists() {
    std::vector<std::string> candidates;
    for (const pvss::StoreElement& each : store.listElements()) {
      if (each.name == name) {
        element = each;
      }
      if (each.type == DPELEMENT_DYNTEXT) {
        candidates.push_back(each.name);
      }
    }
    for (const pvss::StoreReading& list : store.readElements(candidates).readings) {
      if (!list.value || list.value->isA() != DYNTEXT_VAR) {
        continue;
      }
      for (const Item& item : datumOf(*list.value).items) {
        const std::string& text = std::get<std::string>(item);
        if (text == name) {
          lists.clients.push_back(list.name);
        } else if (text.find(fieldSeparator) != std::string::npos) {
          std::vector<std::string> fields = splitEntry(text);
          for (std::size_t at = 2; at < fields.size(); at += 2) {
            if (fields[at] == name) {
              lists.publications.emplace_back(list.name, fields);
              break;
            }
          }
        }
      }
    }
  }

  void tellValue() {
    if (!reading.value) {
      say(false, fmt::format("{} ({}) was never written", escapeText(name), typeName(reading.type)));
      return;
    }
    say(!reading.invalid,
        fmt::format("{} ({}) is {}, {}, user bits {}{}, source time {} ({} ago)", escapeText(name),
                    typeName(reading.type), showValue(reading, 80), reading.invalid ? "invalid" : "valid",
                    reading.userBit2 ? 1 : 0, reading.userBit1 ? 1 : 0, showTimeMs(reading.valueTimeMs),
                    showSpanMs(std::max<std::int64_t>(0, nowMs() - reading.valueTimeMs))));
    if (reading.invalid) {
      say(false, fmt::format("it has been invalid since {}", showTimeMs(reading.invalidTimeMs)));
    }
  }

  void tellManagers() {
    const std::vector<pvss::StoreManager> managers = store.managers();
    const auto alive = std::find_if(managers.begin(), managers.end(),
                                    [](const pvss::StoreManager& manager) { return manager.alive; });
    if (alive == managers.end()) {
      say(false, "no manager is alive on this store: nothing is carried either way");
    } else {
      say(true, fmt::format("manager {} is alive on {} (process {})", alive->number, escapeText(alive->host),
                            alive->process));
    }
  }

  const KelPublicationInfo* find(const std::string& publication) const {
    const auto at = std::find_if(publications.begin(), publications.end(),
                                 [&](const KelPublicationInfo& each) { return each.name == publication; });
    return at == publications.end() ? nullptr : &*at;
  }

  void tellSource() {
    if (element.addressType == 0) {
      if (!lists.clients.empty()) {
        say(false, fmt::format("{} names it, but it has no address: the gateway ignores it",
                               escapeText(lists.clients.front())));
      }
      return;
    }
    const std::size_t at = element.reference.find(fieldSeparator);
    const std::string publication = element.reference.substr(0, at);
    const std::string tag = at == std::string::npos ? "" : element.reference.substr(at + 1);
    say(element.driver == "KEL", fmt::format("it is fed from {}", showReference(element)));
    if (lists.clients.empty()) {
      say(false, "no list names it: the gateway does not subscribe for it");
    } else {
      say(true, fmt::format("{} names it", escapeText(lists.clients.front())));
    }
    if (!brokerReached) {
      say(false, fmt::format("the broker did not answer: {}", escapeText(brokerError)));
      return;
    }
    const KelPublicationInfo* const info = find(publication);
    if (info == nullptr || !info->hasRecord) {
      say(false, fmt::format("nothing is published under {}", escapeText(publication)));
      return;
    }
    tellPublication(*info);
    if (info->readable) {
      tellField(*info, tag);
    }
  }

  void tellPublication(const KelPublicationInfo& info) {
    using Liveness = KelPublicationInfo::Liveness;
    const std::string shown = escapeText(info.name);
    if (!info.readable) {
      say(false,
          fmt::format("what is published under {} is not a record: {}", shown, escapeText(info.decodeError)));
      return;
    }
    const bool alive = info.liveness == Liveness::alive || info.liveness == Liveness::foreign;
    const std::string owner = info.owner.empty() ? "somebody who does not say who" : escapeText(info.owner);
    say(alive, alive ? fmt::format("{} is published by {}", shown, owner)
                     : fmt::format("the publisher of {}, {}, is gone: its last record is not current", shown,
                                   owner));
    const std::string reason = escapeText(info.record.getReason());
    say(info.record.getQuality() == 1,
        fmt::format("its last record is {}{}{}, of {}", qualityWord(info.record.getQuality()),
                    reason.empty() ? "" : ": ", reason,
                    showTimeNs(info.record.getTimestamp().timeNanoseconds)));
  }

  void tellField(const KelPublicationInfo& info, const std::string& tag) {
    const int kelType = info.record.getValueType(tag.c_str());
    if (kelType == 0) {
      say(false, fmt::format("the record has no field \"{}\"; it has: {}", escapeText(tag),
                             showFields(info.record, 30)));
      return;
    }
    if (!kelFeeds(kelType, reading.type)) {
      say(false, fmt::format("its field \"{}\" is a {}, which does not go into {}: it would need {}",
                             escapeText(tag), kelTypeName(kelType), typeName(reading.type),
                             elementTypeFedBy(kelType)));
      return;
    }
    for (const KelField& field : fieldsOf(info.record)) {
      if (field.tag == tag) {
        say(true, fmt::format("its field \"{}\" is a {} and holds {}", escapeText(tag), kelTypeName(kelType),
                              showDatum(field.value, 80)));
      }
    }
  }

  void tellTargets() {
    for (const auto& [list, fields] : lists.publications) {
      std::string tag;
      for (std::size_t at = 2; at < fields.size(); at += 2) {
        if (fields[at] == name && at + 1 < fields.size()) {
          tag = fields[at + 1];
        }
      }
      say(true, fmt::format("{} publishes it as {} \"{}\", buffer time {} ms", escapeText(list),
                            escapeText(fields[0]), escapeText(tag), escapeText(fields[1])));
      const KelPublicationInfo* const info = brokerReached ? find(fields[0]) : nullptr;
      if (info == nullptr || !info->hasRecord) {
        say(false, brokerReached ? fmt::format("nothing is published under {}", escapeText(fields[0]))
                                 : fmt::format("the broker did not answer: {}", escapeText(brokerError)));
        continue;
      }
      tellPublication(*info);
      if (info->readable && info->record.getValueType(tag.c_str()) == 0) {
        say(false, fmt::format("the record has no field \"{}\"", escapeText(tag)));
      }
    }
    if (element.addressType == 0 && lists.publications.empty() && lists.clients.empty()) {
      say(true, "nothing feeds it and it feeds nothing: only people and other managers use it");
    }
  }

  void show() {
    if (!context.out.json()) {
      for (const Finding& finding : findings) {
        context.out.line(fmt::format(
            "{}  {}", context.out.styled(finding.ok ? "ok" : "!!", finding.ok ? Style::good : Style::bad),
            finding.text));
      }
      return;
    }
    Json::Array list;
    for (const Finding& finding : findings) {
      list.push_back(Json::Object{{"ok", Json(finding.ok)}, {"text", Json(finding.text)}});
    }
    context.out.document(Json::Object{{"element", jsonOf(reading)}, {"findings", Json(std::move(list))}});
  }

  std::string name;
  Context& context;
  pvss::StoreAdmin store;
  pvss::StoreReading reading;
  pvss::StoreElement element;
  Lists lists;
  std::vector<KelPublicationInfo> publications;
  bool brokerReached = false;
  std::string brokerError;
  std::vector<Finding> findings;
};

}  // namespace

void addExplain(CLI::App& parent, Chosen& chosen) {
  CLI::App* const command =
      parent.add_subcommand("explain", "The whole story of one element: why is it as it is?");
  const auto name = std::make_shared<std::string>();
  command->add_option("DPE", *name, "The element")->required();
  command->footer(footer);
  command->callback([&chosen, name] {
    chosen.action = [name](Context& context) { return Story(elementName(*name), context).tell(); };
  });
}

}  // namespace kelgw
