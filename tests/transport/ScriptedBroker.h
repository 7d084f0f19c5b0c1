// ScriptedBroker: answers MQTT packets exactly as a test says, refusals and bad manners included.
//
// Purpose    What a real broker does only under circumstances that are hard to arrange: reason codes,
//            strings, silence, a full backlog. It knows the framing of MQTT and nothing else.
// Thread     One of its own; the script runs there.
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <string>
#include <string_view>
#include <thread>

namespace kel::testing {

class ScriptedBroker {
 public:
  /// What to send in answer to one packet (whole, with its header); `close` ends the connection after it.
  struct Answer {
    std::string bytes;
    bool close = false;
  };
  using Script = std::function<Answer(std::string_view packet)>;

  explicit ScriptedBroker(Script script);
  ~ScriptedBroker();
  ScriptedBroker(const ScriptedBroker&) = delete;
  ScriptedBroker& operator=(const ScriptedBroker&) = delete;

  [[nodiscard]] std::uint16_t port() const { return port_; }
  [[nodiscard]] std::string url(const std::string& options = {}) const;
  [[nodiscard]] int connections() const { return connections_; }

 private:
  void run();
  void serve(int client);
  bool wait(int descriptor) const;

  const Script script_;
  std::uint16_t port_ = 0;
  const int listener_;
  const int stop_;
  std::atomic<int> connections_{0};
  std::thread thread_;
};

/// A listening socket whose backlog is full: a connect to it hangs as it does to a host that drops
/// everything.
class FullBacklog {
 public:
  /// Port 0: one that is free.
  explicit FullBacklog(const char* address = "127.0.0.1", std::uint16_t port = 0);
  ~FullBacklog();
  FullBacklog(const FullBacklog&) = delete;
  FullBacklog& operator=(const FullBacklog&) = delete;
  [[nodiscard]] std::string url() const { return "mqtt://127.0.0.1:" + std::to_string(port_); }

 private:
  static constexpr int kFillers = 4;
  std::uint16_t port_ = 0;
  const int listener_;
  int fillers_[kFillers];
};

// Packets of MQTT 5 as a broker sends them.
std::string connack(int reason, const std::string& reasonString = {});
std::string suback(std::string_view subscribe, int reason);
std::string puback(std::string_view publish, int reason, const std::string& reasonString = {});
std::string disconnectPacket(int reason);
/// The packet type, 1 (CONNECT) to 15.
inline int packetType(std::string_view packet) {
  return static_cast<unsigned char>(packet.front()) >> 4;
}

}  // namespace kel::testing
