#include "store/redis/Dialer.h"

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <system_error>
#include <utility>

#include "store/redis/TlsStream.h"

namespace pvss::redis {
namespace {

void setOption(int socket, int level, int name, int value) {
  // A socket without the option still works, only later to notice a dead peer.
  ::setsockopt(socket, level, name, &value, sizeof value);
}

std::string words(int error) {
  return std::generic_category().message(error);
}

}  // namespace

void Dialer::start(const ServerPlace& place, Clock::time_point now) {
  cancel();
  place_ = place;
  lookup_ = std::make_unique<EndpointLookup>(place_);
  state_ = State::resolving;
  until_ = now + limit_;
  proceed(now);
}

void Dialer::start(const ServerPlace& place, const Endpoint& endpoint, Clock::time_point now) {
  const Endpoint kept = endpoint;
  cancel();
  place_ = place;
  endpoints_ = {kept};
  end_ = now + limit_;
  connectNext(now);
}

void Dialer::cancel() {
  closeSocket();
  stream_.reset();
  lookup_.reset();
  endpoints_.clear();
  next_ = 0;
  error_.clear();
  state_ = State::idle;
}

void Dialer::closeSocket() {
  if (socket_ >= 0) ::close(socket_);
  socket_ = -1;
}

void Dialer::fail(std::string error) {
  cancel();
  error_ = std::move(error);
  state_ = State::failed;
}

void Dialer::proceed(Clock::time_point now) {
  advance(now);
  const bool waits = state_ == State::resolving || state_ == State::connecting || state_ == State::securing;
  if (waits && now >= until_) passOn(slowness(), now);
}

void Dialer::advance(Clock::time_point now) {
  if (state_ == State::resolving && lookup_->done()) {
    resolved(now);
  } else if (state_ == State::connecting) {
    finishConnect(now);
  } else if (state_ == State::securing) {
    const StreamResult result = stream_->open();
    if (result.status == StreamResult::Status::moved) state_ = State::done;
    if (result.status == StreamResult::Status::failed) passOn(stream_->failure(), now);
  }
}

void Dialer::resolved(Clock::time_point now) {
  endpoints_ = lookup_->endpoints();
  if (endpoints_.empty()) {
    fail(lookup_->error());
    return;
  }
  std::rotate(endpoints_.begin(),
              endpoints_.begin() + static_cast<std::ptrdiff_t>(firstTried_ % endpoints_.size()),
              endpoints_.end());
  lookup_.reset();
  end_ = now + limit_;
  connectNext(now);
}

/// This address is no help; on to the next, or to the end.
void Dialer::passOn(std::string error, Clock::time_point now) {
  error_ = std::move(error);
  closeSocket();
  stream_.reset();
  connectNext(now);
}

void Dialer::connectNext(Clock::time_point now) {
  while (next_ < endpoints_.size()) {
    state_ = State::connecting;
    const auto left = static_cast<Clock::rep>(endpoints_.size() - next_);
    until_ = std::max(now, now + (end_ - now) / left);
    endpoint_ = endpoints_[next_++];
    const int family = endpoint_.address.ss_family;
    socket_ = ::socket(family, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    if (socket_ < 0) {
      error_ = words(errno);
      continue;
    }
    if (family != AF_UNIX) {
      setOption(socket_, IPPROTO_TCP, TCP_NODELAY, 1);
      setOption(socket_, SOL_SOCKET, SO_KEEPALIVE, 1);
      setOption(socket_, IPPROTO_TCP, TCP_USER_TIMEOUT, static_cast<int>(peerTimeout_.count()));
    }
    if (::connect(socket_, reinterpret_cast<const sockaddr*>(&endpoint_.address), endpoint_.size) == 0) {
      connected(now);
      return;
    }
    if (errno == EINPROGRESS) return;
    error_ = words(errno);
    closeSocket();
  }
  fail(std::exchange(error_, {}));
}

void Dialer::finishConnect(Clock::time_point now) {
  pollfd ready{socket_, POLLOUT, 0};
  if (::poll(&ready, 1, 0) == 0) return;
  int error = 0;
  socklen_t size = sizeof error;
  ::getsockopt(socket_, SOL_SOCKET, SO_ERROR, &error, &size);
  if (error == 0) {
    connected(now);
    return;
  }
  passOn(words(error), now);
}

void Dialer::connected(Clock::time_point now) {
  const int socket = std::exchange(socket_, -1);
  if (!address_.tls) {
    stream_ = makePlainStream(socket);
    state_ = State::done;
    return;
  }
  std::string error;
  stream_ = makeTlsStream(socket, address_.tlsFiles, place_.host, error);
  if (!stream_) {
    fail(std::move(error));
    return;
  }
  state_ = State::securing;
  advance(now);
}

/// For people: what did not come in time.
std::string Dialer::slowness() const {
  const std::string within = " within " + std::to_string(limit_.count()) + " ms";
  if (state_ == State::resolving) return "the name of the host is not looked up" + within;
  if (state_ != State::securing) return "no answer" + within;
  return "no answer to the TLS handshake" + within +
         ": perhaps the server does not speak TLS on this port; name its TLS port, or use redis:// for plain "
         "text";
}

pollfd Dialer::wanted() const {
  switch (state_) {
    case State::resolving:
      return {lookup_->descriptor(), POLLIN, 0};
    case State::connecting:
      return {socket_, POLLOUT, 0};
    case State::securing:
      return {stream_->descriptor(), stream_->readEvents(), 0};
    case State::idle:
    case State::done:
    case State::failed:
      break;
  }
  return {-1, 0, 0};
}

std::unique_ptr<ByteStream> Dialer::take() {
  std::unique_ptr<ByteStream> stream = std::move(stream_);
  cancel();
  return stream;
}

}  // namespace pvss::redis
