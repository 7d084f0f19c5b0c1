#include "transport/mqtt/Diagnosis.h"

#include <mosquitto.h>
#include <openssl/x509_vfy.h>

#include <cerrno>

#include "transport/mqtt/Reasons.h"

namespace kel::mqtt {

namespace {

bool holds(std::string_view text, std::string_view part) {
  return text.find(part) != std::string_view::npos;
}

/// The far end has gone away, whatever that looked like here.
bool isGone(const Mishap& mishap) {
  if (mishap.code == MOSQ_ERR_CONN_LOST || holds(mishap.said, "unexpected eof")) return true;
  // EPROTO is the library's own for an end in the middle of TLS of which OpenSSL has nothing to say.
  return mishap.code == MOSQ_ERR_ERRNO && (mishap.savedErrno == ECONNRESET || mishap.savedErrno == EPIPE ||
                                           (mishap.savedErrno == EPROTO && mishap.said.empty()));
}

std::string authorities(const MqttOptions& options) {
  return options.caFile.empty() ? "this system's certificate authorities" : options.caFile;
}

std::string badCertificate(const Mishap& mishap, const MqttOptions& options) {
  if (holds(mishap.said, "host name verification failed") ||
      mishap.verifyResult == X509_V_ERR_HOSTNAME_MISMATCH) {
    return "TLS: the broker's certificate is not made out to " + options.host +
           "; use the name that it is made out to, if this is the right broker";
  }
  switch (mishap.verifyResult) {
    case X509_V_ERR_CERT_HAS_EXPIRED:
    case X509_V_ERR_CERT_NOT_YET_VALID:
      return std::string("TLS: the broker's certificate is out of date (") +
             X509_verify_cert_error_string(mishap.verifyResult) +
             "); it needs a new one, or this machine's clock is wrong";
    default:
      return "TLS: the broker's certificate cannot be trusted by " + authorities(options) + " (" +
             X509_verify_cert_error_string(mishap.verifyResult) +
             "); name the authority that signed it with ca=FILE, if this is the right broker";
  }
}

std::string ourCertificateIsRefused(const MqttOptions& options) {
  if (options.certFile.empty()) {
    return "TLS: the broker wants a certificate of ours; give one with cert=FILE and key=FILE";
  }
  return "TLS: the broker does not accept our certificate " + options.certFile +
         "; is it signed by an authority that the broker knows, and still valid?";
}

bool isAlertAboutOurs(std::string_view said) {
  if (!holds(said, " alert ")) return false;
  // Nothing else of ours could trouble a broker that has shown us its own.
  return holds(said, "certificate") || holds(said, "unknown ca") || holds(said, "access denied") ||
         holds(said, "decrypt error") || holds(said, "handshake failure");
}

std::string notTls(const MqttOptions& options) {
  return "TLS: the broker does not speak it on port " + std::to_string(options.port) +
         "; use its port for TLS, or mqtt:// if it has none";
}

}  // namespace

std::string diagnosis(const Mishap& mishap, const MqttOptions& options) {
  if (mishap.greeted) return libraryText(mishap.code, mishap.savedErrno, mishap.said);
  if (options.tls) {
    if (holds(mishap.said, "certificate verify failed")) return badCertificate(mishap, options);
    if (holds(mishap.said, "key values mismatch")) {
      return "TLS: the key " + options.keyFile + " does not belong to the certificate " + options.certFile;
    }
    if (isAlertAboutOurs(mishap.said)) return ourCertificateIsRefused(options);
    if (holds(mishap.said, "wrong version number") || holds(mishap.said, "packet length too long")) {
      return notTls(options);
    }
    if (isGone(mishap)) {
      return mishap.sawPeer || mishap.handshakeDone ? ourCertificateIsRefused(options) : notTls(options);
    }
  } else if (isGone(mishap)) {
    return "the broker closed the connection without a word; if it wants TLS on port " +
           std::to_string(options.port) + ", use mqtts://";
  }
  return libraryText(mishap.code, mishap.savedErrno, mishap.said);
}

std::string_view hintOfSilence(const Mishap& mishap, const MqttOptions& options) {
  if (options.tls) {
    return mishap.sawPeer || mishap.handshakeDone ? std::string_view()
                                                  : "; does the broker speak TLS on this port?";
  }
  return "; is it an MQTT broker, and does it not want TLS (mqtts://)?";
}

}  // namespace kel::mqtt
