// Why a link to a broker did not come about or broke, in one sentence that says what to look at. Pure.
#pragma once

#include <string>
#include <string_view>

#include "transport/mqtt/MqttOptions.h"

namespace kel::mqtt {

/// What is known about a link that has just failed.
struct Mishap {
  int code = 0;                ///< MOSQ_ERR_*, what the failed call of the library returned
  int savedErrno = 0;          ///< errno as that call left it
  std::string_view said;       ///< what the library logged as errors since the link was begun
  bool greeted = false;        ///< the broker had accepted us
  bool sawPeer = false;        ///< TLS: the broker has shown a certificate, so it does speak TLS
  bool handshakeDone = false;  ///< TLS: as far as we are concerned
  long verifyResult = 0;       ///< TLS: X509_V_*, what we think of its certificate
};

/// One sentence. The same cause gives the same words, however the operating system came to see it: a refusal
/// can arrive as a message, as an end of file or as a reset.
std::string diagnosis(const Mishap& mishap, const MqttOptions& options);

/// What to look at when a broker never answers at all; begins with "; " or is empty.
std::string_view hintOfSilence(const Mishap& mishap, const MqttOptions& options);

}  // namespace kel::mqtt
