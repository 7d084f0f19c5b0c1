#include "store/redis/RedisConnection.h"

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cassert>
#include <cerrno>
#include <cstring>
#include <fstream>

#include "log/Log.h"
#include "store/redis/ServerError.h"

namespace pvss::redis {
namespace {

const char* wordOf(ConnectionState state) {
  switch (state) {
    case ConnectionState::closed:
      return "closed";
    case ConnectionState::resolving:
      return "resolving";
    case ConnectionState::connecting:
      return "connecting";
    case ConnectionState::signingOn:
      return "signing on";
    case ConnectionState::ready:
      return "ready";
  }
  return "?";
}

/// The first line of the file; false when it cannot be read or is empty.
bool readSecret(const std::string& file, std::string& secret) {
  std::ifstream in(file);
  return std::getline(in, secret) && !secret.empty();
}

void setOption(int socket, int level, int name, int value) {
  // A socket without the option still works, only later to notice a dead peer.
  ::setsockopt(socket, level, name, &value, sizeof value);
}

}  // namespace

RedisConnection::RedisConnection(ConnectionOwner& owner, const StoreAddress& address, const char* name,
                                 Limits limits)
    : owner_(owner), address_(address), name_(name), limits_(limits), tags_(64) {}

RedisConnection::~RedisConnection() {
  close();
}

void RedisConnection::enter(ConnectionState next, std::string_view cause) {
  if (next == state_) return;
  log::debug("store", "{} connection {} -> {}: {}", name_, wordOf(state_), wordOf(next), cause);
  state_ = next;
}

void RedisConnection::open(Clock::time_point now) {
  close();
  since_ = now;
  connectError_.clear();
  nextEndpoint_ = 0;
  lookup_ = std::make_unique<EndpointLookup>(address_);
  enter(ConnectionState::resolving, "opened");
  if (lookup_->done()) resolved(now);
}

void RedisConnection::close() {
  ++generation_;
  if (socket_ >= 0) ::close(socket_);
  socket_ = -1;
  stream_.reset();
  lookup_.reset();
  output_.clear();
  sent_ = 0;
  tagsIn_ = tagsOut_ = 0;
  signOnReplies_ = 0;
  waiting_ = false;
  enter(ConnectionState::closed, "closed");
}

void RedisConnection::lose(std::string_view reason) {
  const std::string kept(reason);
  close();
  owner_.connectionLost(*this, kept);
}

void RedisConnection::resolved(Clock::time_point now) {
  if (lookup_->endpoints().empty()) {
    lose(lookup_->error());
    return;
  }
  enter(ConnectionState::connecting, "resolved");
  connectNext(now);
}

void RedisConnection::connectNext(Clock::time_point now) {
  while (nextEndpoint_ < lookup_->endpoints().size()) {
    const Endpoint& endpoint = lookup_->endpoints()[nextEndpoint_++];
    const int family = endpoint.address.ss_family;
    socket_ = ::socket(family, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    if (socket_ < 0) {
      connectError_ = std::strerror(errno);
      continue;
    }
    if (family != AF_UNIX) {
      setOption(socket_, IPPROTO_TCP, TCP_NODELAY, 1);
      setOption(socket_, SOL_SOCKET, SO_KEEPALIVE, 1);
      setOption(socket_, IPPROTO_TCP, TCP_USER_TIMEOUT, static_cast<int>(limits_.reply.count()));
    }
    if (::connect(socket_, reinterpret_cast<const sockaddr*>(&endpoint.address), endpoint.size) == 0) {
      connected(now);
      return;
    }
    if (errno == EINPROGRESS) return;
    connectError_ = std::strerror(errno);
    ::close(socket_);
    socket_ = -1;
  }
  lose(connectError_);
}

void RedisConnection::connected(Clock::time_point now) {
  lookup_.reset();
  stream_ = makePlainStream(socket_);
  socket_ = -1;
  since_ = now;
  enter(ConnectionState::signingOn, "connected");
  signOn();
}

void RedisConnection::signOn() {
  reader_ = std::make_unique<ReplyReader>();
  RespWriter out(output_);
  if (!address_.user.empty() || !address_.passFile.empty()) {
    std::string secret;
    if (!address_.passFile.empty() && !readSecret(address_.passFile, secret)) {
      lose("cannot read the password from " + address_.passFile);
      return;
    }
    out.header(address_.user.empty() ? 2 : 3);
    out.text("AUTH");
    if (!address_.user.empty()) out.text(address_.user);
    out.text(secret);
    ++signOnReplies_;
  }
  if (address_.database != 0) {
    out.header(2);
    out.text("SELECT");
    out.number(address_.database);
    ++signOnReplies_;
  }
  // A round trip in any case, so that "ready" means that a server has spoken.
  out.header(1);
  out.text("PING");
  ++signOnReplies_;
  flush();
}

void RedisConnection::signOnReply(ReplyCursor reply) {
  if (reply.isError()) {
    lose(describeServerError(reply.text()));
    return;
  }
  if (--signOnReplies_ > 0) return;
  enter(ConnectionState::ready, "signed on");
  owner_.connectionReady(*this);
}

void RedisConnection::pushTag(std::uint64_t tag) {
  if (outstanding() == tags_.size()) {
    std::vector<std::uint64_t> bigger(tags_.size() * 2);
    for (std::size_t i = tagsOut_; i != tagsIn_; ++i)
      bigger[i & (bigger.size() - 1)] = tags_[i & (tags_.size() - 1)];
    tags_ = std::move(bigger);
  }
  tags_[tagsIn_++ & (tags_.size() - 1)] = tag;
}

std::string& RedisConnection::command(std::uint64_t tag) {
  assert(ready());
  pushTag(tag);
  return output_;
}

void RedisConnection::flush() {
  if (!stream_) return;
  while (sent_ < output_.size()) {
    const StreamResult result = stream_->write(output_.data() + sent_, output_.size() - sent_);
    if (result.status == StreamResult::Status::wait) return;
    if (result.status != StreamResult::Status::moved) {
      // What the server said last may still be there to be read; reading will then find the end.
      if (result.error == EPIPE || result.error == ECONNRESET) return;
      lose(std::strerror(result.error));
      return;
    }
    sent_ += result.bytes;
  }
  constexpr std::size_t keepBytes = std::size_t{256} * 1024;
  if (output_.capacity() > keepBytes) output_ = std::string();
  output_.clear();
  sent_ = 0;
}

pollfd RedisConnection::wanted() const {
  switch (state_) {
    case ConnectionState::closed:
      break;
    case ConnectionState::resolving:
      return {lookup_->descriptor(), POLLIN, 0};
    case ConnectionState::connecting:
      return {socket_, POLLOUT, 0};
    case ConnectionState::signingOn:
    case ConnectionState::ready:
      return {stream_->descriptor(), static_cast<short>(hasOutput() ? POLLIN | POLLOUT : POLLIN), 0};
  }
  return {-1, 0, 0};
}

void RedisConnection::onReady(short events, Clock::time_point now) {
  if (state_ == ConnectionState::resolving) {
    if (lookup_->done()) resolved(now);
    return;
  }
  if (state_ == ConnectionState::connecting) {
    int error = 0;
    socklen_t size = sizeof error;
    ::getsockopt(socket_, SOL_SOCKET, SO_ERROR, &error, &size);
    if (error == 0) {
      connected(now);
    } else {
      connectError_ = std::strerror(error);
      ::close(socket_);
      socket_ = -1;
      connectNext(now);
    }
    return;
  }
  const std::uint64_t generation = generation_;
  if ((events & POLLOUT) != 0) flush();
  if (generation == generation_ && (events & (POLLIN | POLLHUP | POLLERR)) != 0) readAll(now);
}

void RedisConnection::readAll(Clock::time_point now) {
  // Small pieces: the parser moves what it has not taken yet, again and again.
  std::array<char, 16384> piece;
  for (int turn = 0; turn < 16; ++turn) {
    const StreamResult result = stream_->read(piece.data(), piece.size());
    if (result.status == StreamResult::Status::wait) return;
    if (result.status != StreamResult::Status::moved) {
      const bool greeted = state_ == ConnectionState::ready;
      lose(result.status == StreamResult::Status::failed ? std::strerror(result.error)
           : greeted                                     ? "the server closed the connection"
                     : "the server closed the connection before it answered");
      return;
    }
    since_ = now;
    reader_->feed(piece.data(), result.bytes);
    if (!takeReplies()) return;
    if (result.bytes < piece.size()) return;
  }
}

bool RedisConnection::takeReplies() {
  const std::uint64_t generation = generation_;
  while (true) {
    const ReplyReader::Result result = reader_->next();
    if (result == ReplyReader::Result::more) return true;
    if (result == ReplyReader::Result::broken) {
      lose("the server does not speak the Redis protocol: " + reader_->error());
      return false;
    }
    if (state_ == ConnectionState::signingOn) {
      signOnReply(reader_->current());
    } else if (outstanding() == 0) {
      // A server speaks unasked only to say why it hangs up.
      ReplyCursor reply = reader_->current();
      lose(describeServerError(reply.text()));
    } else {
      const std::uint64_t tag = tags_[tagsOut_++ & (tags_.size() - 1)];
      owner_.reply(*this, tag, reader_->current());
    }
    if (generation != generation_) return false;
  }
}

void RedisConnection::tick(Clock::time_point now) {
  switch (state_) {
    case ConnectionState::closed:
      return;
    case ConnectionState::resolving:
      if (lookup_->done()) {
        resolved(now);
        return;
      }
      [[fallthrough]];
    case ConnectionState::connecting:
    case ConnectionState::signingOn:
      if (now - since_ >= limits_.connect)
        lose("no answer within " + std::to_string(limits_.connect.count()) + " ms");
      return;
    case ConnectionState::ready:
      if (outstanding() == 0 || !waiting_) {
        waiting_ = outstanding() != 0;
        since_ = now;
      } else if (now - since_ >= limits_.reply) {
        // Perhaps it was this process that slept: look what has arrived before blaming the server.
        const std::uint64_t generation = generation_;
        readAll(now);
        if (generation == generation_ && since_ != now) {
          lose("no answer within " + std::to_string(limits_.reply.count()) + " ms");
        }
      }
      return;
  }
}

}  // namespace pvss::redis
