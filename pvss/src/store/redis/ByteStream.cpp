#include "store/redis/ByteStream.h"

#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <system_error>

namespace pvss::redis {
namespace {

class PlainStream final : public ByteStream {
 public:
  explicit PlainStream(int socket) : socket_(socket) {}
  PlainStream(const PlainStream&) = delete;
  PlainStream& operator=(const PlainStream&) = delete;
  ~PlainStream() override { ::close(socket_); }

  StreamResult read(char* into, std::size_t room) override {
    const ssize_t got = ::recv(socket_, into, room, 0);
    if (got == 0) return {StreamResult::Status::closed};
    StreamResult out = result(got);
    out.drained = out.bytes < room;
    return out;
  }
  StreamResult write(const char* bytes, std::size_t size) override {
    return result(::send(socket_, bytes, size, MSG_NOSIGNAL));
  }
  [[nodiscard]] int descriptor() const override { return socket_; }
  [[nodiscard]] std::string failure() const override { return std::generic_category().message(error_); }

 private:
  StreamResult result(ssize_t moved) {
    if (moved >= 0) return {StreamResult::Status::moved, static_cast<std::size_t>(moved)};
    if (errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR) return {StreamResult::Status::wait};
    error_ = errno;
    return {StreamResult::Status::failed, 0, false, error_ == EPIPE || error_ == ECONNRESET};
  }
  int socket_;
  int error_ = 0;
};

}  // namespace

std::unique_ptr<ByteStream> makePlainStream(int socket) {
  return std::make_unique<PlainStream>(socket);
}

}  // namespace pvss::redis
