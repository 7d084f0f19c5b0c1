// KelUrl: where the broker is and how to speak to it, as KEL_URL says.
//
//   loopback:[name]                       an in-process broker, shared by everybody who gives the same name
//   mqtt://host[:1883]                    MQTT 5
//   mqtts://host[:8883]?ca=FILE&...       MQTT 5 over TLS
//
// Options follow a '?', separated by '&', values with %XX where needed:
//   group=NAME       default "default"; letters, digits, '.', '_' and '-'
//   qos=0|1          default 1
//   keepAlive=S      whole seconds, 1 to 3600, default 5
//   recordBytes=N    what one received record may take in memory, 65536 to 1073741824, default 16777216
//   ca, cert, key    files for TLS; cert and key go together
//   user, passfile   a user name, and a file whose first line is its password
//
// A secret never stands in the address: a user part before the host is refused.
// Pure: no I/O; files are named here and read by the transport.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace kel {

struct KelUrl {
  enum class Scheme { loopback, mqtt, mqtts };

  Scheme scheme = Scheme::mqtt;
  std::string host;        ///< mqtt and mqtts: name or address, IPv6 without brackets
  std::uint16_t port = 0;  ///< mqtt and mqtts
  std::string brokerName;  ///< loopback: which in-process broker, may be empty
  std::string group = "default";
  int qos = 1;
  std::chrono::seconds keepAlive{5};
  std::size_t recordBytes = 16U << 20U;  ///< of one received record, unpacked
  std::string ca;
  std::string cert;
  std::string key;
  std::string user;
  std::string passfile;

  /// The address, or nothing and in `error` one sentence that names the option at fault.
  static std::optional<KelUrl> parse(std::string_view text, std::string& error);

  /// The address as people may see it in a log: scheme, host and port, group. Never a file or a user.
  [[nodiscard]] std::string describe() const;

  [[nodiscard]] bool tls() const { return scheme == Scheme::mqtts; }
};

/// What holds when KEL_URL is not set.
inline constexpr std::string_view defaultKelUrl = "mqtt://127.0.0.1:1883";

}  // namespace kel
