// ScriptedSession: a session on a transport that does nothing by itself: the test is the network and the
// clock.
#pragma once

#include <gtest/gtest.h>
#include <kel/Kel.h>

#include <chrono>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "KelFixture.h"
#include "session/Session.h"

namespace kel::testing {

using namespace std::chrono_literals;

/// A transport that does nothing by itself: the test is the network.
class ScriptedTransport final : public KelTransport {
 public:
  void start(TransportListener& listener, TransportIdentity identity) override {
    to = &listener;
    will = identity.will.topic;
  }
  void stop(bool /*clean*/) override {}
  bool publish(const OutgoingMessage& message, std::uint64_t token) override {
    published.emplace_back(message.topic, *message.payload);
    expiry = message.expirySeconds;
    tokens.push_back(token);
    return true;
  }
  bool subscribe(const std::string& filter, int /*qos*/, std::uint64_t token) override {
    subscribed.emplace_back(filter, token);
    return true;
  }
  bool unsubscribe(const std::string& /*filter*/) override { return true; }
  [[nodiscard]] std::chrono::seconds keepAlive() const override { return 5s; }

  TransportListener* to = nullptr;
  std::string will;
  std::optional<std::uint32_t> expiry;  ///< of the last message
  std::vector<std::pair<std::string, std::string>> published;
  std::vector<std::uint64_t> tokens;
  std::vector<std::pair<std::string, std::uint64_t>> subscribed;
};

struct ScriptedSession : ::testing::Test {
  ScriptedSession() {
    auto owned = std::make_unique<ScriptedTransport>();
    network = owned.get();
    KelOptions options;
    options.wallClockNanoseconds = [] { return std::int64_t{1}; };
    KelUrl url;
    url.group = "g";
    session = std::make_unique<Session>("me", "m1", url, options, std::move(owned));
  }
  ~ScriptedSession() override {
    network->to->down("the end");
    session.reset();
  }
  void answerAll() {
    for (; answered < network->subscribed.size(); ++answered) {
      network->to->subscribed(network->subscribed[answered].second, "");
    }
  }

  Listener listener;  ///< and what else is told by the session's thread: before it, so that it ends later
  Handler handler;
  ScriptedTransport* network = nullptr;
  std::unique_ptr<Session> session;
  std::size_t answered = 0;
  const std::chrono::steady_clock::time_point t0{1h};
};

}  // namespace kel::testing
