#include "store/redis/StoreAdminLink.h"

#include <algorithm>
#include <thread>
#include <vector>

#include "store/redis/Backoff.h"
#include "store/redis/ServerError.h"

namespace pvss::redis {
namespace {

enum : std::uint64_t { tagBefore, tagLast };

StoreError::Kind kindOf(std::string_view error) {
  switch (kindOfServerError(error)) {
    case ServerErrorKind::loading:
    case ServerErrorKind::failover:
    case ServerErrorKind::trouble:
      return StoreError::Kind::unreachable;
    default:
      return StoreError::Kind::refused;
  }
}

/// The connection has the same limit, began a moment later, and knows what was waited for.
constexpr std::chrono::milliseconds ownWord{100};

}  // namespace

AdminCommand functionCall(std::string_view name) {
  return AdminCommand({"FCALL", name, "0"});
}

StoreAdminLink::StoreAdminLink(StoreAddress address, std::chrono::milliseconds limit)
    : address_(std::move(address)), limit_(limit), connection_(*this, address_, "tool", {limit, limit}) {}

void StoreAdminLink::throwLost() const {
  throw StoreError(StoreError::Kind::unreachable, "store " + address_.text + ": " + lost_);
}

void StoreAdminLink::wait(Clock::time_point deadline) {
  const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now());
  pollfd waits = connection_.wanted();
  const int longest = static_cast<int>(std::clamp<std::int64_t>(left.count() + 1, 0, 250));
  const int events = ::poll(&waits, 1, longest);
  const Clock::time_point now = Clock::now();
  if (events > 0 && waits.revents != 0) connection_.onReady(waits.revents, now);
  if (connection_.state() != ConnectionState::closed) connection_.tick(now);
}

bool StoreAdminLink::connectOnce(Clock::time_point deadline) {
  lost_.clear();
  ++connects_;
  connection_.open(Clock::now());
  while (!connection_.ready()) {
    if (lost_.empty() && Clock::now() >= deadline + ownWord) {
      connection_.close();
      lost_ = "no answer within " + std::to_string(limit_.count()) + " ms";
    }
    if (!lost_.empty()) return false;
    wait(deadline);
  }
  return true;
}

void StoreAdminLink::connect() {
  if (connection_.ready()) return;
  const Clock::time_point deadline = Clock::now() + limit_;
  while (!connectOnce(deadline)) {
    const bool loading = lost_.ends_with(describeServerError("LOADING"));
    if (!loading || Clock::now() >= deadline) throwLost();
    std::this_thread::sleep_for(Backoff::first);
  }
}

void StoreAdminLink::reconnect() {
  const Clock::time_point deadline = Clock::now() + limit_;
  Backoff backoff(static_cast<std::uint64_t>(deadline.time_since_epoch().count()));
  while (!connectOnce(deadline)) {
    const auto pause = backoff.next();
    if (Clock::now() + pause >= deadline) throwLost();
    std::this_thread::sleep_for(pause);
  }
}

void StoreAdminLink::reply(RedisConnection&, std::uint64_t tag, ReplyCursor reply) {
  if (reply.isError()) {
    // The first one tells why; those behind it only follow from it.
    if (error_.empty()) error_ = reply.text();
    if (tag == tagLast) answered_ = true;
    return;
  }
  if (tag != tagLast) return;
  answered_ = true;
  try {
    if (error_.empty() && take_ != nullptr && *take_) (*take_)(reply);
  } catch (...) {
    thrown_ = std::current_exception();
  }
}

/// False when the connection was lost before the last reply came.
bool StoreAdminLink::await(const Take& take) {
  take_ = &take;
  connection_.flush();
  const Clock::time_point deadline = Clock::now() + limit_;
  while (!answered_ && lost_.empty()) {
    if (Clock::now() >= deadline) {
      connection_.close();
      lost_ = "no answer within " + std::to_string(limit_.count()) + " ms";
      throwLost();
    }
    wait(deadline);
  }
  take_ = nullptr;
  return answered_;
}

void StoreAdminLink::exchange(const std::string& bytes, std::size_t commands, const Take& take) {
  connect();
  for (int attempt = 0;; ++attempt) {
    repeated_ = attempt > 0;
    answered_ = false;
    error_.clear();
    thrown_ = nullptr;
    for (std::size_t left = commands; left > 1; --left) connection_.command(tagBefore);
    connection_.command(tagLast) += bytes;
    if (await(take)) break;
    if (attempt > 0) throwLost();
    reconnect();
  }
  if (!error_.empty()) {
    throw StoreError(kindOf(error_), "store " + address_.text + ": " + describeServerError(error_));
  }
  if (thrown_) std::rethrow_exception(std::exchange(thrown_, nullptr));
}

void StoreAdminLink::ask(std::initializer_list<const AdminCommand*> commands, const Take& take) {
  std::string bytes;
  for (const AdminCommand* command : commands) command->appendTo(bytes);
  exchange(bytes, commands.size(), take);
}

void StoreAdminLink::askTogether(const std::vector<AdminCommand>& commands, const Take& take) {
  std::string bytes;
  AdminCommand({"MULTI"}).appendTo(bytes);
  for (const AdminCommand& command : commands) command.appendTo(bytes);
  AdminCommand({"EXEC"}).appendTo(bytes);
  exchange(bytes, commands.size() + 2, take);
}

}  // namespace pvss::redis
