#include "session/ReceiveBook.h"

#include <algorithm>
#include <limits>

#include "wire/Topics.h"

namespace kel {
namespace {

constexpr std::size_t rememberedRuns = 4;
/// So many records of one publication may come before others that a broker's queue still has.
constexpr std::size_t mostOvertaking = 256;

constexpr std::int64_t KelCounters::*receiving[] = {
    &KelCounters::received, &KelCounters::resends,      &KelCounters::delivered, &KelCounters::superseded,
    &KelCounters::repeated, &KelCounters::decodeErrors, &KelCounters::discarded, &KelCounters::held,
    &KelCounters::pending,  &KelCounters::gaps,         &KelCounters::refetched, &KelCounters::givenUp};

}  // namespace

void addCapped(std::int64_t& sum, std::int64_t number) {
  if (__builtin_add_overflow(sum, number, &sum)) sum = std::numeric_limits<std::int64_t>::max();
}

void addReceived(KelCounters& sum, const KelCounters& counters) {
  for (const auto counter : receiving) addCapped(sum.*counter, counters.*counter);
}

void addHandOff(KelCounters& sum, const HandOffTally& tally) {
  sum.delivered += tally.delivered;
  sum.superseded += tally.superseded;
  sum.discarded += tally.discarded;
  sum.pending += tally.pending;
}

std::int64_t RunBook::arrived(std::int64_t number) {
  std::int64_t missing = 0;
  if (number >= overtakenFrom && number <= overtakenTo) {
    overtakenFrom = number + 1;
    if (std::find(overtaking.begin(), overtaking.end(), number) == overtaking.end()) return -1;
  }
  if (number <= 0) {
    ++again;
    return 0;
  }
  if (last == 0 && restarted == 0) {
    before = number - 1;
  } else if (number > last) {
    missing = number - last - 1;
    if (missing > 0) overtake(number);
  } else if (closed && number < last) {
    addCapped(restarted, last);
    missing = number - 1;
  } else {
    ++again;
    closed = false;
    return 0;
  }
  last = number;
  closed = false;
  return missing;
}

void RunBook::overtake(std::int64_t number) {
  // What is still to come of an earlier time stays so; what has come since is not to come again.
  const auto since = static_cast<std::uint64_t>(last - overtakenTo);
  if (overtakenFrom <= overtakenTo && overtaking.size() + since <= mostOvertaking) {
    while (++overtakenTo <= last) overtaking.push_back(overtakenTo);
  } else {
    overtaking.clear();
    overtakenFrom = last + 1;
  }
  overtakenTo = number - 1;
}

void RunBook::queueEnded() {
  overtakenTo = 0;
  overtaking.clear();
}

std::int64_t RunBook::refuted(std::int64_t number) {
  taken = 0;
  doubted.reset();
  queueEnded();
  if (number <= 0 || number >= last) return 0;
  // What the leap counted as missing, or as gone by, has not been; above that are numbers that did arrive.
  std::int64_t excess = last - number;
  const std::int64_t missing = std::min(excess, counters.gaps);
  excess -= missing;
  const std::int64_t gone = std::min(excess, before);
  counters.gaps -= missing;
  before -= gone;
  addCapped(restarted, excess - gone);
  last = number;
  return missing;
}

void RunBook::take(RunBook& other, Dispatcher& dispatcher) {
  runs += other.runs;
  addCapped(before, other.before);
  addCapped(restarted, other.restarted);
  addCapped(restarted, other.last);
  again += other.again;
  addReceived(counters, other.counters);
  dispatcher.fold(other.handOff, handOff);
}

KelReceived RunBook::row(const std::string& publication, const Dispatcher& dispatcher) const {
  KelReceived row;
  row.publication = publication;
  if (const auto id = PublisherId::parse(run)) {
    row.publisher = id->name;
    row.incarnation = id->incarnation;
  } else {
    row.publisher = run;
  }
  row.runs = runs;
  row.before = before;
  row.last = last;
  row.restarted = restarted;
  row.again = again;
  row.counters = counters;
  addHandOff(row.counters, dispatcher.of(*handOff));
  return row;
}

RunBook& ReceiveBook::of(std::string_view run) {
  if (run.empty()) {
    if (!nobody_) nobody_ = std::make_unique<RunBook>();
    return *nobody_;
  }
  const auto at =
      std::find_if(runs_.begin(), runs_.end(), [&](const auto& book) { return book->run == run; });
  if (at != runs_.end()) {
    if (at != runs_.begin()) std::rotate(runs_.begin(), at, at + 1);
    return *runs_.front();
  }
  if (runs_.size() == rememberedRuns) {
    if (!older_) older_ = std::make_unique<RunBook>();
    older_->take(*runs_.back(), dispatcher_);
    runs_.pop_back();
  }
  const auto made = runs_.insert(runs_.begin(), std::make_unique<RunBook>());
  (*made)->run = run;
  (*made)->runs = 1;
  return **made;
}

RunBook& ReceiveBook::existing(std::string_view run) {
  const auto at =
      std::find_if(runs_.begin(), runs_.end(), [&](const auto& book) { return book->run == run; });
  if (at != runs_.end()) return **at;
  return older_ && !run.empty() ? *older_ : of(run);
}

RunBook* ReceiveBook::find(std::string_view run) {
  const auto at =
      std::find_if(runs_.begin(), runs_.end(), [&](const auto& book) { return book->run == run; });
  return at == runs_.end() ? nullptr : at->get();
}

void ReceiveBook::closed() {
  for (const auto& book : runs_) {
    book->taken = 0;
    book->closed = book->last != 0;
    book->doubted.reset();
    book->queueEnded();
  }
}

void ReceiveBook::linkDown() {
  for (const auto& book : runs_) {
    book->onLink = false;
    book->doubted.reset();
    book->queueEnded();
  }
}

}  // namespace kel
