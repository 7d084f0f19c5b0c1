#include "transport/mqtt/MqttWorker.h"

#include <fcntl.h>
#include <poll.h>
#include <pthread.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cassert>
#include <cerrno>
#include <csignal>
#include <utility>

#include "Log.h"
#include "transport/mqtt/Shortage.h"

namespace kel::mqtt {

using namespace std::chrono_literals;

namespace {

constexpr auto kTick = 80ms;                                     // 100 ms is promised
constexpr auto kUpkeep = 250ms;                                  // the library counts in whole seconds
constexpr auto kGreetingLimit = 5s;                              // for TCP, TLS and CONNACK together
constexpr std::chrono::milliseconds kLeastConnectLimit = 500ms;  // of each of many addresses
constexpr auto kRest = 100ms;
constexpr auto kLookupLimit = 10s;
constexpr auto kFarewellLimit = 1s;     // for what was queued before a clean stop
constexpr auto kLastWordLimit = 500ms;  // for the broker to read our DISCONNECT
constexpr auto kStableLink = 5s;        // a link that held so long starts the pauses anew

// Above so many packets a second (kBusyPackets in kWindow) we let them gather for kGather before we read:
// waking up for each one is most of what receiving costs.
constexpr auto kWindow = 10ms;
constexpr int kBusyPackets = 30;
constexpr auto kGather = 400us;

// What the library may hold: enough to keep its in-flight window full while we are busy elsewhere, and far
// from the 65,535 packet identifiers it has.
constexpr std::size_t kHandedOver = 512;
// Messages handed over before reading gets its turn.
constexpr int kMessagesPerTurn = 128;

// The library writes with write(2): a broken link must fail, not end the process. Signals belong to others'
// threads.
void blockSignals() {
  sigset_t all;
  ::sigfillset(&all);
  ::pthread_sigmask(SIG_BLOCK, &all, nullptr);
}

std::string spanText(std::chrono::milliseconds span) {
  return span % 1s == 0ms ? std::to_string(span / 1s) + " s" : std::to_string(span.count()) + " ms";
}

}  // namespace

MqttWorker::MqttWorker(MqttOptions options, Resolver::LookUp lookUp)
    : options_(std::move(options)),
      resolver_(std::move(lookUp)),
      report_(options_.display),
      random_(std::random_device{}()) {}

MqttWorker::~MqttWorker() {
  stop(false);
}

void MqttWorker::start(TransportListener& listener, TransportIdentity identity) {
  assert(!thread_.joinable() && "a transport is started once until it is stopped");
  listener_ = &listener;
  identity_ = std::move(identity);
  order_.store(Order::None, std::memory_order_release);
  thread_ = std::thread([this] { run(); });
}

void MqttWorker::stop(bool clean) {
  if (!thread_.joinable()) {
    return;
  }
  assert(thread_.get_id() != std::this_thread::get_id() && "the listener cannot stop its transport");
  // In this order, so that openOutbox() cannot slip in between.
  order_.store(clean ? Order::StopCleanly : Order::StopAbruptly, std::memory_order_release);
  closeOutbox(clean);
  wake_.notify();
  thread_.join();
}

bool MqttWorker::publish(const OutgoingMessage& message, std::uint64_t token) {
  return enqueue({Outgoing::Kind::Publish, token, message});
}

bool MqttWorker::subscribe(const std::string& filter, int qos, std::uint64_t token) {
  Outgoing outgoing{Outgoing::Kind::Subscribe, token, {}};
  outgoing.message.topic = filter;
  outgoing.message.qos = qos;
  return enqueue(std::move(outgoing));
}

bool MqttWorker::unsubscribe(const std::string& filter) {
  Outgoing outgoing{Outgoing::Kind::Unsubscribe, 0, {}};
  outgoing.message.topic = filter;
  return enqueue(std::move(outgoing));
}

bool MqttWorker::enqueue(Outgoing outgoing) {
  bool wake = false;
  {
    const MutexLock lock(mutex_);
    if (!open_) {
      return false;
    }
    // The thread itself looks into the outbox before it waits again.
    wake = outbox_.empty() && std::this_thread::get_id() != own_;
    outbox_.push_back(std::move(outgoing));
  }
  if (wake) {
    wake_.notify();
  }
  return true;
}

void MqttWorker::openOutbox() {
  const MutexLock lock(mutex_);
  // A stop that came meanwhile has closed it for good.
  open_ = !stopping();
  own_ = std::this_thread::get_id();
}

void MqttWorker::closeOutbox(bool keepQueued) {
  const MutexLock lock(mutex_);
  open_ = false;
  if (!keepQueued) {
    outbox_.clear();
  }
}

const char* MqttWorker::name(State state) {
  switch (state) {
    case State::Idle:
      return "idle";
    case State::Resolving:
      return "resolving";
    case State::Connecting:
      return "connecting";
    case State::Up:
      return "up";
    case State::Leaving:
      return "leaving";
    case State::Pausing:
      return "pausing";
    case State::Stopped:
      return "stopped";
  }
  return "?";
}

void MqttWorker::enter(State state, std::string_view cause) {
  if (logs(LogLevel::trace)) {
    log(LogLevel::trace,
        options_.display + ": " + name(state_) + " -> " + name(state) + ": " + std::string(cause));
  }
  state_ = state;
}

void MqttWorker::run() {
  blockSignals();
  nextTick_ = std::chrono::steady_clock::now();
  while (!stopping()) {
    try {
      attempt();
    } catch (...) {
      // No memory even to say why: the next attempt may find some.
      rest();
    }
  }
  closeOutbox(false);
  state_ = State::Stopped;
}

void MqttWorker::attempt() {
  const auto tell = [](const std::optional<std::string>& line) {
    if (line) {
      log(LogLevel::warn, *line);
    }
  };
  std::string failure;
  bool served = false;
  TimePoint began{};
  const std::vector<Address> addresses = resolve(failure);
  // One that swallows everything must not use up the time of the others.
  const auto count = static_cast<long>(std::max<std::size_t>(addresses.size(), 1));
  const auto share = std::max<std::chrono::milliseconds>(kGreetingLimit / count, kLeastConnectLimit);
  for (const Address& address : addresses) {
    if (stopping()) {
      break;
    }
    began = std::chrono::steady_clock::now();
    served = serve(address, share, failure);
    if (served) {
      break;
    }
  }
  if (stopping()) {
    return;
  }
  const auto now = std::chrono::steady_clock::now();
  tell(served ? report_.lost(failure, now) : report_.failed(failure, now));
  if (!served) {
    listener_->unreachable(failure);
  }
  if (served && now - began >= kStableLink) {
    backoff_.reset();
  }
  pause(backoff_.next(std::uniform_real_distribution<double>(0.0, 1.0)(random_)));
}

std::vector<Address> MqttWorker::resolve(std::string& failure) {
  enter(State::Resolving, options_.host);
  const auto until = std::chrono::steady_clock::now() + kLookupLimit;
  resolver_.begin(options_.host, options_.port);
  std::optional<Resolution> resolution = resolver_.take();
  while (!resolution && !stopping() && std::chrono::steady_clock::now() < until) {
    wait(resolver_.descriptor(), until);
    resolution = resolver_.take();
  }
  if (!resolution) {
    failure = "host name " + options_.host + ": no answer from the name service";
    return {};
  }
  failure = resolution->failure;
  return std::move(resolution->addresses);
}

// Whatever this process runs out of costs the link, and never the process.
bool MqttWorker::serve(const Address& address, std::chrono::milliseconds connectLimit, std::string& failure) {
  bool told = false;
  try {
    return serveUnguarded(address, connectLimit, failure, told);
  } catch (...) {
    failure = shortage();
  }
  closeOutbox(false);
  handing_.clear();
  if (told) {
    tellDown(failure);
  }
  return told;
}

// Who was told that the link is up must hear that it is not, and may be short of something itself.
void MqttWorker::tellDown(const std::string& failure) {
  while (!stopping()) {
    try {
      listener_->down(failure);
      return;
    } catch (...) {
      rest();
    }
  }
}

bool MqttWorker::serveUnguarded(const Address& address, std::chrono::milliseconds connectLimit,
                                std::string& failure, bool& told) {
  enter(State::Connecting, address.numeric);
  const auto began = std::chrono::steady_clock::now();
  nextUpkeep_ = began + kUpkeep;
  MqttConnection connection(options_, identity_, *listener_);
  connection.open(address.numeric, began);
  bool connected = false;
  while (!connection.accepted()) {
    if (stopping()) {
      return false;
    }
    if (connection.ended()) {
      failure = connection.failure();
      return false;
    }
    connected = connected || connection.connected();
    const std::chrono::milliseconds limit = connected ? kGreetingLimit : connectLimit;
    if (std::chrono::steady_clock::now() - began >= limit) {
      failure = "no answer within " + spanText(limit);
      failure += connection.hintOfSilence();
      return false;
    }
    step(connection, false);
  }

  enter(State::Up, address.numeric);
  if (const auto line = report_.up(std::chrono::steady_clock::now())) {
    log(LogLevel::info, *line);
  }
  openOutbox();
  told = true;
  listener_->up();
  while (!connection.ended() && !stopping()) {
    step(connection, handOver(connection));
  }
  if (stopping()) {
    if (order_.load(std::memory_order_acquire) == Order::StopCleanly && !connection.ended()) {
      enter(State::Leaving, "stop");
      leave(connection);
    }
    handing_.clear();
    return true;
  }
  closeOutbox(false);
  handing_.clear();
  failure = connection.failure();
  enter(State::Pausing, failure);
  tellDown(failure);
  return true;
}

// Sends what was accepted before the stop, then the DISCONNECT, and waits until the broker has read it: a
// socket closed with unread input is reset, and a reset could overtake the DISCONNECT and let the will out.
void MqttWorker::leave(MqttConnection& connection) {
  const auto until = std::chrono::steady_clock::now() + kFarewellLimit;
  while (!connection.ended() && std::chrono::steady_clock::now() < until) {
    const bool more = handOver(connection);
    if (!more && handing_.empty() && connection.inFlight() == 0 && !connection.wantsWrite()) {
      break;
    }
    step(connection, more);
  }
  const int second = connection.ended() ? -1 : ::fcntl(connection.descriptor(), F_DUPFD_CLOEXEC, 0);
  if (second < 0) {
    return;
  }
  const auto last = std::chrono::steady_clock::now() + kLastWordLimit;
  connection.disconnect();
  while (!connection.ended() && std::chrono::steady_clock::now() < last) {
    step(connection, false);
  }
  if (connection.ended()) {
    ::shutdown(second, SHUT_WR);
    char unread[4096];
    while (std::chrono::steady_clock::now() < last) {
      const auto got = ::recv(second, unread, sizeof unread, MSG_DONTWAIT);
      if (got == 0 || (got < 0 && errno != EAGAIN && errno != EINTR)) {
        break;
      }
      if (got < 0) {
        wait(second, last);
      }
    }
  }
  ::close(second);
}

void MqttWorker::step(MqttConnection& connection, bool atOnce) {
  const bool wantsWrite = connection.wantsWrite();
  pollfd fds[2] = {{wake_.descriptor(), POLLIN, 0}, {connection.descriptor(), POLLIN, 0}};
  if (wantsWrite) {
    fds[1].events |= POLLOUT;
  }
  if (busy_ && !atOnce && !wantsWrite) {
    // Our own callers still get through at once.
    const timespec gather = {0, std::chrono::nanoseconds(kGather).count()};
    atOnce = ::ppoll(fds, 1, &gather, nullptr) > 0;
  }
  auto now = std::chrono::steady_clock::now();
  const auto span = std::max(0ns, std::chrono::nanoseconds(nextTick_ - now));
  const timespec timeout = {0, atOnce ? 0 : static_cast<long>(span.count())};
  const int ready = ::ppoll(fds, 2, &timeout, nullptr);
  now = std::chrono::steady_clock::now();
  int packets = 0;
  if (ready > 0) {
    if (fds[0].revents != 0) {
      wake_.drain();
    }
    if ((fds[1].revents & (POLLOUT | POLLERR | POLLHUP)) != 0) {
      connection.writable();
    }
    if ((fds[1].revents & (POLLIN | POLLERR | POLLHUP)) != 0 && !connection.ended()) {
      packets = connection.readable(now);
    }
  }
  countPackets(packets, now);
  if (now >= nextUpkeep_) {
    nextUpkeep_ = now + kUpkeep;
    connection.upkeep(now);
  }
  tickIfDue();
}

void MqttWorker::countPackets(int packets, TimePoint now) {
  windowPackets_ += packets;
  if (now - windowStart_ >= kWindow) {
    busy_ = windowPackets_ >= kBusyPackets && now - windowStart_ < 2 * kWindow;
    windowStart_ = now;
    windowPackets_ = 0;
  }
}

bool MqttWorker::mayHandOver(const MqttConnection& connection) {
  if (handing_.empty()) {
    return false;
  }
  // Not acknowledged messages would pile up in the library without bound, those without acknowledgement in
  // its output buffer.
  const Outgoing& next = handing_.front();
  const bool acknowledged = next.kind != Outgoing::Kind::Publish || next.message.qos > 0;
  return acknowledged ? connection.inFlight() < kHandedOver : !connection.wantsWrite();
}

bool MqttWorker::handOver(MqttConnection& connection) {
  for (int sent = 0; sent < kMessagesPerTurn && !connection.ended(); ++sent) {
    if (handing_.empty()) {
      const MutexLock lock(mutex_);
      handing_.swap(outbox_);
    }
    if (!mayHandOver(connection)) {
      return false;
    }
    const Outgoing next = std::move(handing_.front());
    handing_.pop_front();
    switch (next.kind) {
      case Outgoing::Kind::Publish:
        connection.publish(next.message, next.token);
        break;
      case Outgoing::Kind::Subscribe:
        connection.subscribe(next.message.topic, next.message.qos, next.token);
        break;
      case Outgoing::Kind::Unsubscribe:
        connection.unsubscribe(next.message.topic);
        break;
    }
  }
  return !connection.ended();
}

void MqttWorker::pause(std::chrono::milliseconds span) {
  if (state_ != State::Pausing) {
    enter(State::Pausing, std::to_string(span.count()) + " ms");
  }
  const auto until = std::chrono::steady_clock::now() + span;
  while (!stopping() && std::chrono::steady_clock::now() < until) {
    wait(-1, until);
  }
}

// A moment in which nothing is done that could fail.
void MqttWorker::rest() noexcept {
  pollfd wake = {wake_.descriptor(), POLLIN, 0};
  if (::poll(&wake, 1, static_cast<int>(std::chrono::milliseconds(kRest).count())) > 0) {
    wake_.drain();
  }
}

// Waits for the descriptor, a wake-up or `until`, but no longer than the next tick.
void MqttWorker::wait(int descriptor, TimePoint until) {
  pollfd fds[2] = {{wake_.descriptor(), POLLIN, 0}, {descriptor, POLLIN, 0}};
  const auto span =
      std::max(0ns, std::chrono::nanoseconds(std::min(until, nextTick_) - std::chrono::steady_clock::now()));
  const timespec timeout = {0, static_cast<long>(span.count())};
  if (::ppoll(fds, 2, &timeout, nullptr) > 0 && fds[0].revents != 0) {
    wake_.drain();
  }
  tickIfDue();
}

void MqttWorker::tickIfDue() {
  const auto now = std::chrono::steady_clock::now();
  if (now >= nextTick_) {
    nextTick_ = now + kTick;
    listener_->tick(now);
  }
}

}  // namespace kel::mqtt
