// LoopbackBroker: a broker inside this process, for tests, benches and single-process trials.
//
// Purpose    Behaves like an MQTT 5 broker as far as KelTransport can see: retained messages with expiry,
//            wills, filters with + and #, messages in order. Brokers have names; who gives the same name
//            meets there.
// Ownership  A named broker lives as long as the process, so that what it retains outlives its clients;
//            its thread runs only while there are clients.
// Thread     Any thread may call. Clients are called on the broker's thread, under no lock.
// Time       The steady clock, or a clock that a test moves by hand: then nothing happens by waiting.
#pragma once

#include <chrono>
#include <deque>
#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <thread>
#include <unordered_map>
#include <vector>

#include "Sync.h"
#include "transport/KelTransport.h"

namespace kel {

class LoopbackBroker {
 public:
  using Time = std::chrono::steady_clock::time_point;
  struct Client;

  static std::shared_ptr<LoopbackBroker> named(const std::string& name);

  LoopbackBroker() = default;
  ~LoopbackBroker();
  LoopbackBroker(const LoopbackBroker&) = delete;
  LoopbackBroker& operator=(const LoopbackBroker&) = delete;

  // The transport's side.
  std::shared_ptr<Client> attach(TransportListener& listener, TransportIdentity identity,
                                 std::chrono::seconds keepAlive);
  /// Waits for a running call into the client; none follows. Not from inside such a call.
  void detach(const std::shared_ptr<Client>& client, bool clean);
  bool publish(const std::shared_ptr<Client>& client, const OutgoingMessage& message, std::uint64_t token);
  bool subscribe(const std::shared_ptr<Client>& client, const std::string& filter, std::uint64_t token);
  bool unsubscribe(const std::shared_ptr<Client>& client, const std::string& filter);

  // The test's side. `client` is the beginning of a client id; empty means every client.

  /// Ends links as a closed socket does: wills are published, and the clients come back at once if they may.
  void cut(std::string_view client);
  /// Whether these clients may (re)connect; those not linked that may, do at once.
  void setReachable(std::string_view client, bool reachable);
  /// From now on nothing passes between the broker and these clients, and nobody is told: a half-open link.
  /// The broker notices after one and a half keep-alives, the client after two.
  void freeze(std::string_view client);
  /// While it is on, what is published does not reach these clients, as if the broker's queue for them were
  /// full; what they ask for does.
  void setDeaf(std::string_view client, bool deaf);
  /// Publishes as a client that has no part in the group would.
  void publish(const std::string& topic, const std::string& payload, bool retain);
  /// Every later publish on topics that match is answered with this refusal; empty ends it.
  void refuse(const std::string& filter, const std::string& failure);
  /// Every later publish with a payload of more than `bytes` is refused for its size; 0 ends it.
  void limitSize(std::size_t bytes);
  /// The next `times` publishes of that size each end the link of who sends them.
  void endLinksOverSize(std::size_t bytes, int times);
  /// What is retained on the topic; empty when nothing is.
  [[nodiscard]] std::string retained(const std::string& topic);
  /// Every message of the broker's life on topics that match the filter, oldest first; recording begins here.
  void record(const std::string& filter);
  [[nodiscard]] std::vector<std::pair<std::string, std::string>> recorded();

  /// From now on time moves by advance() alone. To be called before the first client comes.
  void useManualClock();
  /// Moves the clock in steps of 50 ms, everything that follows from a step done before the next.
  void advance(std::chrono::milliseconds span);
  /// Waits until nothing is left to be done.
  void settle();

 private:
  struct Action {
    enum class Kind { connect, cut, publish, subscribe, unsubscribe } kind = Kind::publish;
    std::shared_ptr<Client> client;  ///< null: a publish of the test
    OutgoingMessage message;         ///< for filters: the filter as its topic
    std::uint64_t token = 0;
  };
  struct Retained {
    std::shared_ptr<const std::string> payload;
    bool expires = false;
    Time expiresAt;
  };

