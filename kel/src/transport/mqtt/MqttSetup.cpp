#include "transport/mqtt/MqttSetup.h"

#include <mqtt_protocol.h>
#include <openssl/x509.h>

#include <cerrno>
#include <optional>
#include <string_view>
#include <utility>

#include "transport/mqtt/PasswordFile.h"
#include "transport/mqtt/Properties.h"
#include "transport/mqtt/Reasons.h"

namespace kel::mqtt {

namespace {

// Messages on their way in each direction before the sender waits for an acknowledgement. The library's own
// 20 costs a third of the throughput.
constexpr int kInFlight = 200;

// A key that asks for a passphrase would make OpenSSL read the terminal.
int noPassphrase(char* /*buffer*/, int /*size*/, int /*writing*/, void* /*data*/) {
  return 0;
}

std::string setWill(struct mosquitto* handle, const OutgoingMessage& will, const std::string& said) {
  if (will.topic.empty()) {
    return {};
  }
  Properties properties;
  if (will.expirySeconds) {
    properties.addInt32(MQTT_PROP_MESSAGE_EXPIRY_INTERVAL, *will.expirySeconds);
  }
  const std::string_view payload = will.payload ? std::string_view(*will.payload) : std::string_view();
  const int code = mosquitto_will_set_v5(handle, will.topic.c_str(), static_cast<int>(payload.size()),
                                         payload.data(), will.qos, will.retain, properties.release());
  return code == MOSQ_ERR_SUCCESS ? std::string()
                                  : "the will cannot be set: " + libraryText(code, errno, said);
}

std::string setTls(struct mosquitto* handle, const MqttOptions& options, const std::string& said) {
  if (!options.tls) {
    return {};
  }
  if (std::string trouble = troubleWithFiles(options); !trouble.empty()) {
    return trouble;
  }
  const auto orNull = [](const std::string& text) { return text.empty() ? nullptr : text.c_str(); };
  int code = MOSQ_ERR_SUCCESS;
  if (options.caFile.empty()) {
    code = mosquitto_int_option(handle, MOSQ_OPT_TLS_USE_OS_CERTS, 1);
  }
  if (code == MOSQ_ERR_SUCCESS && (!options.caFile.empty() || !options.certFile.empty())) {
    // The library takes no certificate of ours without a place for authorities: the system's, if nothing
    // else.
    const char* const place = options.caFile.empty() ? X509_get_default_cert_dir() : nullptr;
    code = mosquitto_tls_set(handle, orNull(options.caFile), place, orNull(options.certFile),
                             orNull(options.keyFile), noPassphrase);
  }
  if (code == MOSQ_ERR_SUCCESS) {
    // 1: the broker's certificate must be good, and (not insecure) made out to the host we asked for.
    code = mosquitto_tls_opts_set(handle, 1, nullptr, nullptr);
  }
  if (code == MOSQ_ERR_SUCCESS) {
    code = mosquitto_tls_insecure_set(handle, false);
  }
  return code == MOSQ_ERR_SUCCESS ? std::string() : "TLS cannot be set up: " + libraryText(code, errno, said);
}

std::string setLogin(struct mosquitto* handle, const MqttOptions& options, const std::string& said) {
  if (options.user.empty()) {
    return {};
  }
  std::optional<std::string> password;
  if (!options.passFile.empty()) {
    std::string error;
    password = readPasswordFile(options.passFile, error);
    if (!password) {
      return error;
    }
  }
  const int code =
      mosquitto_username_pw_set(handle, options.user.c_str(), password ? password->c_str() : nullptr);
  return code == MOSQ_ERR_SUCCESS ? std::string()
                                  : "user name and password cannot be set: " + libraryText(code, errno, said);
}

}  // namespace

std::string setUp(struct mosquitto* handle, const MqttOptions& options, const OutgoingMessage& will,
                  const std::string& said) {
  mosquitto_int_option(handle, MOSQ_OPT_PROTOCOL_VERSION, MQTT_PROTOCOL_V5);
  mosquitto_int_option(handle, MOSQ_OPT_TCP_NODELAY, 1);
  mosquitto_int_option(handle, MOSQ_OPT_SEND_MAXIMUM, kInFlight);
  mosquitto_int_option(handle, MOSQ_OPT_RECEIVE_MAXIMUM, kInFlight);
  std::string trouble = setWill(handle, will, said);
  if (trouble.empty()) {
    trouble = setTls(handle, options, said);
  }
  if (trouble.empty()) {
    trouble = setLogin(handle, options, said);
  }
  return trouble;
}

}  // namespace kel::mqtt
