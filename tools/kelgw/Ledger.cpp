#include "Ledger.h"

#include <fmt/format.h>
#include <kel/Kel.h>

#include <algorithm>
#include <array>
#include <charconv>
#include <map>
#include <utility>

namespace kelgw {
namespace {

constexpr std::int64_t smallestCall = 128;  // bytes that the backlog counts for it, at least

std::string runOf(const std::string& publisher, const std::string& incarnation) {
  return incarnation.empty() ? publisher : publisher + "/" + incarnation;
}

bool holdsNumber(const pvss::StoreManager& manager) {
  return manager.alive && manager.leaseHeld && manager.leaseHolder == manager.writer;
}

std::int64_t counterOf(const pvss::StoreManager& manager, std::string_view name) {
  std::int64_t number = 0;
  for (const auto& [key, text] : manager.counters) {
    if (key == name) {
      std::from_chars(text.data(), text.data() + text.size(), number);
    }
  }
  return number;
}

bool same(const KelReceived& a, const KelReceived& b) {
  const auto figures = [](const KelReceived& row) {
    const KelCounters& c = row.counters;
    return std::array{row.runs,       row.before,  row.last,    row.restarted, row.again,
                      c.received,     c.resends,   c.delivered, c.superseded,  c.repeated,
                      c.decodeErrors, c.discarded, c.held,      c.pending,     c.gaps};
  };
  return a.publication == b.publication && a.publisher == b.publisher && a.incarnation == b.incarnation &&
         figures(a) == figures(b);
}

bool same(const KelSent& a, const KelSent& b) {
  const auto figures = [](const KelSent& row) {
    const KelCounters& c = row.counters;
    return std::array{row.last,  row.lastAcknowledged, c.sends,          c.acknowledged,
                      c.refused, c.outgoingSuperseded, c.outgoingPending};
  };
  return a.publication == b.publication && figures(a) == figures(b);
}

bool same(const KelLedger& a, const KelLedger& b) {
  const auto equal = [](const auto& x, const auto& y) { return same(x, y); };
  return a.publisher == b.publisher && a.incarnation == b.incarnation &&
         std::equal(a.received.begin(), a.received.end(), b.received.begin(), b.received.end(), equal) &&
         std::equal(a.sent.begin(), a.sent.end(), b.sent.begin(), b.sent.end(), equal);
}

bool same(const pvss::StoreWriter& a, const pvss::StoreWriter& b) {
  return a.writer == b.writer && a.lastClientSequence == b.lastClientSequence && a.applied == b.applied &&
         a.attributes == b.attributes && a.refused == b.refused;
}

/// The same manager, nothing counted meanwhile, and its counters are not those of the last look's heartbeat.
bool same(const pvss::StoreManager& a, const pvss::StoreManager& b) {
  if (a.writer != b.writer || holdsNumber(a) != holdsNumber(b)) {
    return false;
  }
  // Who has just died may still seem to live: then the heartbeat does not come, until it does not live any
  // more.
  return !holdsNumber(b) || (a.counters == b.counters && a.lastBeatMs != b.lastBeatMs);
}

/// Looks things up in the books.
class Index {
 public:
  explicit Index(const Books& books) : books_(books) {
    for (const KelLedger& ledger : books.ledgers) {
      ledgers_[runOf(ledger.publisher, ledger.incarnation)] = &ledger;
      for (const KelSent& row : ledger.sent) {
        sent_[{runOf(ledger.publisher, ledger.incarnation), row.publication}] = &row;
      }
    }
    for (const KelPublisherInfo& member : books.members) {
      members_[runOf(member.name, member.incarnation)] = &member;
    }
    for (const KeptRecord& record : books.kept) {
      kept_[record.publication] = &record;
    }
  }

  [[nodiscard]] const KelLedger* ledger(const std::string& run) const { return find(ledgers_, run); }
  [[nodiscard]] const KelPublisherInfo* member(const std::string& run) const { return find(members_, run); }
  [[nodiscard]] const KeptRecord* kept(const std::string& publication) const {
    return find(kept_, publication);
  }
  [[nodiscard]] const KelSent* sent(const std::string& run, const std::string& publication) const {
    return find(sent_, std::pair(run, publication));
  }
  /// The member of the group that is the same process.
  [[nodiscard]] const KelPublisherInfo* memberOf(const pvss::StoreManager& manager) const {
    const auto at = std::find_if(books_.members.begin(), books_.members.end(), [&](const auto& member) {
      return member.process == manager.process && member.host == manager.host &&
             member.liveness == KelPublisherInfo::Liveness::alive;
    });
    return at == books_.members.end() ? nullptr : &*at;
  }

