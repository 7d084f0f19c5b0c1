#include "store/redis/RedisStore.h"

#include <algorithm>
#include <ctime>

#include "store/redis/AttributeText.h"
#include "store/redis/ServerError.h"

namespace pvss::redis {
namespace {

constexpr std::chrono::milliseconds tickLength{250};
constexpr unsigned mostOddTimes = 5;

timespec timespecOf(std::chrono::nanoseconds length) {
  const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(length);
  return {static_cast<std::time_t>(seconds.count()), static_cast<long>((length - seconds).count())};
}

std::size_t ringSize(std::size_t atLeast) {
  std::size_t size = 16;
  while (size < atLeast) size *= 2;
  return size;
}

}  // namespace

RedisStore::RedisStore(StoreAddress address, RedisStoreOptions options)
    : address_(std::move(address)),
      options_(options),
      commands_(*this, address_, "command", options.limits),
      log_(*this, address_, "log", options.limits),
      backoff_(static_cast<std::uint64_t>(Clock::now().time_since_epoch().count())),
      flying_(ringSize(options.windowBatches)) {}

RedisStore::~RedisStore() {
  // An orderly end gives the number back at once; the server acts on what has reached it.
  if (state_ == LinkState::up && commands_.ready() && !commands_.hasOutput()) {
    RespWriter out(call(Tag::ignored, 0, "dp_bye", 2));
    out.text(identity_.writer);
    out.number(identity_.number);
    state_ = LinkState::stopped;
    commands_.flush();
  }
  state_ = LinkState::stopped;
}

void RedisStore::start(StoreListener& listener, ElementDirectory& directory,
                       const ManagerIdentity& identity) {
  listener_ = &listener;
  directory_ = &directory;
  identity_ = identity;
  now_ = Clock::now();
  retryAt_ = now_;
  enter(LinkState::pausing, "started");
}

bool RedisStore::poll(std::chrono::microseconds atMost) {
  called_ = false;
  now_ = Clock::now();
  const Clock::time_point deadline = now_ + atMost;
  while (true) {
    if (now_ >= tickAt_) {
      tickAt_ = now_ + tickLength;
      commands_.tick(now_);
      log_.tick(now_);
    }
    onTimers();
    if (commands_.hasOutput()) commands_.flush();
    if (log_.hasOutput()) log_.flush();

    Clock::time_point until = called_ ? now_ : std::min(deadline, tickAt_);
    if (state_ == LinkState::pausing || state_ == LinkState::badFunctions ||
        state_ == LinkState::leaseTaken) {
      until = std::min(until, retryAt_);
    }
    if (!called_) pace(deadline);
    waits_[0] = commands_.wanted();
    waits_[1] = log_.wanted();
    const timespec wait = timespecOf(std::max(until - now_, Clock::duration::zero()));
    const int events = ::ppoll(waits_.data(), waits_.size(), &wait, nullptr);
    if (events > 0) {
      wakesUntil_ = std::max(wakesUntil_, now_) + options_.wakeInterval;
      // A callback of the first may close the second, whose descriptor then means nothing any more.
      const int logDescriptor = waits_[1].fd;
      if (waits_[0].revents != 0) commands_.onReady(waits_[0].revents, now_);
      if (waits_[1].revents != 0 && log_.wanted().fd == logDescriptor) log_.onReady(waits_[1].revents, now_);
      if (log_.hasOutput()) log_.flush();
      if (commands_.hasOutput()) commands_.flush();
    }
    if (called_) return true;
    now_ = Clock::now();
    if (now_ >= deadline) return false;
  }
}

/// Sleeps, with the sockets unseen, while wake-ups come too fast. Whoever waits for an answer is not kept
/// waiting.
void RedisStore::pace(Clock::time_point until) {
  if (state_ != LinkState::up || !snapshots_.empty() || largeWaits_) return;
  const Clock::time_point next = std::min(wakesUntil_ - options_.wakeBurst * options_.wakeInterval, until);
  if (next <= now_) return;
  const timespec wait = timespecOf(next - now_);
  ::ppoll(nullptr, 0, &wait, nullptr);
  now_ = Clock::now();
}

bool RedisStore::write(const WriteBatch& batch) {
  if (state_ != LinkState::up) return false;
  const std::size_t flying = flyingIn_ - flyingOut_;
  if (flying >= options_.windowBatches || (flying > 0 && flyingBytes_ >= options_.windowBytes)) return false;

  std::string& out = commands_.command(static_cast<std::uint64_t>(Tag::write) << 56U);
  const std::size_t before = out.size();
  RespWriter command(out);
  command.header(9 + 2 * batch.elements.size());
  out += writePrefix_;
  command.number(batch.clientSequence);
  command.number(previousWrite_);
  command.number(batch.timeMs);
  scratch_ = batch.restore ? "r" : "";
  scratch_ += writeFlags_;
  command.text(scratch_);
  for (const ElementAttributes& element : batch.elements) {
    scratch_.clear();
    appendAttributeText(element, scratch_);
    command.text(directory_->nameOf(element.element));
    command.text(scratch_);
  }
  if (scratch_.capacity() > 65536) scratch_ = std::string();

  const std::size_t bytes = out.size() - before;
  flying_[flyingIn_++ & (flying_.size() - 1)] = {batch.clientSequence, bytes};
  flyingBytes_ += bytes;
  previousWrite_ = batch.clientSequence;
  // Not more than the socket takes in one go is left to gather here.
  if (commands_.unsent() > 65536) commands_.flush();
  return true;
}

void RedisStore::onWrite(ReplyCursor reply) {
  const Flying written = flying_[flyingOut_ & (flying_.size() - 1)];
  WriteOutcome outcome = WriteOutcome::applied;
  std::string text;
  leftOut_.clear();
  if (reply.isError()) {
    const std::string_view error = reply.text();
    switch (kindOfServerError(error)) {
      case ServerErrorKind::fenced:
        leaseLost(error.substr(std::min<std::size_t>(7, error.size())));
        return;
      case ServerErrorKind::refused:
        outcome = WriteOutcome::refused;
        text = describeServerError(error);
        break;
      case ServerErrorKind::unknown:
        // Perhaps it passes; but no single write stops all those behind it for ever.
        oddTimes_ = oddWrite_ == written.clientSequence ? oddTimes_ + 1 : 1;
        oddWrite_ = written.clientSequence;
        if (oddTimes_ < mostOddTimes) {
          refusesWrites_ = true;
          serverError(error);
          return;
        }
        outcome = WriteOutcome::refused;
        text = describeServerError(error);
        break;
      default:
        // Nothing was applied, and nothing behind it will be: all of it is offered again on the next link.
        refusesWrites_ = true;
        serverError(error);
        return;
    }
  } else if (reply.isArray()) {
    const std::size_t items = reply.array();
    reply.skip();
    text = reply.text();
    for (std::size_t i = 2; i < items; ++i) leftOut_.push_back(static_cast<std::uint32_t>(reply.integer()));
  } else if (reply.integer() == 0) {
    outcome = WriteOutcome::duplicate;
  }
  if (refusesWrites_) settledIn();
  ++flyingOut_;
  flyingBytes_ -= written.bytes;
  called_ = true;
  listener_->confirmed(written.clientSequence, outcome, text, leftOut_);
}

}  // namespace pvss::redis
