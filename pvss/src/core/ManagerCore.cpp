#include "core/ManagerCore.h"

#include <unistd.h>

#include <algorithm>
#include <array>
#include <random>
#include <utility>

#include "core/Clock.h"
#include "pvss/Manager.h"
#include "pvss/Resources.h"
#include "pvss/Settings.h"
#include "pvss/WaitForAnswer.h"
#include "store/StoreFactory.h"

namespace pvss {

namespace {

constexpr std::string_view room = "pvss";

// Callbacks of one dispatch at most, so that the caller's own work is not starved.
constexpr std::size_t deliveriesPerDispatch = 256;
// However many callbacks there are, input and output get their turn this often,
constexpr std::chrono::milliseconds pollEvery(5);
// unless so many wait already: then the store's log holds what comes, and memory stays bounded.
constexpr std::size_t deliveriesBeforeReading = 16384;
constexpr std::size_t deliveryBytesBeforeReading = std::size_t{64} * 1024 * 1024;
constexpr std::chrono::seconds beatEvery(1);
// The exit code of a manager that has run and whose number another one has taken.
constexpr int numberTaken = 4;

std::string randomIncarnation() {
  constexpr std::string_view digits = "0123456789abcdef";
  std::random_device device;
  std::string text;
  for (int index = 0; index < 12; ++index) {
    text += digits[device() % digits.size()];
  }
  return text;
}

std::string hostName() {
  std::array<char, 256> name{};
  return ::gethostname(name.data(), name.size() - 1) == 0 ? name.data() : "unknown";
}

ManagerIdentity identityOf(const ManagerIdentifier& identifier) {
  ManagerIdentity identity;
  identity.number = identifier.manNum;
  identity.kind = "api";
  identity.writer = std::to_string(identifier.manNum) + "." + randomIncarnation();
  identity.host = hostName();
  identity.process = static_cast<int>(::getpid());
  identity.versionText = Resources::addVersionInfo.str();
  return identity;
}

}  // namespace

SteadyNow& steadyNow() noexcept {
  static SteadyNow function = &std::chrono::steady_clock::now;
  return function;
}

ManagerCore::ManagerCore(const ManagerIdentifier& identifier)
    : identity_(identityOf(identifier)),
      catalogue_(Settings::current().system),
      backlog_(Settings::current().backlogBytes, counters_),
      builder_(catalogue_),
      followers_(catalogue_, [this](Delivery delivery) {
        readyBytes_ += delivery.bytes;
        ready_.push_back(std::move(delivery));
        counters_.deliveriesHigh = std::max<std::uint64_t>(counters_.deliveriesHigh, ready_.size());
        counters_.deliveryBytesHigh = std::max<std::uint64_t>(counters_.deliveryBytesHigh, readyBytes_);
      }) {}

ManagerCore::~ManagerCore() {
  store_.reset();  // nothing calls the listener any more
  for (const Delivery& delivery : ready_) {
    if (delivery.target != nullptr) {
      delivery.target->waiting_ = 0;
    }
  }
  followers_.forEachTarget([](WaitForAnswer& target) { target.waiting_ = 0; });
}

void ManagerCore::connect() {
  if (store_) {
    return;
  }
  std::string problem;
  store_ = makeStore(Settings::current().storeAddress(), problem);
  if (!store_) {
    log::error(room, "{}", problem);
    return;
  }
  address_ = withoutSecrets(Settings::current().storeAddress());
  store_->start(*this, catalogue_, identity_);
}

bool ManagerCore::deliverReady() {
  std::size_t count = std::min(ready_.size(), deliveriesPerDispatch);
  bool any = false;
  // A callback may dispatch itself and so empty the queue under way.
  for (; count > 0 && !ready_.empty(); --count) {
    const Delivery delivery = std::move(ready_.front());
    ready_.pop_front();
    readyBytes_ -= delivery.bytes;
    if (delivery.target == nullptr) {
      continue;
    }
    any = true;
    if (delivery.kind == Delivery::Kind::hotLink) {
      ++counters_.hotLinks;
    } else {
      ++counters_.answers;
      if (delivery.last) {
        --delivery.target->waiting_;
      }
    }
    deliver(delivery);
  }
  return any;
}

void ManagerCore::dispatch(std::chrono::microseconds atMost) {
  const TimePoint now = steadyNow()();
  callsInTurn_ = 0;
  watchAbsence(now);
  const bool delivered = deliverReady();
  if (!store_) {
    if (!delivered && atMost.count() > 0) {
      ::usleep(static_cast<useconds_t>(std::min<std::chrono::microseconds::rep>(atMost.count(), 999999)));
    }
    return;
  }
  beat(now);
  pump();
  if (delivered) {
    if (now - lastPoll_ < pollEvery || ready_.size() > deliveriesBeforeReading ||
        readyBytes_ > deliveryBytesBeforeReading) {
      return;
    }
    atMost = std::chrono::microseconds(0);
  }
  lastPoll_ = now;
  if (store_->poll(atMost)) {
    pump();
    if (!delivered) {
      deliverReady();
    }
  }
}

// A store that is away for long: what it held last is not to pass for what is true now.
void ManagerCore::watchAbsence(TimePoint now) {
  const std::int64_t limit = Settings::current().invalidAfterSeconds;
  if (absenceTold_ || limit == 0 || runId_.empty() || link_ == Link::up ||
      now - awaySince_ < std::chrono::seconds(limit)) {
    return;
  }
  absenceTold_ = true;
  if (const std::size_t lists = followers_.distrust(); lists > 0) {
    log::warn(room,
              "store {} has been away for {} s: the {} lists connected are called invalid until it is back",
              address_, limit, lists);
  }
}

// Hands the store what it will take now.
void ManagerCore::pump() {
  if (link_ != Link::up) {
    return;
  }
  if (followers_.wantsFlush()) {
    followers_.flush([this](std::uint64_t request, const std::vector<ElementId>& elements) {
      store_->readSnapshot(request, elements);
    });
  }
  if (sweptAt_ != catalogue_.stamp()) {
    dropOutdated();
  }
  for (const WriteBatch* batch = backlog_.next(); batch != nullptr; batch = backlog_.next()) {
    const std::size_t place = backlog_.handed();
    if (!store_->write(*batch)) {
      return;
    }
    // The link may have failed under this very write; parts of it, or all, are on their way then.
    backlog_.handedOver(place);
    if (link_ != Link::up) {
      backlog_.linkLost();
      return;
    }
  }
}

bool ManagerCore::connectTo(const DpIdentList& ids, bool list, WaitForAnswer* target) {
  if (target == nullptr) {
    return false;
  }
  ++target->waiting_;
  if (!list) {
    sayIfNoList(ids, *target);
  }
  followers_.connect(ids, list, target);
  return true;
}

// Connected by itself, with an eye on changes, is what a list of names is: the configuration lists.
void ManagerCore::sayIfNoList(const DpIdentList& ids, const WaitForAnswer& target) const {
  const DpIdentifier id = ids.getNumberOfItems() == 1 ? ids[0] : DpIdentifier();
  const DpElementType type = catalogue_.typeOf(id.getEl());
  if (target.isA() == WaitForAnswer::KIND_HOTLINK && attributeOf(id) == AttributeCode::onlineValue &&
      type != DPELEMENT_NOELEMENT && type != DPELEMENT_DYNTEXT) {
    log::warn(room, "{} is of type {}, not dyn_text: whoever takes it for a list of names finds none in it",
              catalogue_.nameOf(id.getEl()), typeWord(type));
  }
}

bool ManagerCore::read(const DpIdentList& ids, WaitForAnswer* target) {
  if (target == nullptr) {
    return false;
  }
  ++target->waiting_;
  followers_.read(ids, target);
  return true;
}

bool ManagerCore::write(std::int64_t timeMs, const DpIdValueList& values) {
  WriteBuilder::Result result = builder_.build(timeMs, values);
  ++counters_.calls;
  counters_.callsHigh = std::max(counters_.callsHigh, ++callsInTurn_);
  counters_.queued += values.getNumberOfItems();
  counters_.rejected += result.rejected;
  counters_.dropped += result.outdated;
  counters_.coalesced += result.overwritten;
  const std::uint64_t gone = backlog_.append(std::move(result.write));
  if (gone > 0) {
    sayCoalesced(gone);
  }
  if (result.rejected > 0) {
    sayRejected(result.rejected, result.firstRejection);
  }
  if (result.outdated > 0) {
    sayOutdated(result.outdated, result.firstOutdated);
  }
  if (store_) {
    pump();
  }
  return result.rejected == 0;
}

void ManagerCore::forgetAnswer(WaitForAnswer* target) {
  if (target->waiting_ == 0 || Manager::manPtr == nullptr || !Manager::manPtr->core_) {
    return;
  }
  ManagerCore& core = *Manager::manPtr->core_;
  core.followers_.forget(target);
  for (Delivery& delivery : core.ready_) {
    if (delivery.target == target) {
      delivery.target = nullptr;
    }
  }
}

void ManagerCore::setLink(Link next, std::string_view cause) {
  if (next == link_) {
    return;
  }
  constexpr std::array<const char*, 4> names{"connecting", "waiting", "up", "down"};
  log::debug(room, "link: {} -> {} ({})", names[static_cast<std::size_t>(link_)],
             names[static_cast<std::size_t>(next)], cause);
  if (link_ == Link::up) {
    awaySince_ = steadyNow()();
    absenceTold_ = false;
  }
  link_ = next;
}

void ManagerCore::storeUp(const StoreGreeting& greeting) {
  const bool first = runId_.empty();
  const bool otherServer = !first && greeting.runId != runId_;
  const bool knowsLess = greeting.lastClientSequence < backlog_.lastConfirmed();
  if (first) {
    log::info(room, "store {} is there", greeting.address);  // its losses and returns the store tells itself
  }
  setLink(Link::up, greeting.runId);
  holder_.clear();
  backlog_.settle(greeting.lastClientSequence);
  dropOutdated();
  counters_.lost = counters_.settled - std::min(counters_.settled, greeting.settledAttributes);
  if (otherServer || knowsLess) {
    const std::uint64_t restored = backlog_.restoreLost(greeting.lastClientSequence);
    if (restored > 0) {
      log::warn(room,
                "store {} knows less than it may have confirmed: the {} newest values are written again",
                greeting.address, restored);
    }
  }
  followers_.linkLost();
  if (otherServer || knowsLess || greeting.logSequence < lastSequence_) {
    lastSequence_ = greeting.logSequence;
    followers_.readAgain();
  }
  runId_ = greeting.runId.empty() ? "?" : greeting.runId;
  nextBeat_ = TimePoint{};
  if (catalogueKnown_ && Manager::managerState == Manager::STATE_INIT) {
    Manager::managerState = Manager::STATE_RUNNING;
  }
}

void ManagerCore::storeDown(std::string_view reason) {
  if (link_ == Link::up) {
    ++counters_.storeLosses;
  }
  setLink(runId_.empty() ? Link::connecting : Link::down, reason);
  backlog_.linkLost();
  followers_.linkLost();
}

void ManagerCore::catalogueLoaded(std::vector<CatalogueEntry> entries) {
  for (const ElementId element : catalogue_.load(std::move(entries))) {
    followers_.catalogueChanged(element);
  }
  catalogueKnown_ = true;
}

void ManagerCore::catalogueChanged(CatalogueEntry entry) {
  ElementId element = 0;
  if (catalogue_.change(std::move(entry), element)) {
    followers_.catalogueChanged(element);
  }
}

void ManagerCore::changed(const Change& change) {
  lastSequence_ = std::max(lastSequence_, change.sequence);
  followers_.changed(change);
}

void ManagerCore::snapshot(std::uint64_t request, std::uint64_t sequence, std::vector<ElementState> states) {
  followers_.snapshot(request, sequence, std::move(states));
}

void ManagerCore::confirmed(std::uint64_t clientSequence, WriteOutcome outcome, std::string_view text,
                            const std::vector<std::uint32_t>& leftOut) {
  if (outcome == WriteOutcome::fenced) {
    endIfRunning(text);
    const std::uint64_t dropped = backlog_.dropAll();
    if (link_ != Link::up) {
      return;  // told of already
    }
    log::error(room, "manager number {} was taken by {}: {} values dropped", identity_.number, text, dropped);
    setLink(Link::waiting, text);
    return;
  }
  const std::uint64_t before = counters_.rejected;
  backlog_.confirm(clientSequence, outcome, leftOut);
  if (counters_.rejected != before || (outcome == WriteOutcome::applied && !text.empty())) {
    sayRejected(std::max<std::uint64_t>(counters_.rejected - before, 1), std::string(text));
  }
}

// Whoever has the number has everything that hangs on it: the publisher's name at the broker, the right to
// say what is newest. So a manager that has used the number and lost it does not stay; its successor stands
// in for it already, and it may come back as the one that waits.
void ManagerCore::endIfRunning(std::string_view holder) {
  if (Manager::managerState != Manager::STATE_RUNNING) {
    return;
  }
  log::error(room, "manager number {} was taken by {}: this one ends, {} values were not written",
             identity_.number, holder, counters_.pending);
  Manager::exit(numberTaken);
}

void ManagerCore::lease(bool held, std::string_view holder) {
  if (held) {
    if (!holder_.empty()) {
      log::info(room, "manager number {} is free again", identity_.number);
      holder_.clear();
    }
    return;
  }
  endIfRunning(holder);
  setLink(Link::waiting, holder);
  if (holder_ != holder) {
    holder_ = holder;
    log::warn(room, "manager number {} is held by {} - waiting", identity_.number, holder_);
  }
}

void ManagerCore::gap(std::string_view reason) {
  log::debug(room, "reading everything connected again ({})", reason);
  followers_.readAgain();
}

void ManagerCore::caughtUp() {
  absenceTold_ = false;
  followers_.trustAgain();
}

void ManagerCore::beat(TimePoint now) {
  if (link_ != Link::up || now < nextBeat_) {
    return;
  }
  nextBeat_ = now + beatEvery;
  const auto number = [](std::uint64_t value) { return std::to_string(value); };
  constexpr std::array<const char*, 4> states{"just started", "init", "adjust", "running"};
  store_->beat({{"state", states[static_cast<std::size_t>(Manager::managerState)]},
                {"queued", number(counters_.queued)},
                {"confirmed", number(counters_.confirmed)},
                {"coalesced", number(counters_.coalesced)},
                {"dropped", number(counters_.dropped)},
                {"rejected", number(counters_.rejected)},
                {"pending", number(counters_.pending)},
                {"settled", number(counters_.settled)},
                {"lost", number(counters_.lost)},
                {"calls", number(counters_.calls)},
                {"handed", number(counters_.handed)},
                {"resent", number(counters_.resent)},
                {"restored", number(counters_.restored)},
                {"hotLinks", number(counters_.hotLinks)},
                {"answers", number(counters_.answers)},
                {"backlogBytes", number(counters_.backlogBytes)},
                {"backlogBytesHigh", number(counters_.backlogBytesHigh)},
                {"backlogBound", number(Settings::current().backlogBytes)},
                {"pendingHigh", number(counters_.pendingHigh)},
                {"callsHigh", number(counters_.callsHigh)},
                {"deliveriesHigh", number(counters_.deliveriesHigh)},
                {"deliveryBytesHigh", number(counters_.deliveryBytesHigh)},
                {"storeLosses", number(counters_.storeLosses)}});
}

void ManagerCore::sayCoalesced(std::uint64_t count) {
  if (const std::uint64_t tell = coalesced_.count(count, steadyNow()()); tell > 0) {
    log::warn(room, "the backlog is full: {} superseded values given up for newer ones", tell);
  }
}

// What waits for elements that have another type or address since is not for them any more.
void ManagerCore::dropOutdated() {
  sweptAt_ = catalogue_.stamp();
  if (const std::uint64_t dropped = backlog_.dropOutdated(catalogue_); dropped > 0) {
    sayOutdated(dropped, "what waited for the store");
  }
}

void ManagerCore::sayOutdated(std::uint64_t count, const std::string& first) {
  if (const std::uint64_t tell = outdated_.count(count, steadyNow()()); tell > 0) {
    log::info(room,
              "{} values left out that were meant for elements before their type or address changed: {}",
              tell, first);
  }
}

void ManagerCore::sayRejected(std::uint64_t count, const std::string& first) {
  if (const std::uint64_t tell = rejected_.count(count, steadyNow()()); tell > 0) {
    log::warn(room, "{} values cannot be written, for example {}", tell, first);
  }
}

}  // namespace pvss
