// StoreAdminLink: one connection that is waited for; what StoreAdmin is made of.
//
// Thread     One at a time. Every call blocks up to the limit.
// Errors     StoreError.
#pragma once

#include <cstdint>
#include <exception>
#include <functional>
#include <initializer_list>
#include <string>
#include <string_view>

#include "pvss/StoreAdmin.h"
#include "store/redis/RedisConnection.h"

namespace pvss::redis {

/// A command under construction.
class AdminCommand {
 public:
  explicit AdminCommand(std::initializer_list<std::string_view> parts) {
    for (const std::string_view part : parts) add(part);
  }
  AdminCommand& add(std::string_view part) {
    RespWriter(parts_).text(part);
    ++count_;
    return *this;
  }
  AdminCommand& add(std::uint64_t number) {
    RespWriter(parts_).number(number);
    ++count_;
    return *this;
  }
  void appendTo(std::string& out) const {
    RespWriter(out).header(count_);
    out += parts_;
  }

 private:
  std::string parts_;
  std::size_t count_ = 0;
};

/// FCALL of a function without keys.
AdminCommand functionCall(std::string_view name);

class StoreAdminLink final : private ConnectionOwner {
 public:
  using Take = std::function<void(ReplyCursor)>;

  StoreAdminLink(StoreAddress address, std::chrono::milliseconds limit);

  [[nodiscard]] const StoreAddress& address() const { return address_; }
  [[nodiscard]] std::chrono::milliseconds limit() const { return limit_; }

  /// Connects unless connected. A server that is still loading is waited for; one that refuses is not.
  void connect();
  /// Connects again, trying until the limit has passed.
  void reconnect();

  /// How often a connection was made; tells whether another server may be answering.
  [[nodiscard]] std::uint64_t connects() const { return connects_; }
  /// Whether the last ask() was sent a second time, so that the server may have had it already.
  [[nodiscard]] bool repeated() const { return repeated_; }

  /// Sends the commands and gives `take` the reply to the last one. An error reply to any of them is thrown.
  /// A connection that is lost under way is made again and the commands are sent once more: whatever a tool
  /// asks for does no harm the second time.
  void ask(std::initializer_list<const AdminCommand*> commands, const Take& take);
  void ask(const AdminCommand& command, const Take& take) { ask({&command}, take); }
  /// Many commands as one transaction; `take` gets the array of their replies.
  void askTogether(const std::vector<AdminCommand>& commands, const Take& take);

 private:
  void connectionReady(RedisConnection&) override {}
  void connectionLost(RedisConnection&, std::string_view reason) override { lost_ = reason; }
  void reply(RedisConnection& connection, std::uint64_t tag, ReplyCursor reply) override;

  void exchange(const std::string& bytes, std::size_t commands, const Take& take);
  void wait(Clock::time_point deadline);
  [[noreturn]] void throwLost() const;
  bool connectOnce(Clock::time_point deadline);
  bool await(const Take& take);

  const StoreAddress address_;
  const std::chrono::milliseconds limit_;
  RedisConnection connection_;
  std::string lost_;
  std::uint64_t connects_ = 0;
  bool repeated_ = false;
  const Take* take_ = nullptr;
  bool answered_ = false;
  std::string error_;
  std::exception_ptr thrown_;
};

}  // namespace pvss::redis
