#include "transport/mqtt/MqttConnection.h"

#include <mqtt_protocol.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <openssl/ssl.h>
#include <sys/ioctl.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <mutex>
#include <utility>

#include "transport/mqtt/MqttSetup.h"
#include "transport/mqtt/Properties.h"
#include "transport/mqtt/Reasons.h"
#include "transport/mqtt/Shortage.h"

#if defined(__has_feature)
#if __has_feature(thread_sanitizer)
#define KEL_THREAD_SANITIZER
#endif
#elif defined(__SANITIZE_THREAD__)
#define KEL_THREAD_SANITIZER
#endif

#ifdef KEL_THREAD_SANITIZER
// libmosquitto 2.0.11 unlocks a mutex of its own that it does not hold when the broker sends a DISCONNECT.
// Nobody but this thread uses that mutex, and the connection object is destroyed right afterwards.
extern "C" const char* __tsan_default_suppressions();
extern "C" const char* __tsan_default_suppressions() {
  return "mutex:libmosquitto\n";
}
#endif

namespace kel::mqtt {

namespace {

// Packets read before the owner gets the thread back for sending and ticking.
constexpr int kPacketsPerTurn = 64;
// The library takes no shorter keep-alive for the broker to hold us to.
constexpr std::chrono::seconds kShortestKeepAlive{5};
// Bytes that wait for the far machine: less than that is only its acknowledgement that is late.
constexpr int kMuch = 4096;
constexpr std::size_t kMostSaid = 500;
// Of a PUBLISH besides its payload, at least.
constexpr std::size_t kPacketOverhead = 8;
constexpr const char* kProbeFilter = "kel/-";

// While it is on, what is written to the socket leaves together: one segment with many acknowledgements
// instead of one each, which is most of what receiving costs.
class Cork {
 public:
  Cork() = default;
  ~Cork() { set(0); }
  Cork(const Cork&) = delete;
  Cork& operator=(const Cork&) = delete;

  void put(int socket) {
    socket_ = socket;
    set(1);
  }
  /// The socket is closed.
  void forget() { socket_ = -1; }

 private:
  void set(int on) const {
    if (socket_ >= 0) {
      ::setsockopt(socket_, IPPROTO_TCP, TCP_CORK, &on, sizeof on);
    }
  }

