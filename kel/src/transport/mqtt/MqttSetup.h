// What a connection object of the library is told before it connects: protocol, flow, will, TLS and login.
//
// Thread     That of the connection object.
#pragma once

#include <mosquitto.h>

#include <string>

#include "transport/KelTransport.h"
#include "transport/mqtt/MqttOptions.h"

namespace kel::mqtt {

/// What is wrong, or nothing. `said` is where the connection's log call-back keeps the library's own words;
/// they are added to what is wrong. A will without a topic is none.
[[nodiscard]] std::string setUp(struct mosquitto* handle, const MqttOptions& options,
                                const OutgoingMessage& will, const std::string& said);

}  // namespace kel::mqtt
