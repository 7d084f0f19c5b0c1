#include "transport/mqtt/MqttOptions.h"

#include <arpa/inet.h>
#include <unistd.h>

#include <cerrno>
#include <system_error>

#include "KelUrl.h"
#include "transport/mqtt/PasswordFile.h"

namespace kel::mqtt {

namespace {

bool canRead(const char* option, const std::string& path, std::string& error) {
  if (path.empty() || ::access(path.c_str(), R_OK) == 0) return true;
  error = std::string("option '") + option + "': " + path + ": " + std::generic_category().message(errno);
  return false;
}

}  // namespace

std::optional<MqttOptions> mqttOptions(const KelUrl& url, std::string& error) {
  if (url.scheme == KelUrl::Scheme::loopback) {
    error = "loopback: is not an MQTT address";
    return std::nullopt;
  }
  MqttOptions options;
  options.host = url.host;
  options.port = url.port;
  options.tls = url.tls();
  options.caFile = url.ca;
  options.certFile = url.cert;
  options.keyFile = url.key;
  options.user = url.user;
  options.passFile = url.passfile;
  options.keepAlive = url.keepAlive;
  const std::string place = url.host.find(':') == std::string::npos ? url.host : "[" + url.host + "]";
  options.display = (url.tls() ? "mqtts://" : "mqtt://") + place + ":" + std::to_string(url.port);
  return options;
}

bool isNumeric(const std::string& host) {
  in6_addr address = {};
  return ::inet_pton(AF_INET, host.c_str(), &address) == 1 ||
         ::inet_pton(AF_INET6, host.c_str(), &address) == 1;
}

std::string troubleWithFiles(const MqttOptions& options) {
  std::string error;
  if (canRead("ca", options.caFile, error) && canRead("cert", options.certFile, error) &&
      canRead("key", options.keyFile, error) && !options.keyFile.empty()) {
    checkKeyFile(options.keyFile, error);
  }
  return error;
}

}  // namespace kel::mqtt
