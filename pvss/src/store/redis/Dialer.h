// Dialer: from a server's place to an open stream: name look-up, connect, TLS.
//
// Purpose    One attempt at a time, driven from outside, never blocking. Of several addresses of a host the
//            first that takes the connection (and speaks TLS, where that is wanted) counts. The time for an
//            attempt is shared among the addresses, so that one that swallows everything does not hide those
//            behind it; what one does not use is there for the others.
// Ownership  What take() gives belongs to the caller.
// Thread     One. No callbacks: look at state() after each call. The clock is handed in.
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
  using Clock = std::chrono::steady_clock;
  enum class State : std::uint8_t { idle, resolving, connecting, securing, done, failed };

  /// `limit`: for the look-up of the name, and again for everything behind it. `peerTimeout`: after so long
  /// without an acknowledgement of what was sent the system gives a peer up.
  Dialer(const StoreAddress& address, std::chrono::milliseconds limit, std::chrono::milliseconds peerTimeout)
      : address_(address), limit_(limit), peerTimeout_(peerTimeout) {}
  ~Dialer() { cancel(); }
  Dialer(const Dialer&) = delete;
  Dialer& operator=(const Dialer&) = delete;

  void start(const ServerPlace& place, Clock::time_point now);
  /// The same without a look-up: the endpoint that a dialer of the same place reached.
  void start(const ServerPlace& place, const Endpoint& endpoint, Clock::time_point now);
  void cancel();
  /// What was reached did not answer: the next attempt begins with another address of the name.
  void doubt() { ++firstTried_; }

  [[nodiscard]] State state() const { return state_; }
  [[nodiscard]] const ServerPlace& place() const { return place_; }
  /// What is connected, or was last.
  [[nodiscard]] const Endpoint& endpoint() const { return endpoint_; }
  [[nodiscard]] const std::string& error() const { return error_; }

  [[nodiscard]] pollfd wanted() const;
  /// Goes on as far as it can; call when wanted() is ready, and a few times a second.
  void proceed(Clock::time_point now);
  /// Once done; the dialer is idle afterwards.
  std::unique_ptr<ByteStream> take();

 private:
  void advance(Clock::time_point now);
  void resolved(Clock::time_point now);
  void connectNext(Clock::time_point now);
  void connected(Clock::time_point now);
  void finishConnect(Clock::time_point now);
  void passOn(std::string error, Clock::time_point now);
  [[nodiscard]] std::string slowness() const;
  void fail(std::string error);
  void closeSocket();

  const StoreAddress& address_;
  const std::chrono::milliseconds limit_;
  const std::chrono::milliseconds peerTimeout_;
  State state_ = State::idle;
  ServerPlace place_;
  std::unique_ptr<EndpointLookup> lookup_;
  std::vector<Endpoint> endpoints_;
  std::size_t firstTried_ = 0;
  std::size_t next_ = 0;
  Clock::time_point end_{};    // of the attempt as a whole
  Clock::time_point until_{};  // of what is being done now
  Endpoint endpoint_;
  int socket_ = -1;  // while connecting
  std::unique_ptr<ByteStream> stream_;
  std::string error_;
};

}  // namespace pvss::redis
