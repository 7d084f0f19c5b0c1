// SlowLink: passes bytes between a client and a server at a bounded rate, as a thin line does.
//
// Thread     One of its own. Takes one connection after the other.
#pragma once

#include <arpa/inet.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cstdint>
#include <string>
#include <thread>

namespace kel::testing {

class SlowLink {
 public:
  SlowLink(std::uint16_t to, std::size_t bytesPerSecond)
      : to_(to), portion_(bytesPerSecond / 100), listener_(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
    const int buffer = 16 << 10;  // a line has little room of its own
    ::setsockopt(listener_, SOL_SOCKET, SO_RCVBUF, &buffer, sizeof buffer);
    sockaddr_in address = loopback(0);
    static_cast<void>(::bind(listener_, reinterpret_cast<const sockaddr*>(&address), sizeof address));
    ::listen(listener_, 4);
    socklen_t size = sizeof address;
    ::getsockname(listener_, reinterpret_cast<sockaddr*>(&address), &size);
    port_ = ntohs(address.sin_port);
    thread_ = std::thread([this] { run(); });
  }
  ~SlowLink() {
    stop_ = true;
    thread_.join();
    ::close(listener_);
  }
  SlowLink(const SlowLink&) = delete;
  SlowLink& operator=(const SlowLink&) = delete;

  [[nodiscard]] std::string url(const std::string& options) const {
    return "mqtt://127.0.0.1:" + std::to_string(port_) + "?" + options;
  }

 private:
  static sockaddr_in loopback(std::uint16_t port) {
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = htons(port);
    return address;
  }

  void run() {
    while (!stop_) {
      pollfd waiting = {listener_, POLLIN, 0};
      if (::poll(&waiting, 1, 20) <= 0) continue;
      const int client = ::accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC);
      const int server = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
      const int buffer = 16 << 10;
      ::setsockopt(server, SOL_SOCKET, SO_RCVBUF, &buffer, sizeof buffer);
      const sockaddr_in address = loopback(to_);
      if (::connect(server, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0) {
        while (!stop_ && pass(client, server) && pass(server, client)) ::poll(nullptr, 0, 10);
      }
      ::close(client);
      ::close(server);
    }
  }
  /// False when there is nothing more to come.
  [[nodiscard]] bool pass(int from, int to) const {
    std::array<char, 65536> bytes{};
    const auto got = ::recv(from, bytes.data(), std::min(portion_, bytes.size()), MSG_DONTWAIT);
    if (got == 0) return false;
    return got < 0 || ::send(to, bytes.data(), static_cast<std::size_t>(got), MSG_NOSIGNAL) == got;
  }

  const std::uint16_t to_;
  const std::size_t portion_;  ///< in a hundredth of a second
  const int listener_;
  std::uint16_t port_ = 0;
  std::atomic<bool> stop_{false};
  std::thread thread_;
};

}  // namespace kel::testing
