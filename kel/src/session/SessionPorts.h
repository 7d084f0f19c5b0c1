// What both sides of a session stand on. Everything here is used under the session's lock.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <string>

#include "session/Dispatcher.h"
#include "session/PeerTable.h"
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
};

/// How long who was refused waits before it asks again.
inline std::chrono::seconds refusalPause(const KelTransport& transport) {
  return 2 * transport.keepAlive();
}

}  // namespace kel
