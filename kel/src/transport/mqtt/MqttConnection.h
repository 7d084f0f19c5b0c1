// MqttConnection: one connection to an MQTT 5 broker, from the first packet to the last.
//
// Purpose    Wraps one `struct mosquitto`. Every attempt gets a new one, so that no message that the
//            library had kept for an earlier connection can ever reach the broker behind newer ones.
// Thread     One thread alone uses it and the library below it: the library runs without threads, its
//            socket is waited for outside (descriptor(), wantsWrite()), and it calls back only inside
//            readable(), writable(), upkeep() and the sending calls. So no lock is involved in any
//            callback.
// Errors     Once ended() is true, failure() says why and the object is good for nothing else. What a
//            listener throws inside the library ends the connection. Otherwise std::bad_alloc alone is
//            thrown, and then too the object is good for nothing else.
#pragma once

#include <mosquitto.h>

#include <chrono>
#include <cstdint>
#include <memory>
#include <string>
#include <unordered_map>

#include "transport/KelTransport.h"
#include "transport/mqtt/Diagnosis.h"
#include "transport/mqtt/MqttOptions.h"
#include "transport/mqtt/SocketProgress.h"

struct ssl_st;  // OpenSSL's SSL

namespace kel::mqtt {

class MqttConnection {
 public:
  using TimePoint = std::chrono::steady_clock::time_point;

  /// `listener` gets message(), published(), oversize() and subscribed(); the rest is the owner's to report.
  MqttConnection(const MqttOptions& options, const TransportIdentity& identity, TransportListener& listener);
  /// Closes the socket without a DISCONNECT: the broker publishes the will.
  ~MqttConnection() = default;
  MqttConnection(const MqttConnection&) = delete;
  MqttConnection& operator=(const MqttConnection&) = delete;

  /// Begins to connect to a numeric address. Does not block.
  void open(const std::string& address, TimePoint now);

  /// The far machine has answered, whatever its broker does.
  [[nodiscard]] bool connected() const;
  [[nodiscard]] bool accepted() const { return accepted_ && !ended_; }  ///< the broker has greeted us
  [[nodiscard]] bool ended() const { return ended_; }
  [[nodiscard]] const std::string& failure() const { return failure_; }
  /// What to look at when the broker has not answered so far; begins with "; " or is empty.
  [[nodiscard]] std::string_view hintOfSilence() const;
  /// Sent at QoS 1 and not acknowledged yet.
  [[nodiscard]] std::size_t inFlight() const { return inFlight_; }

  [[nodiscard]] int descriptor() const;
  [[nodiscard]] bool wantsWrite() const;
  /// Reads what is there, up to a bounded number of packets; how many that were.
  int readable(TimePoint now);
  void writable();
  /// Keep-alive; due every second or oftener, after readable().
  void upkeep(TimePoint now);

  void publish(const OutgoingMessage& message, std::uint64_t token);
  void subscribe(const std::string& filter, int qos, std::uint64_t token);
  void unsubscribe(const std::string& filter);

  /// Queues the DISCONNECT that suppresses the will, and ends when it is written.
  void disconnect();

 private:
  struct Free {
    void operator()(struct mosquitto* handle) const noexcept { mosquitto_destroy(handle); }
  };
  struct Sent {
    std::uint64_t token = 0;
    std::size_t size = 0;
    bool acknowledged = false;  ///< counts in inFlight_
  };

  struct FreeTls {
    void operator()(ssl_st* tls) const noexcept;
  };

  void check(int code);
  void keepTls();
  [[nodiscard]] Mishap mishap(int code, int savedErrno) const;
  [[nodiscard]] std::string why(int code, int savedErrno) const;
  void end(std::string failure);
  void refusedForSize(std::uint64_t token, std::size_t size, std::string_view failure, bool endsLink = false);
  void blameLargest(std::string_view failure);
  /// Runs what the library calls: it is C, and nothing may be thrown through it.
  template <class Body>
  void inside(Body&& body) noexcept;

  static void onConnect(struct mosquitto*, void* self, int reason, int flags,
                        const mosquitto_property* properties) noexcept;
  static void onDisconnect(struct mosquitto*, void* self, int reason,
                           const mosquitto_property* properties) noexcept;
  static void onMessage(struct mosquitto*, void* self, const struct mosquitto_message* message,
                        const mosquitto_property* properties) noexcept;
  static void onPublish(struct mosquitto*, void* self, int mid, int reason,
                        const mosquitto_property* properties) noexcept;
  static void onSubscribe(struct mosquitto*, void* self, int mid, int count, const int* granted,
                          const mosquitto_property* properties) noexcept;
  static void onLog(struct mosquitto*, void* self, int level, const char* text) noexcept;

  const MqttOptions& options_;
  TransportListener& listener_;
  std::unique_ptr<struct mosquitto, Free> handle_;
  /// Kept beyond the library's own hold of it: it knows why a handshake failed.
  std::unique_ptr<ssl_st, FreeTls> tls_;
  bool accepted_ = false;
  bool ended_ = false;
  bool leaving_ = false;
  bool publishing_ = false;     ///< inside the library's publish call
  bool writtenAtOnce_ = false;  ///< that call has written its QoS 0 message already
  std::string failure_;
  std::string said_;  ///< what the library logged at its error level; bounded
  std::chrono::seconds keepAlive_;
  TimePoint lastHeard_{};
  TimePoint lastProbe_{};
  TimePoint lastSent_{};
  SocketProgress progress_;
  std::size_t inFlight_ = 0;
  std::uint32_t largestPacket_ = 0;  ///< that the broker takes; 0: it has not said
  std::unordered_map<int, Sent> sent_;
  std::unordered_map<int, std::uint64_t> subscribing_;
};

}  // namespace kel::mqtt
