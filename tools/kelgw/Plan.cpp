#include "Plan.h"

#include <fmt/format.h>

#include <algorithm>
#include <map>
#include <optional>
#include <set>

#include "Datum.h"
#include "DpValue.h"

namespace kelgw {
namespace {

/// The texts of a list element; nothing when it was never written.
std::optional<std::vector<std::string>> textsOf(const pvss::StoreReading* reading) {
  if (reading == nullptr || !reading->value || reading->value->isA() != DYNTEXT_VAR) {
    return std::nullopt;
  }
  std::vector<std::string> texts;
  for (const Item& item : datumOf(*reading->value).items) {
    texts.push_back(std::get<std::string>(item));
  }
  return texts;
}

std::shared_ptr<const Variable> listOf(const std::vector<std::string>& texts) {
  Datum datum{{Kind::text, true}, {}};
  datum.items.assign(texts.begin(), texts.end());
  return variableOf(datum);
}

bool wellFormed(const std::vector<std::string>& fields) {
  return (fields.size() == 3 || (fields.size() > 3 && fields.size() % 2 == 0)) &&
         std::none_of(fields.begin(), fields.end(), [](const std::string& field) { return field.empty(); });
}

/// Publications of a list by name, as a manager takes them: well-formed entries, the first of each name.
std::map<std::string, std::string> publicationsOf(const std::vector<std::string>& entries) {
  std::map<std::string, std::string> byName;
  for (const std::string& entry : entries) {
    const std::vector<std::string> fields = splitEntry(entry);
    if (wellFormed(fields)) {
      byName.emplace(fields[0], entry);
    }
  }
  return byName;
}

/// "a, b and 3 more", escaped.
std::string someOf(const std::vector<std::string>& names) {
  constexpr std::size_t shown = 3;
  std::string text;
  for (std::size_t index = 0; index < std::min(shown, names.size()); ++index) {
    text += (index == 0 ? "" : ", ") + escapeText(names[index]);
  }
  return names.size() > shown ? fmt::format("{} and {} more", text, names.size() - shown) : text;
}

/// What became of the entries of a list; an entry is known by its first field.
std::string differences(const std::vector<std::string>& before, const std::vector<std::string>& after) {
  const auto byName = [](const std::vector<std::string>& entries) {
    std::map<std::string, std::string> map;
    for (const std::string& entry : entries) {
      map.emplace(entry.substr(0, entry.find(fieldSeparator)), entry);
    }
    return map;
  };
  const auto old = byName(before);
  const auto now = byName(after);
  std::vector<std::string> added;
  std::vector<std::string> changed;
  std::vector<std::string> removed;
  for (const auto& [name, entry] : now) {
    const auto at = old.find(name);
    if (at == old.end()) {
      added.push_back(name);
    } else if (at->second != entry) {
      changed.push_back(name);
    }
  }
  for (const auto& [name, entry] : old) {
    if (!now.contains(name)) {
      removed.push_back(name);
    }
  }
  std::string text;
  for (const auto& [word, names] : {std::pair{"new", added}, {"changed", changed}, {"gone", removed}}) {
    if (!names.empty()) {
      text += fmt::format("; {} {}", word, someOf(names));
    }
  }
  return text.empty() ? "; in another order" : text;
}

class Planner {
 public:
  Planner(const WantedState& wantedState, const FoundState& foundState, const PlanOptions& planOptions)
      : wanted(wantedState), found(foundState), options(planOptions) {
    for (const pvss::StoreElement& element : found.elements) {
      catalogue[element.name] = &element;
    }
    for (const pvss::StoreReading& reading : found.readings) {
      readings[reading.name] = &reading;
    }
  }

  Plan make() {
    planCatalogue();
    planValues();
    planClients();
    planPublications();
    planRemovals();
    return std::move(plan);
  }

 private:
  void step(PlanStep::Action action, const std::string& name, std::string detail) {
    plan.steps.push_back({action, name, std::move(detail)});
  }

  void planCatalogue() {
    for (pvss::StoreElement element : wanted.elements) {
      const auto at = catalogue.find(element.name);
      if (at == catalogue.end()) {
        std::string detail(typeName(element.type));
        if (element.addressType != 0) {
          detail += fmt::format(", fed from {}", showReference(element));
        }
        step(PlanStep::Action::create, element.name, std::move(detail));
        created.insert(element.name);
        plan.work.put.push_back(std::move(element));
        continue;
      }
      const pvss::StoreElement& before = *at->second;
      element.disabled = before.disabled;  // a plant does not speak of attributes that are switched off
      if (element == before) {
        continue;
      }
      if (element.type != before.type) {
        step(PlanStep::Action::retype, element.name,
             fmt::format("{} becomes {}; its value is lost", typeName(before.type), typeName(element.type)));
        retyped.insert(element.name);
      }
      if (element.addressType != before.addressType || element.driver != before.driver ||
          element.reference != before.reference) {
        step(PlanStep::Action::address, element.name,
             fmt::format("{} becomes {}", showReference(before), showReference(element)));
        addressed.insert(element.name);
      }
      plan.work.put.push_back(std::move(element));
    }
  }

  const pvss::StoreReading* readingOf(const std::string& name) const {
    // A changed type takes the old value away.
    const auto at = readings.find(name);
    return at == readings.end() || retyped.contains(name) ? nullptr : at->second;
  }

