// The loopback transport: a link to a broker inside this process.
#pragma once

#include <memory>

#include "KelUrl.h"
#include "transport/KelTransport.h"

namespace kel {

/// A transport to the broker that the address names, not started yet.
std::unique_ptr<KelTransport> makeLoopbackTransport(const KelUrl& url);

}  // namespace kel