  void run();
  void push(Action action) KEL_REQUIRES(mutex_);
  void perform(Action& action) KEL_REQUIRES(mutex_);
  void connect(const std::shared_ptr<Client>& client) KEL_REQUIRES(mutex_);
  void lose(const std::shared_ptr<Client>& client, std::string_view reason) KEL_REQUIRES(mutex_);
  void forgetSubscriptions(const std::shared_ptr<Client>& client) KEL_REQUIRES(mutex_);
  void route(const OutgoingMessage& message) KEL_REQUIRES(mutex_);
  void keep(const OutgoingMessage& message) KEL_REQUIRES(mutex_);
  void addSubscription(const std::shared_ptr<Client>& client, const std::string& filter, std::uint64_t token)
      KEL_REQUIRES(mutex_);
  void tickAll() KEL_REQUIRES(mutex_);
  /// Calls with the mutex released; false when the client is not there any more.
  template <class Call>
  bool callClient(const std::shared_ptr<Client>& client, bool onlyLinked, Call call) KEL_REQUIRES(mutex_);
  [[nodiscard]] bool idle() const KEL_REQUIRES(mutex_);
  /// Waits until everything pushed so far is done.
  void catchUp() KEL_REQUIRES(mutex_);
  [[nodiscard]] std::string refusalOf(std::string_view topic) const KEL_REQUIRES(mutex_);
  [[nodiscard]] std::vector<std::shared_ptr<Client>> matching(std::string_view prefix) const
      KEL_REQUIRES(mutex_);
  [[nodiscard]] Time now() const KEL_REQUIRES(mutex_);
  [[nodiscard]] bool reachable(const Client& client) const KEL_REQUIRES(mutex_);
  [[nodiscard]] bool hears(const Client& client) const KEL_REQUIRES(mutex_);

  Mutex mutex_;
  Condition wake_;
  Condition changed_;
  std::thread thread_ KEL_GUARDED_BY(mutex_);
  bool running_ KEL_GUARDED_BY(mutex_) = false;
  bool busy_ KEL_GUARDED_BY(mutex_) = false;
  std::vector<std::shared_ptr<Client>> clients_ KEL_GUARDED_BY(mutex_);
  std::deque<Action> actions_ KEL_GUARDED_BY(mutex_);
  std::uint64_t pushed_ KEL_GUARDED_BY(mutex_) = 0;
  std::uint64_t done_ KEL_GUARDED_BY(mutex_) = 0;
  int waiters_ KEL_GUARDED_BY(mutex_) = 0;  ///< who wants to hear of every action done
  std::map<std::string, Retained, std::less<>> retained_ KEL_GUARDED_BY(mutex_);
  std::unordered_map<std::string, std::vector<std::shared_ptr<Client>>> exact_ KEL_GUARDED_BY(mutex_);
  std::vector<std::pair<std::string, std::shared_ptr<Client>>> wild_ KEL_GUARDED_BY(mutex_);
  std::vector<std::string> unreachable_ KEL_GUARDED_BY(mutex_);
  std::vector<std::string> deaf_ KEL_GUARDED_BY(mutex_);
  std::map<std::string, std::string> refusals_ KEL_GUARDED_BY(mutex_);
  std::size_t mostBytes_ KEL_GUARDED_BY(mutex_) = 0;
  int sizeEndsLinks_ KEL_GUARDED_BY(mutex_) = 0;  ///< so many times more
  std::vector<std::string> recordFilters_ KEL_GUARDED_BY(mutex_);
  std::vector<std::pair<std::string, std::string>> recorded_ KEL_GUARDED_BY(mutex_);
  bool manual_ KEL_GUARDED_BY(mutex_) = false;
  Time manualNow_ KEL_GUARDED_BY(mutex_) = Time(std::chrono::hours(1));
  std::chrono::milliseconds toAdvance_ KEL_GUARDED_BY(mutex_){0};
};

/// Whether an MQTT topic filter takes in the topic.
[[nodiscard]] bool filterMatches(std::string_view filter, std::string_view topic);

}  // namespace kel
