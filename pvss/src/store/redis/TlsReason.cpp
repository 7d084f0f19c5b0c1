#include "store/redis/TlsReason.h"

#include <openssl/err.h>
#include <openssl/x509.h>

namespace pvss::redis {
std::string libraryText(unsigned long error) {
  const char* text = ERR_reason_error_string(error);
  return text != nullptr ? text : "error " + std::to_string(error);
}

std::string TlsReason::ofVerification(const SSL* session) const {
  const long result = SSL_get_verify_result(session);
  switch (result) {
    case X509_V_ERR_UNABLE_TO_GET_ISSUER_CERT:
    case X509_V_ERR_UNABLE_TO_GET_ISSUER_CERT_LOCALLY:
    case X509_V_ERR_UNABLE_TO_VERIFY_LEAF_SIGNATURE:
    case X509_V_ERR_DEPTH_ZERO_SELF_SIGNED_CERT:
    case X509_V_ERR_SELF_SIGNED_CERT_IN_CHAIN:
      return files_.ca.empty()
                 ? "the server's certificate is signed by an authority that this system does not "
                   "know: name the authority's file with ca=FILE"
                 : "the server's certificate is not signed by an authority in " + files_.ca +
                       ": name the right file with ca=FILE, or give the server another certificate";
    case X509_V_ERR_HOSTNAME_MISMATCH:
    case X509_V_ERR_IP_ADDRESS_MISMATCH:
      return "the server's certificate is not made for " + host_ +
             ": use the name it is made for, or give the server one for this name";
    case X509_V_ERR_CERT_HAS_EXPIRED:
      return "the server's certificate, or that of its authority, has expired: renew it, or set this "
             "machine's clock";
    case X509_V_ERR_CERT_NOT_YET_VALID:
      return "the server's certificate, or that of its authority, is not valid yet: set the clocks right";
    default:
      return std::string("the server's certificate is not accepted: ") +
             X509_verify_cert_error_string(result) + ": give the server another";
  }
}

std::string TlsReason::ofAlert(int alert) const {
  const std::string words = SSL_alert_desc_string_long(alert);
  if (files_.cert.empty() && (certificateWanted_ || alert == SSL_AD_CERTIFICATE_REQUIRED)) {
    return "the server wants a certificate of this side: name one with cert=FILE&key=FILE";
  }
  switch (alert) {
    case SSL_AD_HANDSHAKE_FAILURE:
    case SSL_AD_BAD_CERTIFICATE:
    case SSL_AD_UNSUPPORTED_CERTIFICATE:
    case SSL_AD_CERTIFICATE_REVOKED:
    case SSL_AD_CERTIFICATE_EXPIRED:
    case SSL_AD_CERTIFICATE_UNKNOWN:
    case SSL_AD_UNKNOWN_CA:
    case SSL_AD_ACCESS_DENIED:
    case SSL_AD_DECRYPT_ERROR:
    case SSL_AD_CERTIFICATE_REQUIRED:
      if (files_.cert.empty()) break;
      return "the server does not accept the certificate in " + files_.cert + " (" + words +
             "): take one that its authority signed, with cert=FILE&key=FILE";
    case SSL_AD_PROTOCOL_VERSION:
      return "the server speaks no TLS that this side does: 1.2 or newer is needed";
    default:
      break;
  }
  return "the server ended the TLS handshake: " + words;
}

std::string TlsReason::of(const SSL* session, unsigned long error) const {
  if (ERR_GET_LIB(error) != ERR_LIB_SSL) return "TLS: " + libraryText(error);
  const int reason = ERR_GET_REASON(error);
  switch (reason) {
    case SSL_R_CERTIFICATE_VERIFY_FAILED:
      return ofVerification(session);
    case SSL_R_WRONG_VERSION_NUMBER:
    case SSL_R_HTTP_REQUEST:
    case SSL_R_PACKET_LENGTH_TOO_LONG:
      return "the server does not speak TLS on this port: name its TLS port, or use redis:// for plain text";
    case SSL_R_UNSUPPORTED_PROTOCOL:
      return "the server speaks no TLS that this side does: 1.2 or newer is needed";
    default:
      break;
  }
  if (reason > SSL_AD_REASON_OFFSET && reason <= SSL_AD_REASON_OFFSET + 255)
    return ofAlert(reason - SSL_AD_REASON_OFFSET);
  return "TLS: " + libraryText(error);
}

}  // namespace pvss::redis
