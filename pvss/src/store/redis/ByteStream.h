// ByteStream: bytes to and from a server, whatever carries them.
//
// Purpose    The place where encryption would come between connection and socket. Never blocks.
// Ownership  A stream owns its descriptor and closes it.
// Thread     One.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>

namespace pvss::redis {

struct StreamResult {
  enum class Status : std::uint8_t { moved, wait, closed, failed };
  Status status = Status::wait;
  std::size_t bytes = 0;
  int error = 0;  ///< errno, when failed
};

class ByteStream {
 public:
  virtual ~ByteStream() = default;
  virtual StreamResult read(char* into, std::size_t room) = 0;
  virtual StreamResult write(const char* bytes, std::size_t size) = 0;
  [[nodiscard]] virtual int descriptor() const = 0;
};

/// A stream over a connected, non-blocking socket, without encryption.
std::unique_ptr<ByteStream> makePlainStream(int socket);

}  // namespace pvss::redis
