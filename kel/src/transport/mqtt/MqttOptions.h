// MqttOptions: everything about a broker that a Kel address says, checked.
#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>

namespace kel {
struct KelUrl;
}

namespace kel::mqtt {

struct MqttOptions {
  std::string host;
  std::uint16_t port = 1883;
  bool tls = false;
  std::string caFile;    ///< empty: the system's certificate authorities
  std::string certFile;  ///< with keyFile, our own certificate
  std::string keyFile;
  std::string user;
  std::string passFile;  ///< read again for every attempt, so that a new password needs no restart
  std::chrono::seconds keepAlive{5};
  std::string display;  ///< the address in log lines: scheme, host and port, no secret
};

/// Checks what can be known before a connection: options that contradict each other, files that cannot be
/// read, a password file open to others. Nothing and the reason in `error` if it cannot work.
std::optional<MqttOptions> mqttOptions(const KelUrl& url, std::string& error);

}  // namespace kel::mqtt
