// SentinelFinder: asks the sentinels, one after the other, which server is the master now.
//
// Purpose    The first one that gives an answer counts; it is asked first the next time, unless doubt() was
//            called because its answer led nowhere.
// Thread     One. No callbacks: look at state() after each call. Never blocks.
#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <string>

#include "store/redis/Dialer.h"
#include "store/redis/Resp.h"

namespace pvss::redis {

class SentinelFinder {
 public:
  using Clock = std::chrono::steady_clock;
  enum class State : std::uint8_t { idle, dialing, asking, done, failed };

  /// Each sentinel has `limit` to be reached in, and again to answer.
  SentinelFinder(const StoreAddress& address, std::chrono::milliseconds limit)
      : address_(address), limit_(limit), dialer_(address, limit, limit) {}

  /// Begins a round: every sentinel is asked at most once.
  void start(Clock::time_point now);
  void cancel();
  /// The next round begins with another sentinel.
  void doubt() { first_ = (first_ + 1) % address_.places.size(); }

  [[nodiscard]] State state() const { return state_; }
  /// Once done.
  [[nodiscard]] const ServerPlace& master() const { return master_; }
  /// Once failed: what each sentinel said.
  [[nodiscard]] const std::string& error() const { return error_; }

  [[nodiscard]] pollfd wanted() const;
  /// Goes on as far as it can; call when wanted() is ready, and a few times a second.
  void proceed(Clock::time_point now);

 private:
  [[nodiscard]] const ServerPlace& sentinel() const;
  void askNext(Clock::time_point now);
  void dialed(Clock::time_point now);
  void exchange(Clock::time_point now);
  void take(ReplyCursor reply, Clock::time_point now);
  void pass(const std::string& why, Clock::time_point now);
  void close();

  const StoreAddress& address_;
  const std::chrono::milliseconds limit_;
  Dialer dialer_;
  State state_ = State::idle;
  std::size_t first_ = 0;  // where a round begins
  std::size_t asked_ = 0;  // in this round
  Clock::time_point since_{};
  std::unique_ptr<ByteStream> stream_;
  std::unique_ptr<ReplyReader> reader_;
  std::string output_;
  unsigned replies_ = 0;  // still to come
  ServerPlace master_;
  std::string error_;
};

}  // namespace pvss::redis