  int socket_ = -1;
};

// The broker's own words, if it sent any.
std::string withReasonString(std::string text, const mosquitto_property* properties) {
  char* said = nullptr;
  if (properties != nullptr &&
      mosquitto_property_read_string(properties, MQTT_PROP_REASON_STRING, &said, false) != nullptr) {
    text.append(": ").append(said);
    std::free(said);
  }
  return text;
}

std::string loginHint(int reason, const MqttOptions& options) {
  constexpr int oldBadLogin = 4;
  constexpr int oldNotAuthorized = 5;
  if (reason != MQTT_RC_NOT_AUTHORIZED && reason != MQTT_RC_BAD_USERNAME_OR_PASSWORD &&
      reason != oldBadLogin && reason != oldNotAuthorized) {
    return {};
  }
  if (options.user.empty()) {
    return "; does it want a user and a password (user=NAME and passfile=FILE)?";
  }
  return "; is user " + options.user + " known to it, " +
         (options.passFile.empty() ? "and does it want a password (passfile=FILE)?"
                                   : "with the password in " + options.passFile + "?");
}

// What is wrong with a topic or a filter, or nothing. The library lets some through that make a broker end
// the whole link, and with it everybody else's messages.
const char* unfit(const std::string& topic, int (*check)(const char*, std::size_t)) {
  if (topic.empty() || topic.size() > 65535) {
    return "the topic is empty or too long for MQTT";
  }
  if (topic.find('\0') != std::string::npos ||
      mosquitto_validate_utf8(topic.c_str(), static_cast<int>(topic.size())) != MOSQ_ERR_SUCCESS) {
    return "the topic is not the UTF-8 text that MQTT takes";
  }
  if (check(topic.c_str(), topic.size()) != MOSQ_ERR_SUCCESS) {
    return "the topic has wildcards where MQTT takes none";
  }
  return nullptr;
}

}  // namespace

MqttConnection::MqttConnection(const MqttOptions& options, const TransportIdentity& identity,
                               TransportListener& listener)
    : options_(options), listener_(listener), keepAlive_(options.keepAlive) {
  static std::once_flag once;
  std::call_once(once, [] { mosquitto_lib_init(); });
  handle_.reset(mosquitto_new(identity.clientId.c_str(), true, this));
  if (!handle_) {
    end("no connection object: " + libraryText(MOSQ_ERR_ERRNO, errno, {}));
    return;
  }
  mosquitto_connect_v5_callback_set(handle_.get(), onConnect);
  mosquitto_disconnect_v5_callback_set(handle_.get(), onDisconnect);
  mosquitto_message_v5_callback_set(handle_.get(), onMessage);
  mosquitto_publish_v5_callback_set(handle_.get(), onPublish);
  mosquitto_subscribe_v5_callback_set(handle_.get(), onSubscribe);
  mosquitto_log_callback_set(handle_.get(), onLog);
  if (std::string trouble = setUp(handle_.get(), options, identity.will, said_); !trouble.empty()) {
    end(std::move(trouble));
  }
}

void MqttConnection::open(const std::string& address, TimePoint now) {
  if (ended_) {
    return;
  }
  lastHeard_ = now;
  lastSent_ = now;
  check(mosquitto_connect_bind_async(handle_.get(), address.c_str(), options_.port,
                                     static_cast<int>(std::max(keepAlive_, kShortestKeepAlive).count()),
                                     nullptr));
  keepTls();
}

bool MqttConnection::connected() const {
  sockaddr_storage peer = {};
  socklen_t size = sizeof peer;
  return !ended_ && ::getpeername(descriptor(), reinterpret_cast<sockaddr*>(&peer), &size) == 0;
}

void MqttConnection::keepTls() {
  if (tls_) {
    return;
  }
  if (auto* const tls = static_cast<SSL*>(mosquitto_ssl_get(handle_.get()))) {
    SSL_up_ref(tls);
    tls_.reset(tls);
  }
}

int MqttConnection::descriptor() const {
  return ended_ ? -1 : mosquitto_socket(handle_.get());
}

bool MqttConnection::wantsWrite() const {
  return !ended_ && mosquitto_want_write(handle_.get());
}

int MqttConnection::readable(TimePoint now) {
  lastHeard_ = now;
  Cork cork;
  int packets = 0;
  while (packets < kPacketsPerTurn && !ended_) {
    check(mosquitto_loop_read(handle_.get(), 1));
    ++packets;
    int waiting = 0;
    if (ended_ || ::ioctl(mosquitto_socket(handle_.get()), FIONREAD, &waiting) != 0 || waiting == 0) {
      break;
    }
    if (packets == 1) {
      cork.put(mosquitto_socket(handle_.get()));
    }
  }
  if (ended_) {
    cork.forget();
  }
  return packets;
}

void MqttConnection::writable() {
  if (ended_) {
    return;
  }
  if (!accepted_) {
    // The outcome of a connect that was under way; the library would only see that its write fails.
    int error = 0;
    socklen_t size = sizeof error;
    if (::getsockopt(mosquitto_socket(handle_.get()), SOL_SOCKET, SO_ERROR, &error, &size) == 0 &&
        error != 0) {
      end(why(MOSQ_ERR_ERRNO, error));
      return;
    }
  }
  check(mosquitto_loop_write(handle_.get(), 1));
}

void MqttConnection::upkeep(TimePoint now) {
  if (ended_ || !accepted_) {
    return;
  }
  // The library's own keep-alive counts whole packets only and would end a link over which one large record
  // takes its time, so it is never asked. Bytes that arrive are a sign of life; so are bytes of ours that the
  // far machine acknowledges while many of them wait. What it takes at once proves nothing: a kernel takes it
  // for a broker that is frozen.
  const SocketProgress progress = socketProgress(descriptor());
  if (progress_.waiting > kMuch && progress.acknowledged > progress_.acknowledged) {
    lastHeard_ = now;
  }
  progress_ = progress;
  // Giving back a filter that nobody holds is the one request besides a ping that changes nothing. It also
  // shows the broker that we live.
  if (now - std::max(lastHeard_, lastProbe_) >= keepAlive_ || now - lastSent_ >= keepAlive_) {
    lastProbe_ = now;
    unsubscribe(kProbeFilter);
    lastSent_ = now;
  }
  if (now - lastHeard_ >= 2 * keepAlive_) {
    end("no sign of life from the broker for " + std::to_string(2 * keepAlive_.count()) + " s");
  }
}

void MqttConnection::publish(const OutgoingMessage& message, std::uint64_t token) {
  if (ended_) {
    return;
  }
  Properties properties;
  if (message.expirySeconds) {
    properties.addInt32(MQTT_PROP_MESSAGE_EXPIRY_INTERVAL, *message.expirySeconds);
  }
  const std::string_view payload = message.payload ? std::string_view(*message.payload) : std::string_view();
  if (const char* wrong = unfit(message.topic, mosquitto_pub_topic_check2)) {
    listener_.published(token, wrong);
    return;
  }
  if (payload.size() > MQTT_MAX_PAYLOAD) {
    listener_.oversize(token, {payload.size(), MQTT_MAX_PAYLOAD, "payload too large for MQTT", false});
    return;
  }
  int mid = 0;
  lastSent_ = std::chrono::steady_clock::now();
  publishing_ = true;
  writtenAtOnce_ = false;
  const int code =
      mosquitto_publish_v5(handle_.get(), &mid, message.topic.c_str(), static_cast<int>(payload.size()),
                           payload.data(), message.qos, message.retain, properties.get());
  const int savedErrno = errno;
  publishing_ = false;
  if (ended_) {
    return;
  }
  switch (code) {
    case MOSQ_ERR_SUCCESS:
      break;
    case MOSQ_ERR_NOMEM:
    case MOSQ_ERR_NO_CONN:
    case MOSQ_ERR_CONN_LOST:
    case MOSQ_ERR_ERRNO:
    case MOSQ_ERR_TLS:
      // The link has just broken; the token becomes void with it.
      end(why(code, savedErrno));
      return;
    case MOSQ_ERR_OVERSIZE_PACKET:
    case MOSQ_ERR_PAYLOAD_SIZE:
      refusedForSize(token, payload.size(), libraryText(code, savedErrno, {}));
      return;
    default:
      listener_.published(token, libraryText(code, savedErrno, {}));
      return;
  }
  if (message.qos == 0 && writtenAtOnce_) {
    listener_.published(token, {});
    return;
  }
  sent_.insert_or_assign(mid, Sent{token, payload.size(), message.qos > 0});
  inFlight_ += message.qos > 0 ? 1 : 0;
}

void MqttConnection::subscribe(const std::string& filter, int qos, std::uint64_t token) {
  if (ended_) {
    return;
  }
  if (const char* wrong = unfit(filter, mosquitto_sub_topic_check2)) {
    listener_.subscribed(token, wrong);
    return;
  }
  int mid = 0;
  // No options: retained messages come with every SUBSCRIBE, and carry the retain flag only then.
  const int code = mosquitto_subscribe_v5(handle_.get(), &mid, filter.c_str(), qos, 0, nullptr);
  const int savedErrno = errno;
  if (ended_) {
    return;
  }
  if (code == MOSQ_ERR_NOMEM) {
    end(why(code, savedErrno));
    return;
  }
  if (code != MOSQ_ERR_SUCCESS) {
    listener_.subscribed(token, libraryText(code, savedErrno, {}));
    return;
  }
  subscribing_.insert_or_assign(mid, token);
}

void MqttConnection::unsubscribe(const std::string& filter) {
  if (!ended_ && unfit(filter, mosquitto_sub_topic_check2) == nullptr) {
    mosquitto_unsubscribe_v5(handle_.get(), nullptr, filter.c_str(), nullptr);
  }
}

void MqttConnection::disconnect() {
  if (ended_) {
    return;
  }
  leaving_ = true;
  const int code = mosquitto_disconnect_v5(handle_.get(), 0, nullptr);
  if (code != MOSQ_ERR_SUCCESS) {
    end(libraryText(code, errno, said_));
  }
}

void MqttConnection::check(int code) {
  const int savedErrno = errno;
  if (code != MOSQ_ERR_SUCCESS && !ended_) {
    end(why(code, savedErrno));
  }
}

Mishap MqttConnection::mishap(int code, int savedErrno) const {
  Mishap mishap;
  mishap.code = code;
  mishap.savedErrno = savedErrno;
  mishap.said = said_;
  mishap.greeted = accepted_;
  if (tls_) {
    mishap.sawPeer = SSL_get0_peer_certificate(tls_.get()) != nullptr;
    mishap.handshakeDone = SSL_is_init_finished(tls_.get()) != 0;
    mishap.verifyResult = SSL_get_verify_result(tls_.get());
  }
  return mishap;
}

std::string MqttConnection::why(int code, int savedErrno) const {
  return diagnosis(mishap(code, savedErrno), options_);
}

std::string_view MqttConnection::hintOfSilence() const {
  return mqtt::hintOfSilence(mishap(MOSQ_ERR_SUCCESS, 0), options_);
}

void MqttConnection::FreeTls::operator()(ssl_st* tls) const noexcept {
  SSL_free(tls);
}

void MqttConnection::end(std::string failure) {
  ended_ = true;
  failure_ = std::move(failure);
}

void MqttConnection::refusedForSize(std::uint64_t token, std::size_t size, std::string_view failure,
                                    bool endsLink) {
  // A broker may take less of a payload than of a packet, and does not say how much.
  const bool named = largestPacket_ != 0 && size + kPacketOverhead > largestPacket_;
  listener_.oversize(token, {size, named ? largestPacket_ : 0, failure, endsLink});
}

// The broker does not say which one it means; no smaller one can be too large if the largest is not.
void MqttConnection::blameLargest(std::string_view failure) {
  const auto largest = std::max_element(sent_.begin(), sent_.end(), [](const auto& one, const auto& other) {
    return one.second.size < other.second.size;
  });
  if (largest == sent_.end()) {
    return;
  }
  const Sent sent = largest->second;
  sent_.erase(largest);
  inFlight_ -= sent.acknowledged ? 1 : 0;
  refusedForSize(sent.token, sent.size, failure, true);
}

template <class Body>
void MqttConnection::inside(Body&& body) noexcept {
  try {
    body();
  } catch (...) {
    end(shortage());
  }
}

void MqttConnection::onConnect(struct mosquitto* /*handle*/, void* self, int reason, int /*flags*/,
                               const mosquitto_property* properties) noexcept {
  auto& connection = *static_cast<MqttConnection*>(self);
  connection.inside([&] {
    if (reason != 0) {
      connection.end(
          withReasonString("the broker refuses the connection: " + reasonText(reason), properties) +
          loginHint(reason, connection.options_));
      return;
    }
    connection.accepted_ = true;
    std::uint16_t keepAlive = 0;
    if (properties != nullptr &&
        mosquitto_property_read_int16(properties, MQTT_PROP_SERVER_KEEP_ALIVE, &keepAlive, false) !=
            nullptr &&
        keepAlive > 0) {  // the broker has the last word, and the library pings by it
      connection.keepAlive_ = std::chrono::seconds(keepAlive);
    }
    if (properties != nullptr) {
      mosquitto_property_read_int32(properties, MQTT_PROP_MAXIMUM_PACKET_SIZE, &connection.largestPacket_,
                                    false);
    }
  });
}

void MqttConnection::onDisconnect(struct mosquitto* /*handle*/, void* self, int reason,
                                  const mosquitto_property* properties) noexcept {
  const int savedErrno = errno;
  auto& connection = *static_cast<MqttConnection*>(self);
  connection.inside([&] {
    if (connection.ended_) {
      return;
    }
    if (connection.leaving_) {
      connection.end("we have left");
    } else if (reason >= 0x80) {
      if (reason == MQTT_RC_PACKET_TOO_LARGE) {
        connection.blameLargest(withReasonString(reasonText(reason), properties));
      }
      connection.end(withReasonString("the broker ended the connection: " + reasonText(reason), properties));
    } else if (reason == 0) {
      connection.end(withReasonString("the broker ended the connection", properties));
    } else {
      connection.end(connection.why(reason, savedErrno));
    }
  });
}

void MqttConnection::onMessage(struct mosquitto* /*handle*/, void* self,
                               const struct mosquitto_message* message,
                               const mosquitto_property* /*properties*/) noexcept {
  auto& connection = *static_cast<MqttConnection*>(self);
  connection.inside([&] {
    connection.listener_.message(message->topic,
                                 std::string_view(static_cast<const char*>(message->payload),
                                                  static_cast<std::size_t>(message->payloadlen)),
                                 message->retain);
  });
}

void MqttConnection::onPublish(struct mosquitto* /*handle*/, void* self, int mid, int reason,
                               const mosquitto_property* properties) noexcept {
  auto& connection = *static_cast<MqttConnection*>(self);
  connection.inside([&] {
    const auto found = connection.sent_.find(mid);
    if (found == connection.sent_.end()) {
      connection.writtenAtOnce_ = connection.publishing_;
      return;
    }
    const Sent sent = found->second;
    connection.sent_.erase(found);
    connection.inFlight_ -= sent.acknowledged ? 1 : 0;
    if (reason == MQTT_RC_PACKET_TOO_LARGE) {
      connection.refusedForSize(sent.token, sent.size, withReasonString(reasonText(reason), properties));
    } else if (reason >= 0x80) {
      connection.listener_.published(sent.token, withReasonString(reasonText(reason), properties));
    } else {
      connection.listener_.published(sent.token, {});
    }
  });
}

void MqttConnection::onSubscribe(struct mosquitto* /*handle*/, void* self, int mid, int count,
                                 const int* granted, const mosquitto_property* properties) noexcept {
  auto& connection = *static_cast<MqttConnection*>(self);
  connection.inside([&] {
    const auto found = connection.subscribing_.find(mid);
    if (found == connection.subscribing_.end()) {
      return;
    }
    const std::uint64_t token = found->second;
    connection.subscribing_.erase(found);
    if (count < 1) {
      connection.listener_.subscribed(token, "the broker gave no answer for the filter");
    } else if (granted[0] >= 0x80) {
      connection.listener_.subscribed(token, withReasonString(reasonText(granted[0]), properties));
    } else {
      connection.listener_.subscribed(token, {});
    }
  });
}

void MqttConnection::onLog(struct mosquitto* /*handle*/, void* self, int level, const char* text) noexcept {
  auto& connection = *static_cast<MqttConnection*>(self);
  connection.inside([&] {
    // What the library makes and frees within one call is only seen from in here: it logs what it sends.
    connection.keepTls();
    if (level != MOSQ_LOG_ERR || connection.said_.size() > kMostSaid) {
      return;
    }
    connection.said_.append(connection.said_.empty() ? "" : "; ").append(text);
  });
}

}  // namespace kel::mqtt
