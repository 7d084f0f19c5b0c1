// The life of the link: connecting, checking the functions, the lease, the catalogue.
#include <algorithm>
#include <utility>

#include "log/Log.h"
#include "store/redis/CatalogueText.h"
#include "store/redis/Functions.h"
#include "store/redis/RedisStore.h"
#include "store/redis/ServerError.h"

namespace pvss::redis {
namespace {

constexpr std::size_t mostTroubles = 16;

const char* wordOf(LinkState state) {
  switch (state) {
    case LinkState::stopped:
      return "stopped";
    case LinkState::pausing:
      return "pausing";
    case LinkState::connecting:
      return "connecting";
    case LinkState::checking:
      return "checking functions";
    case LinkState::badFunctions:
      return "waiting for functions";
    case LinkState::greeting:
      return "greeting";
    case LinkState::leaseTaken:
      return "waiting for the manager number";
    case LinkState::loading:
      return "loading";
    case LinkState::up:
      return "up";
  }
  return "?";
}

}  // namespace

void RedisStore::enter(LinkState next, std::string_view cause) {
  if (next == state_) return;
  log::debug("store", "store link {} -> {}: {}", wordOf(state_), wordOf(next), cause);
  state_ = next;
}

void RedisStore::onTimers() {
  switch (state_) {
    case LinkState::pausing:
      if (now_ < retryAt_) return;
      enter(LinkState::connecting, "pause over");
      commands_.open(now_);
      return;
    case LinkState::badFunctions:
      if (now_ >= retryAt_) askVersion();
      return;
    case LinkState::leaseTaken:
      if (now_ >= retryAt_) sayHello();
      return;
    default:
      return;
  }
}

/// One line when trouble begins or becomes another; what was said since the link was last up is not said
/// again.
void RedisStore::trouble(std::string_view text) {
  if (std::find(troublesTold_.begin(), troublesTold_.end(), text) != troublesTold_.end()) return;
  if (troublesTold_.size() == mostTroubles) troublesTold_.erase(troublesTold_.begin());
  troublesTold_.emplace_back(text);
  log::warn("store", "store {}: {} - trying again until it works", address_.text, text);
}

/// The end of the trouble, and a change of the master, in one line.
void RedisStore::sayBack() {
  const bool wasAway = !std::exchange(troublesTold_, {}).empty();
  const std::string before =
      std::exchange(master_, address_.bySentinel() ? commands_.place().text() : std::string());
  if (before != master_ && !before.empty()) {
    log::info("store", "store {} is back: the master is now {}, it was {}", address_.text, master_, before);
  } else if (wasAway) {
    log::info("store", "store {} is back", address_.text);
  }
}

/// What was wrong is over.
void RedisStore::settledIn() {
  refusesWrites_ = false;
  backoff_.reset();
  sayBack();
}

void RedisStore::restart(std::string_view reason) {
  trouble(reason);
  drop(reason);
}

/// Lets go of everything and begins anew after a pause.
void RedisStore::drop(std::string_view reason) {
  const bool wasUp = state_ == LinkState::up;
  commands_.close();
  log_.close();
  flyingIn_ = flyingOut_ = 0;
  flyingBytes_ = 0;
  snapshots_.clear();
  logAsked_ = false;
  if (std::exchange(largeWaits_, false))
    --logPosition_;  // its values went with the link, so it is read again
  catchingUp_ = false;
  retryAt_ = now_ + backoff_.next();
  enter(LinkState::pausing, reason);
  if (wasUp) {
    called_ = true;
    listener_->storeDown(reason);
  }
}

void RedisStore::serverError(std::string_view error) {
  restart(describeServerError(error));
}

void RedisStore::connectionReady(RedisConnection& connection) {
  if (state_ != LinkState::connecting) return;
  if (&connection == &commands_) {
    // To the very same server, whatever a name or a sentinel would say a moment later.
    log_.open(now_, commands_);
  } else {
    askVersion();
  }
}

void RedisStore::connectionLost(RedisConnection&, std::string_view reason) {
  restart(reason);
}

void RedisStore::reply(RedisConnection&, std::uint64_t tag, ReplyCursor reply) {
  const std::uint64_t number = tag & ((std::uint64_t{1} << 56U) - 1);
  switch (static_cast<Tag>(tag >> 56U)) {
    case Tag::version:
      return onVersion(reply);
    case Tag::hello:
      return onHello(reply);
    case Tag::catalogue:
      return onCatalogue(reply);
    case Tag::beat:
      return onBeat(number, reply);
    case Tag::write:
      return onWrite(reply);
    case Tag::snapshot:
      return onSnapshot(number, reply);
    case Tag::since:
      return onSince(number, reply);
    case Tag::log:
      return onLog(reply);
    case Tag::large:
      return onLargeValues(reply);
    case Tag::ignored:
      return;
  }
}

/// Begins a call of a function on the command connection; exactly `arguments` texts must follow.
std::string& RedisStore::call(Tag tag, std::uint64_t number, std::string_view function,
                              std::size_t arguments) {
  std::string& out = commands_.command(static_cast<std::uint64_t>(tag) << 56U | number);
  RespWriter command(out);
  command.header(3 + arguments);
  command.text("FCALL");
  command.text(function);
  command.text("0");
  return out;
}

void RedisStore::askVersion() {
  enter(LinkState::checking, "asking for the version of the functions");
  call(Tag::version, 0, "dp_version", 0);
}

void RedisStore::onVersion(ReplyCursor reply) {
  std::string problem;
  if (reply.isError()) {
    const std::string_view error = reply.text();
    if (kindOfServerError(error) != ServerErrorKind::functionsMissing) {
      serverError(error);
      return;
    }
    problem = describeServerError(error);
  } else if (const std::string_view version = reply.text(); version != functionsVersion()) {
    problem = "the store has function library " + std::string(version) + ", this program needs " +
              std::string(functionsVersion()) + ": run kelgw apply of the same release";
  }
  if (problem.empty()) {
    sayHello();
    return;
  }
  trouble(problem);
  retryAt_ = now_ + options_.leaseRetry;
  enter(LinkState::badFunctions, problem);
}

std::string RedisStore::selfText() const {
  return identity_.kind + " manager " + identity_.writer + " on " + identity_.host + ", process " +
         std::to_string(identity_.process);
}

void RedisStore::sayHello() {
  enter(LinkState::greeting, "asking for the manager number");
  RespWriter out(call(Tag::hello, 0, "dp_hello", 9));
  out.text(identity_.writer);
  out.number(identity_.number);
  out.number(options_.lease.count());
  out.text(identity_.kind);
  out.text(identity_.host);
  out.number(identity_.process);
  out.text(identity_.versionText);
  out.text(selfText());
  out.number(generation_);
}

/// Every write names the generation, so that none of an earlier one is taken when the number was another's.
void RedisStore::takeGeneration(std::uint64_t generation) {
  generation_ = generation;
  fence_ = std::to_string(identity_.number) + ":" + std::to_string(generation);
  writePrefix_.clear();
  RespWriter prefix(writePrefix_);
  prefix.text("FCALL");
  prefix.text("dp_set");
  prefix.text("0");
  prefix.text(identity_.writer);
  prefix.text(fence_);
  std::string bye;
  RespWriter command(bye);
  command.header(5);
  command.text("FCALL");
  command.text("dp_bye");
  command.text("0");
  command.text(identity_.writer);
  command.number(identity_.number);
  commands_.sayAtEnd(bye);
}

void RedisStore::tellLease(bool held, std::string_view holder) {
  if (leaseKnown_ && leaseHeld_ == held && leaseHolder_ == holder) return;
  leaseKnown_ = true;
  leaseHeld_ = held;
  leaseHolder_ = holder;
  called_ = true;
  listener_->lease(held, leaseHolder_);
}

void RedisStore::onHello(ReplyCursor reply) {
  if (reply.isError()) {
    serverError(reply.text());
    return;
  }
  reply.array();
  if (reply.integer() == 0) {
    const std::string holder(reply.text());
    retryAt_ = now_ + options_.leaseRetry;
    enter(LinkState::leaseTaken, holder);
    tellLease(false, holder);
    return;
  }
  greeting_.address = address_.text;
  greeting_.lastClientSequence = reply.unsignedInteger();
  greeting_.logSequence = reply.unsignedInteger();
  greeting_.runId = reply.text();
  greeting_.settledAttributes = reply.unsignedInteger();
  greeting_.settledAttributes += reply.unsignedInteger();
  takeGeneration(reply.unsignedInteger());
  tellLease(true, selfText());
  askCatalogue();
}

void RedisStore::askCatalogue() {
  enter(LinkState::loading, "asking for the catalogue");
  call(Tag::catalogue, 0, "dp_cat", 0);
}

void RedisStore::onCatalogue(ReplyCursor reply) {
  if (reply.isError()) {
    serverError(reply.text());
    return;
  }
  const std::size_t items = reply.array();
  catalogueKnown(reply.unsignedInteger());
  std::vector<CatalogueEntry> entries;
  entries.reserve(items / 2);
  for (std::size_t i = 1; i + 1 < items; i += 2) {
    CatalogueEntry entry;
    entry.name = reply.text();
    if (parseCatalogueText(reply.text(), entry)) {
      entries.push_back(std::move(entry));
    } else {
      log::warn("store", "store {}: the catalogue entry of {} cannot be read; the element is left out",
                address_.text, entry.name);
    }
  }
  greeting_.logSequence = catalogueSequence_;

  // The log goes on where it was left only if the same server still has everything after that place.
  if (logKnown_ && runId_ != greeting_.runId) {
    gapDue_ = "another server process answers";
  } else if (logKnown_ && catalogueSequence_ < logPosition_) {
    gapDue_ = "the sequence of the store went back";
  }
  if (!logKnown_ || !gapDue_.empty()) logPosition_ = catalogueSequence_;
  logKnown_ = true;
  runId_ = greeting_.runId;
  previousWrite_ = greeting_.lastClientSequence;
  if (!refusesWrites_) settledIn();
  enter(LinkState::up, "catalogue loaded");
  called_ = true;
  listener_->catalogueLoaded(std::move(entries));
  listener_->storeUp(greeting_);
  if (state_ == LinkState::up && !gapDue_.empty()) listener_->gap(std::exchange(gapDue_, {}));
  catchUpTo_ = catalogueSequence_;
  catchingUp_ = true;
  checkCaughtUp();
  askLog();
}

void RedisStore::beat(const ManagerBeat& beat) {
  if (state_ != LinkState::up) return;
  // A store that was emptied under a living link shows by a sequence below what was read before the beat.
  RespWriter out(call(Tag::beat, logPosition_, "dp_beat", 3 + 2 * beat.size()));
  out.text(identity_.writer);
  out.text(fence_);
  out.number(options_.lease.count());
  for (const auto& [name, value] : beat) {
    out.text(name);
    out.text(value);
  }
}

void RedisStore::onBeat(std::uint64_t positionThen, ReplyCursor reply) {
  if (reply.isError()) {
    serverError(reply.text());
    return;
  }
  reply.array();
  if (reply.integer() == 0) {
    leaseLost(reply.text());
  } else if (reply.unsignedInteger() < positionThen) {
    restart("the sequence of the store went back");
  }
}

/// Another manager took the number while this one was silent too long, or had it since.
void RedisStore::leaseLost(std::string_view holder) {
  const std::string kept(holder);
  if (flyingOut_ != flyingIn_) {
    called_ = true;
    listener_->confirmed(flying_[flyingOut_ & (flying_.size() - 1)].clientSequence, WriteOutcome::fenced,
                         kept, {});
  }
  drop("the manager number was taken by " + kept);
  tellLease(false, kept);
}

}  // namespace pvss::redis
