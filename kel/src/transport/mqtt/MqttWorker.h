// MqttWorker: the transport's thread and what other threads hand to it.
//
// Purpose    Finds, greets, serves and leaves a broker, again and again, until it is stopped.
// Ownership  Owns its thread, its connection and the outbox; the listener is the session's and outlives it.
// Thread     Public calls from any thread (start and stop from one at a time, and never from the listener);
//            everything below "the thread's own" is touched by that thread alone.
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <deque>
#include <memory>
#include <random>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "Sync.h"
#include "transport/KelTransport.h"
#include "transport/mqtt/Backoff.h"
#include "transport/mqtt/MqttConnection.h"
#include "transport/mqtt/MqttOptions.h"
#include "transport/mqtt/OutageReport.h"
#include "transport/mqtt/Resolver.h"
#include "transport/mqtt/Wake.h"

namespace kel::mqtt {

class MqttWorker final : public KelTransport {
 public:
  /// `lookUp`: another way to look up host names than the system's, for tests.
  explicit MqttWorker(MqttOptions options, Resolver::LookUp lookUp = {});
  /// Ends the link abruptly if nobody has stopped it.
  ~MqttWorker() override;
  MqttWorker(const MqttWorker&) = delete;
  MqttWorker& operator=(const MqttWorker&) = delete;

  void start(TransportListener& listener, TransportIdentity identity) override;
  void stop(bool clean) override;
  bool publish(const OutgoingMessage& message, std::uint64_t token) override;
  bool subscribe(const std::string& filter, int qos, std::uint64_t token) override;
  bool unsubscribe(const std::string& filter) override;
  [[nodiscard]] std::chrono::seconds keepAlive() const override { return options_.keepAlive; }

 private:
  using TimePoint = std::chrono::steady_clock::time_point;

  enum class State { Idle, Resolving, Connecting, Up, Leaving, Pausing, Stopped };
  enum class Order { None, StopAbruptly, StopCleanly };

  struct Outgoing {
    enum class Kind { Publish, Subscribe, Unsubscribe };
    Kind kind = Kind::Publish;
    std::uint64_t token = 0;
    OutgoingMessage message;  ///< for filters: the filter as its topic, and qos
  };

  static const char* name(State state);

  bool enqueue(Outgoing outgoing) KEL_EXCLUDES(mutex_);
  void openOutbox() KEL_EXCLUDES(mutex_);
  void closeOutbox(bool keepQueued) KEL_EXCLUDES(mutex_);

  // The thread's own.
  void run();
  void enter(State state, std::string_view cause);
  void attempt();
  std::vector<Address> resolve(std::string& failure);
  bool serve(const Address& address, std::chrono::milliseconds connectLimit, std::string& failure);
  bool serveUnguarded(const Address& address, std::chrono::milliseconds connectLimit, std::string& failure,
                      bool& told);
  void tellDown(const std::string& failure);
  void leave(MqttConnection& connection);
  void step(MqttConnection& connection, bool atOnce);
  /// True when more could be handed over at once.
  bool handOver(MqttConnection& connection);
  bool mayHandOver(const MqttConnection& connection);
  void pause(std::chrono::milliseconds span);
  void rest() noexcept;
  void wait(int descriptor, TimePoint until);
  void tickIfDue();
  void countPackets(int packets, TimePoint now);
  [[nodiscard]] bool stopping() const { return order_.load(std::memory_order_acquire) != Order::None; }

  const MqttOptions options_;
  const Wake wake_;
  std::atomic<Order> order_{Order::None};
  std::thread thread_;
  TransportListener* listener_ = nullptr;  // fixed between start and stop
  TransportIdentity identity_;             // likewise

  Mutex mutex_;
  bool open_ KEL_GUARDED_BY(mutex_) = false;
  std::deque<Outgoing> outbox_ KEL_GUARDED_BY(mutex_);
  std::thread::id own_ KEL_GUARDED_BY(mutex_);  ///< whoever is this thread needs no waking

  // The thread's own.
  State state_ = State::Idle;
  std::deque<Outgoing> handing_;  ///< taken from the outbox, waiting for room in the connection
  Resolver resolver_;
  Backoff backoff_;
  OutageReport report_;
  TimePoint nextTick_{};
  TimePoint nextUpkeep_{};
  TimePoint windowStart_{};
  int windowPackets_ = 0;
  bool busy_ = false;  ///< packets come so fast that waiting for the next one each time is waste
  std::minstd_rand random_;
};

}  // namespace kel::mqtt
