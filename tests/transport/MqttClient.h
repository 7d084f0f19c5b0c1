// A client on the MQTT transport, as the tests of that transport use it.
#pragma once

#include <gtest/gtest.h>

#include <chrono>
#include <memory>
#include <string>
#include <utility>

#include "KelUrl.h"
#include "RecordingListener.h"
#include "transport/mqtt/MqttTransport.h"

namespace kel::testing {

inline std::unique_ptr<KelTransport> transportFor(const std::string& address) {
  std::string error;
  const auto url = kel::KelUrl::parse(address, error);
  EXPECT_TRUE(url) << error;
  auto transport = kel::makeMqttTransport(*url, error);
  EXPECT_TRUE(transport) << error;
  return transport;
}

inline OutgoingMessage message(std::string topic, std::string payload, bool retain = false, int qos = 1) {
  OutgoingMessage result;
  result.topic = std::move(topic);
  result.payload = std::make_shared<const std::string>(std::move(payload));
  result.retain = retain;
  result.qos = qos;
  return result;
}

inline TransportIdentity identity(const std::string& client, bool retainedWill = false) {
  return {client, message("will/" + client, "gone", retainedWill)};
}

inline bool isUp(const RecordingListener::Record& record) {
  return record.ups > static_cast<int>(record.downs.size());
}

/// A listener and its transport, stopped before the listener goes.
struct Client {
  explicit Client(const std::string& address, const std::string& name = "client")
      : transport(transportFor(address)), clientName(name) {}
  ~Client() { transport->stop(false); }
  Client(const Client&) = delete;
  Client& operator=(const Client&) = delete;

  void start() { transport->start(listener, identity(clientName)); }
  bool startAndWait() {
    start();
    return listener.waitFor(isUp);
  }
  bool subscribe(const std::string& filter) {
    return transport->subscribe(filter, 1, 1000) &&
           listener.waitFor(
               [](const RecordingListener::Record& record) { return record.subscribed.contains(1000); }) &&
           listener.snapshot().subscribed[1000].empty();
  }
  bool waitForMessages(std::size_t count, std::chrono::milliseconds limit = std::chrono::seconds(20)) {
    return listener.waitFor(
        [&](const RecordingListener::Record& record) { return record.messages.size() >= count; }, limit);
  }

  RecordingListener listener;
  std::unique_ptr<KelTransport> transport;
  const std::string clientName;
};

inline std::chrono::milliseconds since(std::chrono::steady_clock::time_point start) {
  return std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - start);
}

}  // namespace kel::testing
