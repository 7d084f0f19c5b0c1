// What kelgw status does besides its own look.
#pragma once

#include "Command.h"

namespace kelgw {

/// kelgw status --ledger: waits at most so long for the books to stand still. Gives the exit code.
int statusLedger(double settleSeconds, Context& context);

}  // namespace kelgw
