// RedisConnection: one connection to a Redis server, driven from outside, never blocking.
//
// Purpose    Asks the sentinels where to (with an address of them), connects, signs on (AUTH, SELECT,
//            ROLE), sends commands and gives their replies back in order.
// Ownership  The owner outlives the connection. Reply cursors hold during the call only.
// Thread     One; the owner is called from inside open(), onReady(), flush() and tick(). The owner may
//            close or open the connection again from any of its callbacks.
// Errors     Nothing throws. Every end that the owner did not ask for is one connectionLost() with its
//            reason.
#pragma once

#include <poll.h>

#include <chrono>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "store/redis/ByteStream.h"
#include "store/redis/Dialer.h"
#include "store/redis/Resp.h"
#include "store/redis/SendBuffer.h"
#include "store/redis/SentinelFinder.h"
#include "store/redis/StoreAddress.h"

namespace pvss::redis {

using Clock = std::chrono::steady_clock;

class RedisConnection;

class ConnectionOwner {
 public:
  virtual ~ConnectionOwner() = default;
  /// Signed on; commands may be sent from now on.
  virtual void connectionReady(RedisConnection& connection) = 0;
  /// Gone, with everything that had no reply yet. The connection is closed already.
  virtual void connectionLost(RedisConnection& connection, std::string_view reason) = 0;
  /// The reply to the command that was sent under this tag.
  virtual void reply(RedisConnection& connection, std::uint64_t tag, ReplyCursor reply) = 0;
};

enum class ConnectionState : std::uint8_t { closed, finding, dialing, signingOn, ready };

class RedisConnection {
 public:
  struct Limits {
    std::chrono::milliseconds connect{3000};   ///< until a server is reached, and again until it is ready
    std::chrono::milliseconds reply{5000};     ///< without a sign of life while a reply is due
    std::chrono::milliseconds sentinel{1000};  ///< for each sentinel to answer
    /// What of a command may still lie in buffers on the way counts at so many bytes a second.
    std::size_t slowest = 65536;
  };

  RedisConnection(ConnectionOwner& owner, const StoreAddress& address, const char* name, Limits limits);
  ~RedisConnection();
  RedisConnection(const RedisConnection&) = delete;
  RedisConnection& operator=(const RedisConnection&) = delete;

  void open(Clock::time_point now);
  /// The same to the very server that another connection of the address has reached.
  void open(Clock::time_point now, const RedisConnection& other);
  /// Drops the connection without a call to the owner; what was not sent is lost.
  void close();

  [[nodiscard]] ConnectionState state() const { return state_; }
  [[nodiscard]] bool ready() const { return state_ == ConnectionState::ready; }
  [[nodiscard]] const char* name() const { return name_; }
  /// The server that is connected, or was tried last.
  [[nodiscard]] const ServerPlace& place() const { return dialer_.place(); }
  [[nodiscard]] std::size_t outstanding() const { return tagsIn_ - tagsOut_; }

  /// The output buffer, to which the caller appends exactly one command; its reply comes under the tag.
  /// Only while ready. Nothing is sent before flush().
  std::string& command(std::uint64_t tag);
  /// What is sent when the process ends by Manager::exit, unless something is half sent just then. Only while
  /// ready; of one connection of the process, and not over TLS.
  void sayAtEnd(std::string_view command);
  /// Sends what the socket takes.
  void flush();
  [[nodiscard]] std::size_t unsent() const { return output_.unsent().size(); }  ///< bytes
  [[nodiscard]] bool hasOutput() const { return !output_.empty(); }

  /// What to wait for; descriptor -1 when there is nothing to wait for.
  [[nodiscard]] pollfd wanted() const;
  void onReady(short events, Clock::time_point now);
  /// Watches over the limits; call a few times a second.
  void tick(Clock::time_point now);

 private:
  void enter(ConnectionState next, std::string_view cause);
  void find(Clock::time_point now);
  void dial(Clock::time_point now);
  void connected(Clock::time_point now);
  void signOn();
  void signOnReply(ReplyCursor reply);
  [[nodiscard]] std::string endReason(const StreamResult& result) const;
  [[nodiscard]] std::string tlsScheme() const;
  void readAll(Clock::time_point now);
  bool takeReplies();
  void lose(std::string_view reason);
  void pushTag(std::uint64_t tag);
  [[nodiscard]] std::uint64_t appended() const { return sent_ + output_.unsent().size(); }
  [[nodiscard]] std::uint64_t oldestEnd() const;
  [[nodiscard]] std::chrono::milliseconds patience() const;
  bool arrivesSlowly();

  ConnectionOwner& owner_;
  const StoreAddress& address_;
  const char* name_;
  const Limits limits_;
  ConnectionState state_ = ConnectionState::closed;
  std::uint64_t generation_ = 0;  // tells whether a callback closed or reopened the connection
  Clock::time_point since_{};     // start of the attempt, then of the last sign of life
  bool speaksAtEnd_ = false;
  bool waiting_ = false;       // replies were due at the last tick
  std::uint64_t sent_ = 0;     // bytes given to the system
  std::uint64_t arrived_ = 0;  // of these, at the last tick, what the other side has taken

  std::unique_ptr<SentinelFinder> finder_;  // null for an address of one server
  Dialer dialer_;
  std::unique_ptr<ByteStream> stream_;
  std::unique_ptr<ReplyReader> reader_;
  SendBuffer output_;
  unsigned signOnReplies_ = 0;

  // The commands that have no reply yet: a ring whose size is a power of two.
  struct Due {
    std::uint64_t tag;
    std::uint64_t begin;  // in bytes sent since the connection was made
  };
  std::vector<Due> tags_;
  std::size_t tagsIn_ = 0;
  std::size_t tagsOut_ = 0;
};

}  // namespace pvss::redis
