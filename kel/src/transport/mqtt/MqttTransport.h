// The MQTT 5 transport of the Kel session.
//
// Contract   transport/KelTransport.h. What the address may say: KelUrl.h. A password file is read again
//            for every attempt, so a new password needs no restart; with mqtts:// the broker's certificate
//            is always checked, against `ca` or the system's authorities, and must be made out to the host
//            of the address.
// Stopping   A clean stop first sends what was accepted, for at most one second.
// Thread     One thread of its own owns the connection and all that libmosquitto does; calls from other
//            threads only queue. A host name is looked up in a short-lived second thread.
#pragma once

#include <memory>
#include <string>

#include "transport/KelTransport.h"

namespace kel {

struct KelUrl;

/// A transport to the broker that `url` names, not started yet; nothing, and the reason in `error`, if the
/// address is none for MQTT. Files that it names are read for every attempt.
std::unique_ptr<KelTransport> makeMqttTransport(const KelUrl& url, std::string& error);

}  // namespace kel
