#include "transport/loopback/LoopbackBroker.h"

#include <algorithm>
#include <utility>

namespace kel {
namespace {

using std::chrono::milliseconds;

constexpr milliseconds step{50};

bool isWild(std::string_view filter) {
  return filter.find_first_of("+#") != std::string_view::npos;
}

}  // namespace

struct LoopbackBroker::Client {
  TransportListener* listener = nullptr;
  TransportIdentity identity;
  std::chrono::seconds keepAlive{5};
  bool linked = false;
  bool gone = false;  ///< detached
  bool frozen = false;
  bool willDone = false;
  Time frozenSince;
  bool called = false;  ///< a call into its listener is running
};

bool filterMatches(std::string_view filter, std::string_view topic) {
  while (true) {
    if (filter == "#") return true;
    const auto filterEnd = filter.find('/');
    const auto topicEnd = topic.find('/');
    const std::string_view wanted = filter.substr(0, filterEnd);
    if (wanted != "+" && wanted != topic.substr(0, topicEnd)) return false;
    const bool filterDone = filterEnd == std::string_view::npos;
    const bool topicDone = topicEnd == std::string_view::npos;
    if (filterDone && topicDone) return true;
    if (filterDone) return false;
    filter.remove_prefix(filterEnd + 1);
    if (topicDone) return filter == "#";  // a/# takes in a itself
    topic.remove_prefix(topicEnd + 1);
  }
}

std::shared_ptr<LoopbackBroker> LoopbackBroker::named(const std::string& name) {
  // Never destroyed: clients may end as late as they like.
  static auto* const mutex = new Mutex;
  static auto* const brokers = new std::map<std::string, std::shared_ptr<LoopbackBroker>>;
  const MutexLock lock(*mutex);
  auto& broker = (*brokers)[name];
  if (!broker) broker = std::make_shared<LoopbackBroker>();
  return broker;
}

LoopbackBroker::~LoopbackBroker() {
  std::thread thread;
  {
    const MutexLock lock(mutex_);
    running_ = false;
    wake_.notifyAll();
    thread = std::move(thread_);
  }
  if (thread.joinable()) thread.join();
}

LoopbackBroker::Time LoopbackBroker::now() const {
  return manual_ ? manualNow_ : std::chrono::steady_clock::now();
}

bool LoopbackBroker::reachable(const Client& client) const {
  return std::none_of(unreachable_.begin(), unreachable_.end(), [&](const std::string& prefix) {
    return client.identity.clientId.starts_with(prefix);
  });
}

bool LoopbackBroker::hears(const Client& client) const {
  return std::none_of(deaf_.begin(), deaf_.end(), [&](const std::string& prefix) {
    return client.identity.clientId.starts_with(prefix);
  });
}

void LoopbackBroker::push(Action action) {
  actions_.push_back(std::move(action));
  ++pushed_;
  if (!busy_) wake_.notifyOne();
}

std::shared_ptr<LoopbackBroker::Client> LoopbackBroker::attach(TransportListener& listener,
                                                               TransportIdentity identity,
                                                               std::chrono::seconds keepAlive) {
  auto client = std::make_shared<Client>();
  client->listener = &listener;
  client->identity = std::move(identity);
  client->keepAlive = keepAlive;
  std::thread old;
  {
    const MutexLock lock(mutex_);
    clients_.push_back(client);
    push({Action::Kind::connect, client, {}, 0});
    if (running_) return client;
    old = std::move(thread_);
  }
  if (old.joinable()) old.join();  // it has nobody to call and is about to end
  const MutexLock lock(mutex_);
  if (!running_ && !clients_.empty()) {
    running_ = true;
    thread_ = std::thread([this] { run(); });
  }
  return client;
}

void LoopbackBroker::detach(const std::shared_ptr<Client>& client, bool clean) {
  std::thread old;
  {
    const MutexLock lock(mutex_);
    // A clean end follows what was published before it.
    if (clean && client->linked && !client->frozen) catchUp();
    client->gone = true;
    while (client->called) changed_.wait(mutex_);
    forgetSubscriptions(client);
    std::erase(clients_, client);
    if (!clean && client->linked && !client->willDone)
      push({Action::Kind::publish, nullptr, client->identity.will, 0});
    client->linked = false;
    if (clients_.empty()) {
      catchUp();
      if (!clients_.empty()) return;  // somebody came meanwhile
      running_ = false;
      wake_.notifyAll();
      old = std::move(thread_);
    }
  }
  if (old.joinable()) old.join();
}

bool LoopbackBroker::publish(const std::shared_ptr<Client>& client, const OutgoingMessage& message,
                             std::uint64_t token) {
  const MutexLock lock(mutex_);
  if (!client->linked || client->gone) return false;
  push({Action::Kind::publish, client, message, token});
  return true;
}

bool LoopbackBroker::subscribe(const std::shared_ptr<Client>& client, const std::string& filter,
                               std::uint64_t token) {
  const MutexLock lock(mutex_);
  if (!client->linked || client->gone) return false;
  OutgoingMessage message;
  message.topic = filter;
  push({Action::Kind::subscribe, client, std::move(message), token});
  return true;
}

bool LoopbackBroker::unsubscribe(const std::shared_ptr<Client>& client, const std::string& filter) {
  const MutexLock lock(mutex_);
  if (!client->linked || client->gone) return false;
  OutgoingMessage message;
  message.topic = filter;
  push({Action::Kind::unsubscribe, client, std::move(message), 0});
  return true;
}

// ---- The broker's thread
// ---------------------------------------------------------------------------------------

bool LoopbackBroker::idle() const {
  return actions_.empty() && !busy_ && toAdvance_ <= milliseconds(0);
}

void LoopbackBroker::catchUp() {
  const std::uint64_t end = pushed_;
  ++waiters_;
  while (running_ && done_ < end) changed_.wait(mutex_);
  --waiters_;
}

void LoopbackBroker::run() {
  const MutexLock lock(mutex_);
  Time nextTick = now();
  while (running_) {
    if (!actions_.empty()) {
      busy_ = true;
      Action action = std::move(actions_.front());
      actions_.pop_front();
      perform(action);
      busy_ = false;
      ++done_;
      if (waiters_ > 0) changed_.notifyAll();
    } else if (manual_ && toAdvance_ > milliseconds(0)) {
      busy_ = true;
      const milliseconds span = std::min(step, toAdvance_);
      manualNow_ += span;
      tickAll();
      toAdvance_ -= span;
      busy_ = false;
    } else if (!manual_ && now() >= nextTick) {
      nextTick = now() + step;
      busy_ = true;
      tickAll();
      busy_ = false;
    } else {
      changed_.notifyAll();
      if (manual_) {
        wake_.wait(mutex_);
      } else {
        wake_.waitUntil(mutex_, nextTick);
      }
    }
    // Clients under load still want to know the time.
    if (!manual_ && !actions_.empty() && now() >= nextTick) {
      nextTick = now() + step;
      tickAll();
    }
  }
  changed_.notifyAll();
}

template <class Call>
bool LoopbackBroker::callClient(const std::shared_ptr<Client>& client, bool onlyLinked, Call call) {
  if (client->gone || (onlyLinked && (!client->linked || client->frozen))) return false;
  client->called = true;
  mutex_.unlock();
  call(*client->listener);
  mutex_.lock();
  client->called = false;
  if (client->gone) changed_.notifyAll();
  return true;
}

void LoopbackBroker::perform(Action& action) {
  const auto& client = action.client;
  switch (action.kind) {
    case Action::Kind::connect:
      connect(client);
      break;
    case Action::Kind::cut:
      lose(client, "the link was cut");
      break;
    case Action::Kind::publish: {
      if (client && (client->frozen || !client->linked)) break;
      const std::size_t size = action.message.payload ? action.message.payload->size() : 0;
      if (client && mostBytes_ != 0 && size > mostBytes_) {
        if (sizeEndsLinks_ > 0) {
          if (--sizeEndsLinks_ == 0) mostBytes_ = 0;
          lose(client, "the broker closed the connection");
        } else {
          const Oversize what{size, 0, "too large", false};
          callClient(client, true, [&](TransportListener& to) { to.oversize(action.token, what); });
        }
        break;
      }
      const std::string refusal = client ? refusalOf(action.message.topic) : std::string();
      if (refusal.empty()) route(action.message);
      if (client)
        callClient(client, true, [&](TransportListener& to) { to.published(action.token, refusal); });
      break;
    }
    case Action::Kind::subscribe:
      if (client->linked && !client->frozen && !client->gone)
        addSubscription(client, action.message.topic, action.token);
      break;
    case Action::Kind::unsubscribe: {
      const std::string& filter = action.message.topic;
      if (const auto at = exact_.find(filter); at != exact_.end()) {
        std::erase(at->second, client);
        if (at->second.empty()) exact_.erase(at);
      }
      std::erase_if(wild_,
                    [&](const auto& entry) { return entry.first == filter && entry.second == client; });
      break;
    }
  }
}

void LoopbackBroker::connect(const std::shared_ptr<Client>& client) {
  if (client->gone || client->linked || !reachable(*client)) return;
  client->linked = true;
  client->frozen = false;
  client->willDone = false;
  callClient(client, false, [](TransportListener& to) { to.up(); });
}

void LoopbackBroker::lose(const std::shared_ptr<Client>& client, std::string_view reason) {
  if (client->gone || !client->linked) return;
  client->linked = false;
  forgetSubscriptions(client);
  const std::string text(reason);
  callClient(client, false, [&](TransportListener& to) { to.down(text); });
  if (!std::exchange(client->willDone, true)) route(client->identity.will);
  push({Action::Kind::connect, client, {}, 0});
}

void LoopbackBroker::forgetSubscriptions(const std::shared_ptr<Client>& client) {
  for (auto at = exact_.begin(); at != exact_.end();) {
    std::erase(at->second, client);
    at = at->second.empty() ? exact_.erase(at) : std::next(at);
  }
  std::erase_if(wild_, [&](const auto& entry) { return entry.second == client; });
}

void LoopbackBroker::keep(const OutgoingMessage& message) {
  if (message.payload->empty()) {
    retained_.erase(message.topic);
    return;
  }
  Retained& slot = retained_[message.topic];
  slot.payload = message.payload;
  slot.expires = message.expirySeconds.has_value();
  if (slot.expires) slot.expiresAt = now() + std::chrono::seconds(*message.expirySeconds);
}

void LoopbackBroker::route(const OutgoingMessage& message) {
  if (message.topic.empty()) return;
  if (message.retain) keep(message);
  for (const std::string& filter : recordFilters_) {
    if (filterMatches(filter, message.topic)) recorded_.emplace_back(message.topic, *message.payload);
  }
  std::vector<std::shared_ptr<Client>> receivers;
  if (const auto at = exact_.find(message.topic); at != exact_.end()) receivers = at->second;
  for (const auto& [filter, client] : wild_) {
    if (!filterMatches(filter, message.topic)) continue;
    if (std::find(receivers.begin(), receivers.end(), client) == receivers.end()) receivers.push_back(client);
  }
  for (const auto& client : receivers) {
    if (!hears(*client)) continue;
    callClient(client, true,
               [&](TransportListener& to) { to.message(message.topic, *message.payload, false); });
  }
}

void LoopbackBroker::addSubscription(const std::shared_ptr<Client>& client, const std::string& filter,
                                     std::uint64_t token) {
  const std::string refusal = refusalOf(filter);
  if (refusal.empty()) {
    if (isWild(filter)) {
      const bool known = std::any_of(wild_.begin(), wild_.end(), [&](const auto& entry) {
        return entry.first == filter && entry.second == client;
      });
      if (!known) wild_.emplace_back(filter, client);
    } else {
      auto& clients = exact_[filter];
      if (std::find(clients.begin(), clients.end(), client) == clients.end()) clients.push_back(client);
    }
  }
  callClient(client, true, [&](TransportListener& to) { to.subscribed(token, refusal); });
  if (!refusal.empty()) return;
  std::vector<std::pair<std::string, std::shared_ptr<const std::string>>> kept;
  const Time time = now();
  std::erase_if(retained_,
                [&](const auto& entry) { return entry.second.expires && time >= entry.second.expiresAt; });
  if (!isWild(filter)) {
    if (const auto at = retained_.find(filter); at != retained_.end())
      kept.emplace_back(at->first, at->second.payload);
  } else {
    for (const auto& [topic, slot] : retained_) {
      if (filterMatches(filter, topic)) kept.emplace_back(topic, slot.payload);
    }
  }
  for (const auto& each : kept) {
    callClient(client, true, [&](TransportListener& to) { to.message(each.first, *each.second, true); });
  }
}

void LoopbackBroker::tickAll() {
  const Time time = now();
  const auto clients = clients_;
  for (const auto& client : clients) {
    callClient(client, false, [&](TransportListener& to) { to.tick(time); });
    if (!client->frozen || client->gone) continue;
    const auto silence = time - client->frozenSince;
    if (silence * 2 >= client->keepAlive * 3 && !std::exchange(client->willDone, true)) {
      forgetSubscriptions(client);
      route(client->identity.will);
    }
    if (silence >= client->keepAlive * 2) lose(client, "the broker does not answer");
  }
}

// ---- The test's side
// -------------------------------------------------------------------------------------------

std::vector<std::shared_ptr<LoopbackBroker::Client>> LoopbackBroker::matching(std::string_view prefix) const {
  std::vector<std::shared_ptr<Client>> result;
  for (const auto& client : clients_) {
    if (client->identity.clientId.starts_with(prefix)) result.push_back(client);
  }
  return result;
}

void LoopbackBroker::cut(std::string_view client) {
  const MutexLock lock(mutex_);
  for (const auto& each : matching(client)) push({Action::Kind::cut, each, {}, 0});
}

void LoopbackBroker::setReachable(std::string_view client, bool reachableNow) {
  const MutexLock lock(mutex_);
  if (!reachableNow) {
    unreachable_.emplace_back(client);
    return;
  }
  std::erase(unreachable_, client);
  for (const auto& each : matching(client)) push({Action::Kind::connect, each, {}, 0});
}

void LoopbackBroker::setDeaf(std::string_view client, bool deaf) {
  const MutexLock lock(mutex_);
  if (deaf) {
    deaf_.emplace_back(client);
  } else {
    std::erase(deaf_, client);
  }
}

void LoopbackBroker::freeze(std::string_view client) {
  const MutexLock lock(mutex_);
  for (const auto& each : matching(client)) {
    each->frozen = each->linked;
    each->frozenSince = now();
  }
}

void LoopbackBroker::publish(const std::string& topic, const std::string& payload, bool retain) {
  OutgoingMessage message;
  message.topic = topic;
  message.payload = std::make_shared<const std::string>(payload);
  message.retain = retain;
  const MutexLock lock(mutex_);
  if (running_) {
    push({Action::Kind::publish, nullptr, std::move(message), 0});
  } else if (retain) {
    keep(message);
  }
}

void LoopbackBroker::refuse(const std::string& filter, const std::string& failure) {
  const MutexLock lock(mutex_);
  if (failure.empty()) {
    refusals_.erase(filter);
  } else {
    refusals_[filter] = failure;
  }
}

void LoopbackBroker::limitSize(std::size_t bytes) {
  const MutexLock lock(mutex_);
  mostBytes_ = bytes;
  sizeEndsLinks_ = 0;
}

void LoopbackBroker::endLinksOverSize(std::size_t bytes, int times) {
  const MutexLock lock(mutex_);
  mostBytes_ = bytes;
  sizeEndsLinks_ = times;
}

std::string LoopbackBroker::refusalOf(std::string_view topic) const {
  for (const auto& [filter, failure] : refusals_) {
    if (filter == topic || filterMatches(filter, topic)) return failure;
  }
  return {};
}

std::string LoopbackBroker::retained(const std::string& topic) {
  const MutexLock lock(mutex_);
  const auto at = retained_.find(topic);
  if (at == retained_.end() || (at->second.expires && now() >= at->second.expiresAt)) return {};
  return *at->second.payload;
}

void LoopbackBroker::record(const std::string& filter) {
  const MutexLock lock(mutex_);
  recordFilters_.push_back(filter);
}

std::vector<std::pair<std::string, std::string>> LoopbackBroker::recorded() {
  const MutexLock lock(mutex_);
  return recorded_;
}

void LoopbackBroker::useManualClock() {
  const MutexLock lock(mutex_);
  manual_ = true;
}

void LoopbackBroker::advance(milliseconds span) {
  const MutexLock lock(mutex_);
  toAdvance_ += span;
  wake_.notifyAll();
  while (running_ && !idle()) changed_.wait(mutex_);
}

void LoopbackBroker::settle() {
  const MutexLock lock(mutex_);
  while (running_ && !idle()) changed_.wait(mutex_);
}

}  // namespace kel
