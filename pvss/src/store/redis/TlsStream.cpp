#include "store/redis/TlsStream.h"

#include <arpa/inet.h>
#include <openssl/bio.h>
#include <openssl/err.h>
#include <openssl/ssl.h>
#include <openssl/x509v3.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <system_error>

#include "store/redis/TlsContext.h"
#include "store/redis/TlsReason.h"

namespace pvss::redis {
namespace {

using Status = StreamResult::Status;

// ---- The socket as the library sees it: as its own, but never a SIGPIPE.

struct Wire {
  int socket = -1;
  int error = 0;
  bool ended = false;
};

bool again(int error) {
  return error == EAGAIN || error == EWOULDBLOCK || error == EINTR;
}

int wireWrite(BIO* bio, const char* bytes, int size) {
  auto* wire = static_cast<Wire*>(BIO_get_data(bio));
  BIO_clear_retry_flags(bio);
  const ssize_t sent = ::send(wire->socket, bytes, static_cast<std::size_t>(size), MSG_NOSIGNAL);
  if (sent < 0 && again(errno)) {
    BIO_set_retry_write(bio);
  } else if (sent < 0) {
    wire->error = errno;
  }
  return static_cast<int>(sent);
}

int wireRead(BIO* bio, char* into, int room) {
  auto* wire = static_cast<Wire*>(BIO_get_data(bio));
  BIO_clear_retry_flags(bio);
  const ssize_t got = ::recv(wire->socket, into, static_cast<std::size_t>(room), 0);
  if (got == 0) wire->ended = true;
  if (got < 0 && again(errno)) {
    BIO_set_retry_read(bio);
  } else if (got < 0) {
    wire->error = errno;
  }
  return static_cast<int>(got);
}

long wireControl(BIO* bio, int command, long, void*) {
  if (command == BIO_CTRL_FLUSH) return 1;
  if (command == BIO_CTRL_EOF) return static_cast<Wire*>(BIO_get_data(bio))->ended ? 1 : 0;
  return 0;
}

BIO_METHOD* wireMethod() {
  static BIO_METHOD* const method = [] {
    BIO_METHOD* made = BIO_meth_new(BIO_get_new_index() | BIO_TYPE_SOURCE_SINK, "socket without SIGPIPE");
    BIO_meth_set_write(made, wireWrite);
    BIO_meth_set_read(made, wireRead);
    BIO_meth_set_ctrl(made, wireControl);
    return made;
  }();
  return method;
}

// ---- The stream

class TlsStream final : public ByteStream {
 public:
  TlsStream(int socket, TlsSession session, TlsReason reason)
      : session_(std::move(session)), reason_(std::move(reason)) {
    wire_.socket = socket;
    BIO* bio = BIO_new(wireMethod());
    BIO_set_data(bio, &wire_);
    BIO_set_init(bio, 1);
    SSL_set_bio(session_.get(), bio, bio);
    SSL_set_connect_state(session_.get());
    // Told when the server asks for a certificate and there is none to show.
    SSL_set_app_data(session_.get(), &reason_);
  }
  TlsStream(const TlsStream&) = delete;
  TlsStream& operator=(const TlsStream&) = delete;
  ~TlsStream() override {
    if (usable_) {
      // One try to say good-bye; nobody waits for the answer.
      SSL_shutdown(session_.get());
      ERR_clear_error();
    }
    ::close(wire_.socket);
  }

  StreamResult open() override {
    begin();
    const StreamResult out = result(SSL_do_handshake(session_.get()), 0, readEvents_);
    if (out.status == Status::moved) usable_ = true;
    if (out.status == Status::closed) failure_ = "the server closed the connection during the TLS handshake";
    return out.status == Status::closed ? StreamResult{Status::failed} : out;
  }

  StreamResult read(char* into, std::size_t room) override {
    begin();
    std::size_t got = 0;
    readEvents_ = POLLIN;
    const int code = SSL_read_ex(session_.get(), into, room, &got);
    return result(code, got, readEvents_);
  }

  StreamResult write(const char* bytes, std::size_t size) override {
    begin();
    std::size_t sent = 0;
    writeEvents_ = POLLOUT;
    const int code = SSL_write_ex(session_.get(), bytes, size, &sent);
    return result(code, sent, writeEvents_);
  }

  [[nodiscard]] int descriptor() const override { return wire_.socket; }
  [[nodiscard]] short readEvents() const override { return readEvents_; }
  [[nodiscard]] short writeEvents() const override { return writeEvents_; }
  [[nodiscard]] bool holdsMore() const override { return SSL_pending(session_.get()) > 0; }
  [[nodiscard]] std::string failure() const override { return failure_; }

 private:
  void begin() {
    ERR_clear_error();
    wire_.error = 0;
  }

  /// Reading may have to wait for room to write and writing for something to read: `events` says which.
  StreamResult result(int code, std::size_t bytes, short& events) {
    if (code == 1) return {Status::moved, bytes};
    switch (SSL_get_error(session_.get(), code)) {
      case SSL_ERROR_WANT_READ:
        events = POLLIN;
        return {Status::wait};
      case SSL_ERROR_WANT_WRITE:
        events = POLLOUT;
        return {Status::wait};
      case SSL_ERROR_ZERO_RETURN:
        return {Status::closed};
      case SSL_ERROR_SYSCALL: {
        usable_ = false;
        if (wire_.error == 0) return {Status::closed};
        failure_ = std::generic_category().message(wire_.error);
        return {Status::failed, 0, false, wire_.error == EPIPE || wire_.error == ECONNRESET};
      }
      default:
        usable_ = false;
        const unsigned long first = ERR_peek_error();
        if (ERR_GET_LIB(first) == ERR_LIB_SSL && ERR_GET_REASON(first) == SSL_R_UNEXPECTED_EOF_WHILE_READING)
          return {Status::closed};
        failure_ = reason_.of(session_.get(), first);
        return {Status::failed};
    }
  }

  Wire wire_;
  TlsSession session_;
  TlsReason reason_;
  short readEvents_ = POLLIN;
  short writeEvents_ = POLLOUT;
  bool usable_ = false;  // opened, and nothing has gone wrong since
  std::string failure_;
};

/// Whom the certificate must be made for, and what the server is told it was called.
bool expect(SSL* session, const std::string& host) {
  std::array<unsigned char, sizeof(in6_addr)> ignored{};
  const bool number = ::inet_pton(AF_INET, host.c_str(), ignored.data()) == 1 ||
                      ::inet_pton(AF_INET6, host.c_str(), ignored.data()) == 1;
  if (number) return X509_VERIFY_PARAM_set1_ip_asc(SSL_get0_param(session), host.c_str()) == 1;
  SSL_set_hostflags(session, X509_CHECK_FLAG_NO_PARTIAL_WILDCARDS);
  return SSL_set1_host(session, host.c_str()) == 1 && SSL_set_tlsext_host_name(session, host.c_str()) == 1;
}

}  // namespace

std::unique_ptr<ByteStream> makeTlsStream(int socket, const TlsFiles& files, const std::string& host,
                                          std::string& error) {
  TlsSession session = makeTlsSession(files, error);
  if (session && !expect(session.get(), host)) {
    session.reset();
    error = "no certificate can be made for the host " + host;
  }
  ERR_clear_error();
  if (!session) {
    ::close(socket);
    return nullptr;
  }
  return std::make_unique<TlsStream>(socket, std::move(session), TlsReason(files, host));
}

}  // namespace pvss::redis
