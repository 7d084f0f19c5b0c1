// What both sides of a session stand on. Everything here is used under the session's lock.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <string>
#include <string_view>

#include "Log.h"
#include "session/Dispatcher.h"
#include "session/PeerTable.h"
#include "session/Refusals.h"
#include "session/SubscribeWindow.h"
#include "transport/KelTransport.h"
#include "wire/Topics.h"

namespace kel {

struct SessionPorts {
  KelTransport& transport;
  Dispatcher& dispatcher;
  PeerTable& peers;
  SubscribeWindow& subscribes;
  const TopicSpace topics;
  const PublisherId self;
  const int qos;
  const std::function<std::int64_t()> wallClockNanoseconds;
  /// The transport's clock, as of its last tick.
  std::chrono::steady_clock::time_point now;
  Grants grants = 0;
};

/// How long who was refused waits before it asks again.
inline std::chrono::seconds refusalPause(const KelTransport& transport) {
  return 2 * transport.keepAlive();
}

/// Says on standard error that a name cannot be one, for not every application repeats the name when it is
/// told; gives the sentence for the application.
inline std::string impossibleName(std::string_view use, const std::string& name, const std::string& error) {
  constexpr std::size_t shown = 200;
  const std::string sentence = "': " + error;
  log(LogLevel::warn, "no publication can be called '" + name.substr(0, shown) +
                          (name.size() > shown ? "..." : "") + sentence + "; it is not " + std::string(use) +
                          ": correct the name where it is configured");
  return "no publication can be called '" + name + sentence;
}

}  // namespace kel