 private:
  template <class Map, class Key>
  static auto find(const Map& map, const Key& key) -> typename Map::mapped_type {
    const auto at = map.find(key);
    return at == map.end() ? nullptr : at->second;
  }
  const Books& books_;
  std::map<std::string, const KelLedger*> ledgers_;
  std::map<std::string, const KelPublisherInfo*> members_;
  std::map<std::string, const KeptRecord*> kept_;
  std::map<std::pair<std::string, std::string>, const KelSent*> sent_;
};

/// Whether the counters of one book agree with each other, which they do at every moment.
std::string receivedWrongly(const KelReceived& book) {
  const KelCounters& c = book.counters;
  const std::int64_t numbers = book.restarted + book.last;
  const std::int64_t seen = book.before + c.received - book.again + c.gaps;
  if (numbers != seen) {
    return fmt::format("{} numbers, but {} gone by, arrived or missing", numbers, seen);
  }
  const std::int64_t in = c.received + c.resends;
  const std::int64_t out =
      c.delivered + c.superseded + c.repeated + c.decodeErrors + c.discarded + c.held + c.pending;
  return in == out ? "" : fmt::format("{} records came in, but {} are accounted for", in, out);
}

/// Compares with what the publisher, or without it the broker, says was published.
void compare(SubscribeLine& line, const Index& index, bool moving) {
  const KelReceived& book = line.book;
  line.published = book.restarted + book.last;
  line.publishedBy = "seen";
  if (book.runs != 1 || book.last == 0) {  // a sum, or a run without numbers
    if (book.runs == 0 || (book.runs == 1 && book.last == 0)) {
      line.published.reset();
      line.publishedBy = "";
    }
    return;
  }
  const std::string run = runOf(book.publisher, book.incarnation);
  std::int64_t newest = 0;
  std::int64_t taken = 0;
  if (const KelSent* sent = index.sent(run, book.publication)) {
    line.publishedBy = "publisher";
    newest = sent->last;
    taken = sent->lastAcknowledged;
    if (!moving && newest < book.last && line.why.empty()) {
      line.why = fmt::format("number {} arrived, but only {} were sent", book.last, newest);
    }
  } else if (const KeptRecord* kept = index.kept(book.publication);
             kept != nullptr && kept->publisher == run && kept->sequence >= book.last) {
    line.publishedBy = "retained";
    newest = taken = kept->sequence;
  } else {
    return;
  }
  line.published = book.restarted + newest;
  line.missing = std::max<std::int64_t>(0, newest - book.last);
  if (!moving && taken > book.last && line.why.empty()) {
    line.why = fmt::format("the broker has taken number {}, the last that arrived is {}", taken, book.last);
  }
}

SubscribeLine received(const KelReceived& book, const KelLedger& ledger, int manager, const Index& index,
                       bool moving) {
  SubscribeLine line;
  line.subscriber = ledger.publisher;
  line.manager = manager;
  line.book = book;
  line.why = receivedWrongly(book);
  compare(line, index, moving);
  return line;
}

PublishLine sent(const KelSent& book, const KelLedger& ledger, int manager, const Index& index, bool moving) {
  PublishLine line;
  line.publisher = ledger.publisher;
  line.incarnation = ledger.incarnation;
  line.manager = manager;
  line.book = book;
  const KeptRecord* kept = index.kept(book.publication);
  if (kept != nullptr && kept->publisher == runOf(ledger.publisher, ledger.incarnation)) {
    line.kept = kept->sequence;
  }
  const KelCounters& c = book.counters;
  const std::int64_t ended = c.acknowledged + c.refused + c.outgoingSuperseded + c.outgoingPending;
  if (c.sends != ended) {
    line.why = fmt::format("{} records sent, but {} are accounted for", c.sends, ended);
  } else if (book.last != c.sends) {
    line.why = fmt::format("{} records sent, but the last number is {}", c.sends, book.last);
  } else if (!moving && c.outgoingPending == 0 && line.kept && *line.kept != book.lastAcknowledged) {
    line.why = fmt::format("the broker keeps number {}, but the last that it took is {}", *line.kept,
                           book.lastAcknowledged);
  }
  return line;
}

WriteLine written(const pvss::StoreManager& manager, const Books& books, bool moving) {
  WriteLine line;
  line.manager = manager.number;
  line.writer = manager.writer;
  line.host = manager.host;
  line.process = manager.process;
  line.alive = holdsNumber(manager);
  line.queued = counterOf(manager, "queued");
  line.confirmed = counterOf(manager, "confirmed");
  line.coalesced = counterOf(manager, "coalesced");
  line.dropped = counterOf(manager, "dropped");
  line.rejected = counterOf(manager, "rejected");
  line.pending = counterOf(manager, "pending");
  line.settled = counterOf(manager, "settled");
  line.lost = counterOf(manager, "lost");
  line.restored = counterOf(manager, "restored");
  line.hotLinks = counterOf(manager, "hotLinks");
  for (const pvss::StoreWriter& writer : books.writers) {
    if (writer.writer == manager.writer) {
      line.applied = static_cast<std::int64_t>(writer.attributes);
      line.refused = static_cast<std::int64_t>(writer.refused);
      line.values = static_cast<std::int64_t>(writer.values);
    }
  }
  const std::int64_t ended = line.confirmed + line.coalesced + line.dropped + line.rejected + line.pending;
  const std::int64_t known = line.applied + line.refused + line.lost;
  if (line.queued != ended) {
    line.why = fmt::format("{} writes queued, but {} are accounted for", line.queued, ended);
  } else if (known < line.settled) {
    line.why = fmt::format("{} writes settled, but the store has counted {}", line.settled, known);
  } else if (line.alive && !moving && known != line.settled) {
    line.why = fmt::format("the store has counted {} writes, but only {} are settled", known, line.settled);
  }
  return line;
}

/// The manager number in front of a writer; nothing for a tool.
std::optional<int> numberOf(const std::string& writer) {
  int number = 0;
  const auto [end, error] = std::from_chars(writer.data(), writer.data() + writer.size(), number);
  return error == std::errc() && end != writer.data() + writer.size() && *end == '.' ? std::optional(number)
                                                                                     : std::nullopt;
}

/// Whether a run of a publisher began after the moment; a publisher that is gone does not say.
bool beganAfter(const std::string& run, std::int64_t momentMs, const Index& index) {
  const KelPublisherInfo* member = index.member(run);
  return member != nullptr && momentMs != 0 && member->startedNanoseconds / 1'000'000 >= momentMs;
}

/// What had been published when the present run of the gateway came: that was for the earlier ones.
std::optional<std::int64_t> publishedBefore(const KelLedger& ledger, std::int64_t sinceMs,
                                            const Index& index) {
  std::int64_t published = 0;
  for (const KelReceived& book : ledger.received) {
    if (book.before == 0) {
      continue;
    }
    if (book.runs != 1 || !beganAfter(runOf(book.publisher, book.incarnation), sinceMs, index)) {
      return std::nullopt;
    }
    published += book.before;
  }
  return published;
}

/// What has been published of everything that elements are fed from.
std::optional<std::int64_t> publishedUntilNow(const Books& books, std::int64_t sinceMs, const Index& index) {
  std::int64_t published = 0;
  for (const std::string& publication : books.mapped) {
    const KeptRecord* kept = index.kept(publication);
    if (kept == nullptr || kept->publisher.empty()) {
      continue;
    }
    if (!beganAfter(kept->publisher, sinceMs, index)) {
      return std::nullopt;
    }
    published += kept->sequence;
  }
  return published;
}

// What the backlog of a manager number may hold, in bytes, as its heartbeat says: the process that is gone
// had the configuration of the one that follows it, or of the one whose last heartbeat the store still has.
std::int64_t backlogBoundOf(const Books& books, int number) {
  std::int64_t bound = 0;
  for (const pvss::StoreManager& manager : books.managers) {
    if (manager.number == number) {
      bound = std::max(bound, counterOf(manager, "backlogBound"));
    }
  }
  return bound;
}

std::vector<GoneLine> goneOf(const Books& books, const Index& index) {
  std::map<int, GoneLine> lines;
  std::map<int, std::int64_t> since;
  for (const pvss::StoreWriter& writer : books.writers) {
    const auto number = numberOf(writer.writer);
    const bool present = std::any_of(books.managers.begin(), books.managers.end(), [&](const auto& manager) {
      return manager.writer == writer.writer && holdsNumber(manager);
    });
    if (!number || present) {
      continue;
    }
    GoneLine& line = lines[*number];
    line.manager = *number;
    line.writers.push_back(writer.writer);
    line.applied += static_cast<std::int64_t>(writer.values);
    std::int64_t& first = since.try_emplace(*number, writer.sinceMs).first->second;
    first = std::min(first, writer.sinceMs);
  }
  std::vector<GoneLine> result;
  for (auto& entry : lines) {
    const int number = entry.first;
    GoneLine& line = entry.second;
    const auto now = std::find_if(books.managers.begin(), books.managers.end(), [&](const auto& manager) {
      return manager.number == number && holdsNumber(manager);
    });
    if (now == books.managers.end()) {
      line.published = publishedUntilNow(books, since[number], index);
    } else if (const KelPublisherInfo* member = index.memberOf(*now)) {
      const KelLedger* ledger = index.ledger(runOf(member->name, member->incarnation));
      if (ledger != nullptr) {
        line.published = publishedBefore(*ledger, since[number], index);
      }
    }
    line.bound = mostInFlight(backlogBoundOf(books, number));
    line.inFlight = line.published ? std::max<std::int64_t>(0, *line.published - line.applied) : 0;
    if (line.inFlight > line.bound) {
      line.why = fmt::format("{} records were published and not applied, more than its queues hold ({})",
                             line.inFlight, line.bound);
    }
    result.push_back(std::move(line));
  }
  return result;
}

}  // namespace

std::int64_t mostInFlight(std::int64_t backlogBytes) {
  constexpr std::int64_t usualBytes = std::int64_t{64} << 20;
  return static_cast<std::int64_t>(KelOptions().handOffRecords) +
         (backlogBytes > 0 ? backlogBytes : usualBytes) / smallestCall;
}

bool quiet(const Books& before, const Books& now) {
  const auto equal = [](const auto& a, const auto& b) { return same(a, b); };
  return std::equal(before.managers.begin(), before.managers.end(), now.managers.begin(), now.managers.end(),
                    equal) &&
         std::equal(before.writers.begin(), before.writers.end(), now.writers.begin(), now.writers.end(),
                    equal) &&
         std::equal(before.ledgers.begin(), before.ledgers.end(), now.ledgers.begin(), now.ledgers.end(),
                    equal) &&
         before.kept == now.kept;
}

Ledger balance(const Books& books, bool moving) {
  Ledger ledger;
  ledger.moving = moving;
  const Index index(books);
  for (const pvss::StoreManager& manager : books.managers) {
    WriteLine line = written(manager, books, moving);
    if (!line.balanced()) {
      ledger.why.push_back(fmt::format("manager {}: {}", line.manager, line.why));
    }
    ledger.writes.push_back(std::move(line));
    if (!holdsNumber(manager)) {
      continue;
    }
    const KelPublisherInfo* member = index.memberOf(manager);
    const KelLedger* own =
        member == nullptr ? nullptr : index.ledger(runOf(member->name, member->incarnation));
    if (own == nullptr) {
      ledger.why.push_back(
          fmt::format("manager {}: process {} on {} does not show its books on the broker; "
                      "is it there, and may it write to its ledger topic?",
                      manager.number, manager.process, manager.host));
      continue;
    }
    for (const KelReceived& book : own->received) {
      ledger.subscribe.push_back(received(book, *own, manager.number, index, moving));
      const SubscribeLine& made = ledger.subscribe.back();
      if (!made.balanced()) {
        ledger.why.push_back(fmt::format("subscribed {} from {}: {}", book.publication,
                                         runOf(book.publisher, book.incarnation), made.why));
      }
    }
    for (const KelSent& book : own->sent) {
      ledger.publish.push_back(sent(book, *own, manager.number, index, moving));
      const PublishLine& made = ledger.publish.back();
      if (!made.balanced()) {
        ledger.why.push_back(fmt::format("published {}: {}", book.publication, made.why));
      }
    }
  }
  ledger.gone = goneOf(books, index);
  for (const GoneLine& line : ledger.gone) {
    if (!line.balanced()) {
      ledger.why.push_back(fmt::format("earlier runs of manager {}: {}", line.manager, line.why));
    }
  }
  return ledger;
}

}  // namespace kelgw
