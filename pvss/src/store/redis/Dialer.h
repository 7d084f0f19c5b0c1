// Dialer: from a server's place to an open stream: name look-up, connect, TLS.
//
// Purpose    One attempt at a time, driven from outside, never blocking. Of several addresses of a host the
//            first that takes the connection counts.
// Ownership  What take() gives belongs to the caller.
// Thread     One. No callbacks: look at state() after each call. Time limits are the caller's.
#pragma once

#include <poll.h>

#include <chrono>
#include <cstdint>
#include <memory>
#include <string>

#include "store/redis/ByteStream.h"
#include "store/redis/Endpoint.h"
#include "store/redis/StoreAddress.h"

namespace pvss::redis {

class Dialer {
 public:
  enum class State : std::uint8_t { idle, resolving, connecting, securing, done, failed };

  /// `peerTimeout`: after so long without an acknowledgement of what was sent the system gives a peer up.
  Dialer(const StoreAddress& address, std::chrono::milliseconds peerTimeout)
      : address_(address), peerTimeout_(peerTimeout) {}
  ~Dialer() { cancel(); }
  Dialer(const Dialer&) = delete;
  Dialer& operator=(const Dialer&) = delete;

  void start(const ServerPlace& place);
  /// The same without a look-up: the endpoint that a dialer of the same place reached.
  void start(const ServerPlace& place, const Endpoint& endpoint);
  void cancel();

  [[nodiscard]] State state() const { return state_; }
  [[nodiscard]] const ServerPlace& place() const { return place_; }
  /// What is connected, or was last.
  [[nodiscard]] const Endpoint& endpoint() const { return endpoint_; }
  [[nodiscard]] const std::string& error() const { return error_; }
  /// For people: what did not come in time.
  [[nodiscard]] std::string slowness(std::chrono::milliseconds limit) const;

  [[nodiscard]] pollfd wanted() const;
  /// Goes on as far as it can; call when wanted() is ready, and now and then.
  void proceed();
  /// Once done; the dialer is idle afterwards.
  std::unique_ptr<ByteStream> take();

 private:
  void resolved();
  void connectNext();
  void connected();
  void finishConnect();
  void fail(std::string error);
  void closeSocket();

  const StoreAddress& address_;
  const std::chrono::milliseconds peerTimeout_;
  State state_ = State::idle;
  ServerPlace place_;
  std::unique_ptr<EndpointLookup> lookup_;
  std::vector<Endpoint> endpoints_;
  std::size_t next_ = 0;
  Endpoint endpoint_;
  int socket_ = -1;  // while connecting
  std::unique_ptr<ByteStream> stream_;
  std::string error_;
};

}  // namespace pvss::redis
