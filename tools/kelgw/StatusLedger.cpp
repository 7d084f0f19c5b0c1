// kelgw status --ledger: collects the books of everybody until they stand still, and shows the balance.

#include <fmt/format.h>

#include <algorithm>
#include <chrono>
#include <set>
#include <thread>

#include "DpValue.h"
#include "KelValue.h"
#include "Ledger.h"
#include "Status.h"

namespace kelgw {
namespace {

using std::chrono::steady_clock;

/// A little more than the time between two heartbeats.
constexpr std::chrono::milliseconds lookEvery{1100};

/// Everything that is asked, and why somebody could not be.
struct Look {
  Books books;
  std::string storeAddress;
  std::string storeError;
  int storeExit = exitDone;
  std::string brokerError;
  [[nodiscard]] bool reached() const { return storeError.empty() && brokerError.empty(); }
};

void lookAtStore(Look& look, const Settings& settings) {
  try {
    pvss::StoreAdmin store = openStore(settings);
    look.storeAddress = store.address();
    std::set<std::string> mapped;
    for (const pvss::StoreElement& element : store.listElements()) {
      if (element.addressType != 0) {
        mapped.insert(element.reference.substr(0, element.reference.find('\x1a')));
      }
    }
    look.books.mapped.assign(mapped.begin(), mapped.end());
    // What is counted by the store comes last: it may be ahead of a heartbeat, never behind it.
    look.books.managers = store.managers();
    look.books.writers = store.statistics().writers;
  } catch (const pvss::StoreError& error) {
    look.storeError = error.what();
    look.storeExit = error.exitCode();
  }
}

void lookAtBroker(Look& look, const Settings& settings) {
  KelBrowser browser(settings.kel);
  if (!browser.lookWithLedgers(settings.limit())) {
    look.brokerError = unreachableBroker(settings, browser.error()).what();
    return;
  }
  look.books.members = browser.publishers();
  look.books.ledgers = browser.ledgers();
  for (const KelPublicationInfo& publication : browser.publications()) {
    if (publication.hasRecord && publication.readable) {
      look.books.kept.push_back(
          {publication.name, publication.record.getPublisher(), publication.record.getSequence()});
    }
  }
}

Look lookAtBoth(const Settings& settings) {
  Look look;
  lookAtBroker(look, settings);
  lookAtStore(look, settings);
  return look;
}

/// Looks until two looks running are the same; says whether that came about.
std::pair<Look, bool> settled(double settleSeconds, Context& context) {
  const auto end =
      steady_clock::now() + std::chrono::milliseconds(static_cast<std::int64_t>(settleSeconds * 1000));
  Look before = lookAtBoth(context.settings);
  while (before.reached() && !context.stop) {
    const auto next = steady_clock::now() + lookEvery;
    while (!context.stop && steady_clock::now() < next) {
      std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
    Look now = lookAtBoth(context.settings);
    const bool still = now.reached() && quiet(before.books, now.books);
    before = std::move(now);
    if (still) {
      return {std::move(before), true};
    }
    if (steady_clock::now() >= end) {
      break;
    }
  }
  return {std::move(before), false};
}

Json optional(const std::optional<std::int64_t>& number) {
  return number ? Json(*number) : Json();
}

Json jsonOf(const SubscribeLine& line) {
  const KelCounters& c = line.book.counters;
  return Json::Object{{"subscriber", Json(line.subscriber)},
                      {"manager", Json(line.manager)},
                      {"publication", Json(line.book.publication)},
                      {"publisher", Json(line.book.publisher)},
                      {"incarnation", Json(line.book.incarnation)},
                      {"runs", Json(line.book.runs)},
                      {"published", optional(line.published)},
                      {"publishedBy", Json(line.publishedBy)},
                      {"before", Json(line.book.before)},
                      {"received", Json(c.received)},
                      {"again", Json(line.book.again)},
                      {"gaps", Json(c.gaps)},
                      {"missing", Json(line.missing)},
                      {"lastSeq", Json(line.book.last)},
                      {"resends", Json(c.resends)},
                      {"delivered", Json(c.delivered)},
                      {"superseded", Json(c.superseded)},
                      {"repeated", Json(c.repeated)},
                      {"decodeErrors", Json(c.decodeErrors)},
                      {"discarded", Json(c.discarded)},
                      {"held", Json(c.held)},
                      {"pending", Json(c.pending)},
                      {"balanced", Json(line.balanced())},
                      {"why", Json(line.why)}};
}

Json jsonOf(const PublishLine& line) {
  const KelCounters& c = line.book.counters;
  return Json::Object{{"publication", Json(line.book.publication)},
                      {"publisher", Json(line.publisher)},
                      {"incarnation", Json(line.incarnation)},
                      {"manager", Json(line.manager)},
                      {"sends", Json(c.sends)},
                      {"acknowledged", Json(c.acknowledged)},
                      {"refused", Json(c.refused)},
                      {"superseded", Json(c.outgoingSuperseded)},
                      {"pending", Json(c.outgoingPending)},
                      {"lastSeq", Json(line.book.last)},
                      {"lastAcknowledged", Json(line.book.lastAcknowledged)},
                      {"retained", optional(line.kept)},
                      {"balanced", Json(line.balanced())},
                      {"why", Json(line.why)}};
}

struct WriteColumn {
  const char* name;
  std::int64_t WriteLine::*figure;
};
constexpr WriteColumn writeColumns[] = {
    {"queued", &WriteLine::queued},       {"confirmed", &WriteLine::confirmed},
    {"coalesced", &WriteLine::coalesced}, {"dropped", &WriteLine::dropped},
    {"rejected", &WriteLine::rejected},   {"pending", &WriteLine::pending},
    {"settled", &WriteLine::settled},     {"applied", &WriteLine::applied},
    {"refused", &WriteLine::refused},     {"lost", &WriteLine::lost},
    {"restored", &WriteLine::restored},   {"values", &WriteLine::values},
    {"hotLinks", &WriteLine::hotLinks},
};

Json jsonOf(const WriteLine& line) {
  Json::Object object{{"manager", Json(line.manager)},
                      {"writer", Json(line.writer)},
                      {"host", Json(line.host)},
                      {"process", Json(line.process)},
                      {"alive", Json(line.alive)}};
  for (const WriteColumn& column : writeColumns) {
    object.emplace_back(column.name, Json(line.*column.figure));
  }
  object.emplace_back("balanced", Json(line.balanced()));
  object.emplace_back("why", Json(line.why));
  return object;
}

Json jsonOf(const GoneLine& line) {
  Json::Array writers;
  for (const std::string& writer : line.writers) {
    writers.push_back(Json(writer));
  }
  return Json::Object{{"manager", Json(line.manager)},         {"writers", Json(std::move(writers))},
                      {"published", optional(line.published)}, {"applied", Json(line.applied)},
                      {"inFlight", Json(line.inFlight)},       {"bound", Json(line.bound)},
                      {"balanced", Json(line.balanced())},     {"why", Json(line.why)}};
}

template <class Line>
Json::Array jsonOf(const std::vector<Line>& lines) {
  Json::Array array;
  for (const Line& line : lines) {
    array.push_back(jsonOf(line));
  }
  return array;
}

Json jsonOfStore(const Look& look, const Ledger& ledger) {
  Json::Object object{{"reachable", Json(look.storeError.empty())}};
  if (!look.storeError.empty()) {
    object.emplace_back("error", Json(look.storeError));
    return object;
  }
  object.emplace_back("address", Json(look.storeAddress));
  const auto holds = [](const Verdict& line) { return line.balanced(); };
  object.emplace_back("balanced", Json(std::all_of(ledger.writes.begin(), ledger.writes.end(), holds) &&
                                       std::all_of(ledger.gone.begin(), ledger.gone.end(), holds)));
  for (const WriteColumn& column : writeColumns) {
    std::int64_t sum = 0;
    for (const WriteLine& line : ledger.writes) {
      sum += line.alive ? line.*column.figure : 0;
    }
    object.emplace_back(column.name, Json(sum));
  }
  object.emplace_back("managers", Json(jsonOf(ledger.writes)));
  object.emplace_back("gone", Json(jsonOf(ledger.gone)));
  return object;
}

Json jsonOfAll(const Look& look, const Ledger& ledger, const Settings& settings) {
  Json::Array why;
  for (const std::string& line : ledger.why) {
    why.push_back(Json(line));
  }
  Json::Object broker{{"reachable", Json(look.brokerError.empty())},
                      {"address", Json(brokerAddress(settings))}};
  if (!look.brokerError.empty()) {
    broker.emplace_back("error", Json(look.brokerError));
  }
  return Json::Object{{"balanced", Json(look.reached() && ledger.balanced())},
                      {"moving", Json(ledger.moving)},
                      {"why", Json(std::move(why))},
                      {"store", jsonOfStore(look, ledger)},
                      {"broker", Json(std::move(broker))},
                      {"subscribe", Json(jsonOf(ledger.subscribe))},
                      {"publish", Json(jsonOf(ledger.publish))}};
}

Cell figure(std::int64_t number) {
  return {fmt::format("{}", number), Style::plain, true};
}

Cell figure(const std::optional<std::int64_t>& number) {
  return number ? figure(*number) : Cell("", Style::plain, true);
}

Cell verdict(const Verdict& line) {
  return {line.balanced() ? "balanced" : escapeText(line.why), line.balanced() ? Style::good : Style::bad};
}

std::string nameOf(const SubscribeLine& line) {
  if (!line.book.publisher.empty()) {
    return escapeText(line.book.publisher) + "/" + escapeText(line.book.incarnation.substr(0, 6));
  }
  return line.book.runs == 0 ? "(without numbers)" : fmt::format("({} runs)", line.book.runs);
}

void showTables(const Ledger& ledger, Output& out) {
  Table subscribed({"SUBSCRIBED", "PUBLISHER", "PUBLISHED", "BEFORE", "RECEIVED", "AGAIN", "GAPS", "MISSING",
                    "DELIVERED", "SUPERSEDED", "REPEATED", "DISCARDED", "WAITING", "BALANCE"});
  for (const SubscribeLine& line : ledger.subscribe) {
    const KelCounters& c = line.book.counters;
    subscribed.row({line.book.publication.empty() ? "(no longer)" : escapeText(line.book.publication),
                    nameOf(line), figure(line.published), figure(line.book.before), figure(c.received),
                    figure(line.book.again), figure(c.gaps), figure(line.missing), figure(c.delivered),
                    figure(c.superseded), figure(c.repeated + c.decodeErrors), figure(c.discarded),
                    figure(c.held + c.pending), verdict(line)});
  }
  Table written({"WRITTEN", "QUEUED", "CONFIRMED", "COALESCED", "DROPPED", "REJECTED", "PENDING", "SETTLED",
                 "APPLIED", "REFUSED", "LOST", "BALANCE"});
  for (const WriteLine& line : ledger.writes) {
    written.row({fmt::format("manager {}{}", line.manager, line.alive ? "" : " (gone)"), figure(line.queued),
                 figure(line.confirmed), figure(line.coalesced), figure(line.dropped), figure(line.rejected),
                 figure(line.pending), figure(line.settled), figure(line.applied), figure(line.refused),
                 figure(line.lost), verdict(line)});
  }
  Table gone({"EARLIER RUNS", "RUNS", "PUBLISHED", "APPLIED", "IN FLIGHT", "AT MOST", "BALANCE"});
  for (const GoneLine& line : ledger.gone) {
    gone.row({fmt::format("manager {}", line.manager), figure(static_cast<std::int64_t>(line.writers.size())),
              figure(line.published), figure(line.applied), figure(line.inFlight), figure(line.bound),
              verdict(line)});
  }
  Table published(
      {"PUBLISHED", "SENDS", "ACKNOWLEDGED", "SUPERSEDED", "REFUSED", "PENDING", "LAST", "KEPT", "BALANCE"});
  for (const PublishLine& line : ledger.publish) {
    const KelCounters& c = line.book.counters;
    published.row({line.book.publication.empty() ? "(no longer)" : escapeText(line.book.publication),
                   figure(c.sends), figure(c.acknowledged), figure(c.outgoingSuperseded), figure(c.refused),
                   figure(c.outgoingPending), figure(line.book.last), figure(line.kept), verdict(line)});
  }
  bool any = false;
  for (const Table* table : {&subscribed, &written, &gone, &published}) {
    if (!table->empty()) {
      if (any) {
        out.line("");
      }
      any = true;
      out.table(*table);
    }
  }
}

void show(const Look& look, const Ledger& ledger, Output& out) {
  for (const std::string* error : {&look.storeError, &look.brokerError}) {
    if (!error->empty()) {
      out.remark(*error);
    }
  }
  if (!look.reached()) {
    return;
  }
  showTables(ledger, out);
  out.line("");
  if (ledger.balanced()) {
    out.line(out.styled(ledger.moving ? "moving: nothing is missing so far" : "balanced", Style::good));
    return;
  }
  out.line(out.styled(ledger.moving ? "moving, and not balanced:" : "not balanced:", Style::bad));
  for (const std::string& line : ledger.why) {
    out.line("  " + escapeText(line));
  }
}

}  // namespace

int statusLedger(double settleSeconds, Context& context) {
  const auto [look, still] = settled(settleSeconds, context);
  Ledger ledger;
  if (look.reached()) {
    ledger = balance(look.books, !still);
  }
  if (context.out.json()) {
    context.out.document(jsonOfAll(look, ledger, context.settings));
  } else {
    show(look, ledger, context.out);
  }
  if (look.storeExit != exitDone) {
    return look.storeExit;
  }
  if (!look.brokerError.empty()) {
    return exitUnreachable;
  }
  return ledger.balanced() ? exitDone : exitNotHeld;
}

}  // namespace kelgw
