// What libmosquitto and a broker answer, in words that help the person who reads them. Pure functions.
#pragma once

#include <string>
#include <string_view>

namespace kel::mqtt {

/// A reason code of MQTT 5 (0x80 and above), or of a CONNACK of MQTT 3 (1 to 5), with its number.
std::string reasonText(int code);

/// A failed call of the library (MOSQ_ERR_*). `savedErrno` is errno as the call left it; `lastError` is the
/// last error that the library logged (what OpenSSL had to say), or empty.
std::string libraryText(int code, int savedErrno, std::string_view lastError);

}  // namespace kel::mqtt
