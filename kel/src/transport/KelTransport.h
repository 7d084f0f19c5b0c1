// KelTransport: what the Kel session needs from whatever carries its messages.
//
// Purpose    One interface over the in-process loopback broker and MQTT 5: retained messages with expiry,
//            a will, topic filters, acknowledged publishing. It knows nothing of records or presence.
// Ownership  The session owns its transport; the listener outlives it.
// Thread     Every call may come from any thread and never blocks, except stop(), which joins the
//            transport's thread. The listener is called on that one thread, never two calls at a time,
//            never from inside a call into the transport, and never after stop() has returned.
// Errors     Nothing throws. A lost link is reported by down() and followed by endless, jittered
//            reconnects with growing pauses (capped at 2 s).
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

namespace kel {

struct OutgoingMessage {
  std::string topic;
  std::shared_ptr<const std::string> payload;  ///< empty and retained: clears the topic
  bool retain = true;
  int qos = 1;
  std::optional<std::uint32_t> expirySeconds;  ///< MQTT 5 message expiry interval (clause 3.3.2.3.3)
};

/// A message that the broker, or MQTT itself, takes for too large.
struct Oversize {
  std::size_t size = 0;      ///< of its payload, in bytes
  std::size_t limit = 0;     ///< of a whole packet, where the broker has named it; 0: not known
  std::string_view failure;  ///< what was said about it
  bool endsLink = false;     ///< the broker ends the link over it; down() follows
};

class TransportListener {
 public:
  virtual ~TransportListener() = default;
  /// The link is usable; nothing is subscribed yet and nothing published before is on its way any more.
  virtual void up() = 0;
  /// The link is gone; every token not acknowledged yet is void, every subscription too.
  virtual void down(std::string_view reason) = 0;
  /// An attempt to connect failed; the next one follows.
  virtual void unreachable(std::string_view /*reason*/) {}
  /// `retained` is true for a message that the broker had kept, false for one published now.
  virtual void message(std::string_view topic, std::string_view payload, bool retained) = 0;
  /// The broker has taken responsibility for the message (QoS 1) or it has left (QoS 0); `failure` is empty
  /// or says why the broker refused it.
  virtual void published(std::uint64_t token, std::string_view failure) = 0;
  /// Instead of published(), when the message was refused for its size; or, when the broker ends the link
  /// over one that it does not name, for the largest under way.
  virtual void oversize(std::uint64_t token, const Oversize& what) { published(token, what.failure); }
  /// The broker has answered the subscription; `failure` is empty or says why it refused.
  virtual void subscribed(std::uint64_t token, std::string_view failure) = 0;
  /// Called at least every 100 ms, up or down, so that the session needs no timer thread of its own.
  virtual void tick(std::chrono::steady_clock::time_point now) = 0;
};

struct TransportIdentity {
  std::string clientId;
  OutgoingMessage will;  ///< published by the broker when the link ends without a clean stop
};

class KelTransport {
 public:
  virtual ~KelTransport() = default;
  /// Begins to connect, and keeps trying until stop().
  virtual void start(TransportListener& listener, TransportIdentity identity) = 0;
  /// Ends the link; `clean` suppresses the will. Waits for the transport's thread.
  virtual void stop(bool clean) = 0;
  /// False when the link is down: the caller keeps the message. Messages leave in the order given.
  virtual bool publish(const OutgoingMessage& message, std::uint64_t token) = 0;
  /// False when the link is down. Retained messages follow even if the filter was subscribed before.
  virtual bool subscribe(const std::string& filter, int qos, std::uint64_t token) = 0;
  virtual bool unsubscribe(const std::string& filter) = 0;
  /// The default keep-alive of the session is 5 s; the transport notices a half-open link within twice that.
  [[nodiscard]] virtual std::chrono::seconds keepAlive() const = 0;
};

}  // namespace kel
