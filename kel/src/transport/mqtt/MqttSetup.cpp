#include "transport/mqtt/MqttSetup.h"

#include <mqtt_protocol.h>
#include <openssl/ssl.h>
#include <openssl/x509.h>
#include <openssl/x509_vfy.h>
#include <openssl/x509v3.h>

#include <cerrno>
#include <memory>
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

int asJudged(int good, X509_STORE_CTX* /*store*/) {
  return good;
}

// At the beginning of a handshake: the broker may have a certificate for each of its names.
void askForName(const SSL* tls, int where, int /*unused*/) {
  const char* const name = X509_VERIFY_PARAM_get0_host(SSL_get0_param(const_cast<SSL*>(tls)), 0);
  if ((where & SSL_CB_HANDSHAKE_START) != 0 && name != nullptr) {
    SSL_set_tlsext_host_name(const_cast<SSL*>(tls), name);
    // OpenSSL's own judgement, name included; the library's would not get to see its connection.
    SSL_set_verify(const_cast<SSL*>(tls), SSL_VERIFY_PEER, asJudged);
  }
}

// The library is given one address at a time, and would hold the certificate against that. So OpenSSL holds
// it against the name instead.
bool expectName(struct mosquitto* handle, const std::string& host) {
  const std::unique_ptr<SSL_CTX, decltype(&SSL_CTX_free)> context(SSL_CTX_new(TLS_client_method()),
                                                                  SSL_CTX_free);
  if (!context) {
    return false;
  }
  X509_VERIFY_PARAM* const param = SSL_CTX_get0_param(context.get());
  X509_VERIFY_PARAM_set_hostflags(param, X509_CHECK_FLAG_NO_PARTIAL_WILDCARDS);
  SSL_CTX_set_info_callback(context.get(), askForName);
  return X509_VERIFY_PARAM_set1_host(param, host.c_str(), host.size()) == 1 &&
         mosquitto_void_option(handle, MOSQ_OPT_SSL_CTX, context.get()) == MOSQ_ERR_SUCCESS &&
         mosquitto_int_option(handle, MOSQ_OPT_SSL_CTX_WITH_DEFAULTS, 1) == MOSQ_ERR_SUCCESS;
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
  const bool byName = !isNumeric(options.host);
  if (byName && !expectName(handle, options.host)) {
    return "TLS cannot be set up for " + options.host;
  }
  if (code == MOSQ_ERR_SUCCESS && (!options.caFile.empty() || !options.certFile.empty() || byName)) {
    // The library takes no certificate of ours, and no name, without a place for authorities: the system's,
    // if nothing else.
    const char* const place = options.caFile.empty() ? X509_get_default_cert_dir() : nullptr;
    code = mosquitto_tls_set(handle, orNull(options.caFile), place, orNull(options.certFile),
                             orNull(options.keyFile), noPassphrase);
  }
  if (code == MOSQ_ERR_SUCCESS) {
    // 1: the broker's certificate must be good, and made out to the host we asked for: to the address that
    // the library was given (not insecure), or to the name, as expectName() says.
    code = mosquitto_tls_opts_set(handle, 1, nullptr, nullptr);
  }
  if (code == MOSQ_ERR_SUCCESS) {
    code = mosquitto_tls_insecure_set(handle, byName);
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
