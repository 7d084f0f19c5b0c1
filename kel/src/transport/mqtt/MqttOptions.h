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

/// Nothing and the reason in `error` if the address is none for MQTT. Pure.
std::optional<MqttOptions> mqttOptions(const KelUrl& url, std::string& error);

/// Whether the host is an address already, and not a name.
[[nodiscard]] bool isNumeric(const std::string& host);

/// What is wrong with the files of certificates and key: one that cannot be read, a key open to others than
/// its owner. Empty when nothing is. Looked at for every attempt, so that putting it right needs no restart.
std::string troubleWithFiles(const MqttOptions& options);

}  // namespace kel::mqtt