  void planValues() {
    for (const auto& [name, value] : wanted.values) {
      const pvss::StoreReading* const reading = readingOf(name);
      const Variable* const before = reading == nullptr ? nullptr : reading->value.get();
      if (before != nullptr && sameValue(before, value.get())) {
        continue;
      }
      if (before != nullptr && !options.resetValues) {
        ++plan.keptValues;
        continue;
      }
      step(PlanStep::Action::value, name,
           fmt::format("{} (was {})", showDatum(datumOf(*value), 60),
                       before == nullptr ? "never written" : showDatum(datumOf(*before), 60)));
      plan.work.values.push_back({name, value, std::nullopt, std::nullopt, std::nullopt});
    }
  }

  /// Writes the list when it differs, or again, unchanged, when `again` says why.
  void planList(const std::string& list, const std::vector<std::string>& texts, const std::string& again) {
    const auto before = textsOf(readingOf(list));
    if (before != texts) {
      step(PlanStep::Action::list, list,
           fmt::format("{} {}{}", texts.size(), texts.size() == 1 ? "entry" : "entries",
                       before ? differences(*before, texts) : ", never written"));
    } else if (!again.empty()) {
      step(PlanStep::Action::listAgain, list, again);
    } else {
      return;
    }
    plan.work.lists.push_back({list, listOf(texts), std::nullopt, std::nullopt, std::nullopt});
  }

  void planClients() {
    if (wanted.clientList.empty()) {
      return;
    }
    std::string again;
    for (const std::string& client : wanted.clients) {
      if (created.contains(client) || retyped.contains(client) || addressed.contains(client)) {
        again = fmt::format("unchanged, so that the gateway looks at {} again", escapeText(client));
        break;
      }
    }
    planList(wanted.clientList, wanted.clients, again);
  }

  void planPublications() {
    if (wanted.publicationList.empty()) {
      return;
    }
    const auto before =
        publicationsOf(textsOf(readingOf(wanted.publicationList)).value_or(std::vector<std::string>()));
    const auto after = publicationsOf(wanted.publications);
    std::string again;
    for (const auto& [name, entry] : after) {
      const auto old = before.find(name);
      if (old == before.end()) {
        continue;  // new: a running manager starts it by itself
      }
      if (old->second != entry) {
        plan.restarts.push_back({name, "its entry changed"});
        continue;
      }
      const std::vector<std::string> fields = splitEntry(entry);
      for (std::size_t at = 2; at < fields.size(); at += 2) {
        if (created.contains(fields[at])) {
          again = fmt::format("unchanged, so that the gateway tries {} again", escapeText(name));
        } else if (retyped.contains(fields[at])) {
          plan.restarts.push_back({name, fmt::format("the type of {} changed", escapeText(fields[at]))});
          break;
        }
      }
    }
    for (const auto& [name, entry] : before) {
      if (!after.contains(name)) {
        plan.restarts.push_back({name, "it is no longer in the list and goes on publishing until then"});
      }
    }
    planList(wanted.publicationList, wanted.publications, again);
  }

  void planRemovals() {
    if (!options.prune) {
      return;
    }
    std::set<std::string> kept;
    for (const pvss::StoreElement& element : wanted.elements) {
      kept.insert(element.name);
    }
    for (const pvss::StoreElement& element : found.elements) {
      if (!kept.contains(element.name)) {
        step(PlanStep::Action::remove, element.name, std::string(typeName(element.type)));
        plan.removals.push_back(element.name);
      }
    }
  }

  const WantedState& wanted;
  const FoundState& found;
  const PlanOptions& options;
  std::map<std::string, const pvss::StoreElement*> catalogue;
  std::map<std::string, const pvss::StoreReading*> readings;
  std::set<std::string> created;
  std::set<std::string> retyped;
  std::set<std::string> addressed;
  Plan plan;
};

}  // namespace

std::vector<std::string> valuesNeeded(const WantedState& wanted) {
  std::vector<std::string> names;
  for (const auto& [name, value] : wanted.values) {
    names.push_back(name);
  }
  for (const std::string& list : {wanted.clientList, wanted.publicationList}) {
    if (!list.empty()) {
      names.push_back(list);
    }
  }
  return names;
}

Plan makePlan(const WantedState& wanted, const FoundState& found, const PlanOptions& options) {
  return Planner(wanted, found, options).make();
}

std::string_view wordOf(PlanStep::Action action) {
  switch (action) {
    case PlanStep::Action::create:
      return "create";
    case PlanStep::Action::retype:
      return "type";
    case PlanStep::Action::address:
      return "address";
    case PlanStep::Action::value:
      return "value";
    case PlanStep::Action::list:
      return "list";
    case PlanStep::Action::listAgain:
      return "list again";
    case PlanStep::Action::remove:
      return "delete";
  }
  return "";
}

std::vector<std::string> splitEntry(std::string_view entry) {
  std::vector<std::string> fields;
  while (!entry.empty()) {
    const std::size_t end = entry.find(fieldSeparator);
    fields.emplace_back(entry.substr(0, end));
    if (end == std::string_view::npos) {
      break;
    }
    entry.remove_prefix(end + 1);
  }
  return fields;
}

std::string showReference(const pvss::StoreElement& element) {
  if (element.addressType == 0) {
    return "no address";
  }
  const std::size_t at = element.reference.find(fieldSeparator);
  std::string shown = escapeText(element.reference.substr(0, at));
  if (at != std::string::npos) {
    shown += " -> " + escapeText(element.reference.substr(at + 1));
  }
  if (element.driver != "KEL") {
    shown += fmt::format(" (driver \"{}\")", escapeText(element.driver));
  }
  return shown;
}

}  // namespace kelgw
