#include "transport/mqtt/Reasons.h"

#include <mosquitto.h>

#include <system_error>

namespace kel::mqtt {

namespace {

std::string numbered(const char* text, int code) {
  return std::string(text) + " (code " + std::to_string(code) + ")";
}

}  // namespace

std::string reasonText(int code) {
  if (code >= 0x80) {
    return numbered(mosquitto_reason_string(code), code);
  }
  std::string text = numbered(mosquitto_connack_string(code), code);
  constexpr std::string_view preamble = "Connection Refused: ";
  if (text.starts_with(preamble)) {
    text.erase(0, preamble.size());
  }
  return text;
}

std::string libraryText(int code, int savedErrno, std::string_view lastError) {
  switch (code) {
    case MOSQ_ERR_ERRNO:
      return std::generic_category().message(savedErrno);
    case MOSQ_ERR_CONN_LOST:
      return "the broker closed the connection";
    case MOSQ_ERR_KEEPALIVE:
      return "the broker did not answer a ping";
    case MOSQ_ERR_TLS:
    case MOSQ_ERR_TLS_HANDSHAKE:
      return "TLS: " + (lastError.empty() ? std::string(mosquitto_strerror(code)) : std::string(lastError));
    default:
      break;
  }
  std::string text = mosquitto_strerror(code);
  if (!lastError.empty()) {
    text.append(" (").append(lastError).append(")");
  }
  return text;
}

}  // namespace kel::mqtt
