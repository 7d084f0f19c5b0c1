// ByteStream: bytes to and from a server, whatever carries them.
//
// Purpose    The one thing that knows whether a link is encrypted. Never blocks.
// Ownership  A stream owns its descriptor and closes it.
// Thread     One.
// Errors     A stream that failed or was closed stays so; failure() says why it failed.
#pragma once

#include <poll.h>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

namespace pvss::redis {

struct StreamResult {
  enum class Status : std::uint8_t { moved, wait, closed, failed };
  Status status = Status::wait;
  std::size_t bytes = 0;
  bool drained = false;   ///< after a read: nothing more is there now
  bool peerGone = false;  ///< after a failed write: what the server said last may still be there to be read
};

class ByteStream {
 public:
  virtual ~ByteStream() = default;
  /// What must happen before the first byte; called again at each of readEvents() until it is done (`moved`).
  virtual StreamResult open() { return {StreamResult::Status::moved}; }
  virtual StreamResult read(char* into, std::size_t room) = 0;
  /// After `wait` the next call must begin with the same bytes; they may have moved.
  virtual StreamResult write(const char* bytes, std::size_t size) = 0;
  [[nodiscard]] virtual int descriptor() const = 0;
  /// What to poll the descriptor for before the next read or open, and before the next write.
  [[nodiscard]] virtual short readEvents() const { return POLLIN; }
  [[nodiscard]] virtual short writeEvents() const { return POLLOUT; }
  /// Bytes were taken from the socket that no poll will announce: read on.
  [[nodiscard]] virtual bool holdsMore() const { return false; }
  /// Why the last call failed, and what to do about it where that is known.
  [[nodiscard]] virtual std::string failure() const = 0;
};

/// A stream over a connected, non-blocking socket, without encryption.
std::unique_ptr<ByteStream> makePlainStream(int socket);

}  // namespace pvss::redis
