// How far the far machine has taken what a socket was given.
#pragma once

#include <cstdint>

namespace kel::mqtt {

struct SocketProgress {
  std::uint64_t acknowledged = 0;  ///< bytes that the far machine has acknowledged since the beginning
  int waiting = 0;                 ///< bytes that it has not
};

/// Zeros for what is no connected TCP socket. Does not block.
[[nodiscard]] SocketProgress socketProgress(int socket);

}  // namespace kel::mqtt
