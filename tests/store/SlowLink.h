// SlowLink: a link of the loopback that carries no more than so many bytes a second towards the server.
//
// Answers pass at once. What is on its way is bounded, so that the sender feels the link and not a large
// buffer. Its thread ends with it.
#pragma once

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

namespace storetest {

class SlowLink {
 public:
  SlowLink(const std::string& serverPort, std::size_t bytesPerSecond)
      : serverPort_(std::stoi(serverPort)), rate_(bytesPerSecond) {
    listener_ = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const int room = 16384;  // taken over by what is accepted
    ::setsockopt(listener_, SOL_SOCKET, SO_RCVBUF, &room, sizeof room);
    sockaddr_in address = loopback(0);
    socklen_t size = sizeof address;
    if (::bind(listener_, reinterpret_cast<sockaddr*>(&address), size) != 0 || ::listen(listener_, 16) != 0 ||
        ::getsockname(listener_, reinterpret_cast<sockaddr*>(&address), &size) != 0) {
      throw std::runtime_error("no slow link");
    }
    port_ = std::to_string(ntohs(address.sin_port));
    thread_ = std::thread([this] { run(); });
  }
  ~SlowLink() {
    ending_ = true;
    thread_.join();
    ::close(listener_);
  }
  SlowLink(const SlowLink&) = delete;
  SlowLink& operator=(const SlowLink&) = delete;

  [[nodiscard]] const std::string& port() const { return port_; }
  [[nodiscard]] std::size_t connections() const { return connections_; }

 private:
  using Clock = std::chrono::steady_clock;
  struct Pair {
    int client = -1;
    int server = -1;
    Clock::time_point next{};  // before that nothing more goes to the server
  };

  static sockaddr_in loopback(int port) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = htons(static_cast<in_port_t>(port));
    return address;
  }

  void accept() {
    Pair pair;
    pair.client = ::accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC);
    pair.server = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const sockaddr_in address = loopback(serverPort_);
    if (::connect(pair.server, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
      close(pair);
      return;
    }
    ++connections_;
    pairs_.push_back(pair);
  }

  static void close(const Pair& pair) {
    ::close(pair.client);
    ::close(pair.server);
  }

  /// One piece from one side to the other; 0 at the end of the link.
  static std::size_t carry(int from, int to, std::size_t most) {
    std::array<char, 65536> piece;
    const ssize_t got = ::recv(from, piece.data(), std::min(most, piece.size()), 0);
    if (got <= 0 || ::send(to, piece.data(), static_cast<std::size_t>(got), MSG_NOSIGNAL) != got) return 0;
    return static_cast<std::size_t>(got);
  }

  void run() {
    while (!ending_) {
      std::vector<pollfd> waits{{listener_, POLLIN, 0}};
      const Clock::time_point now = Clock::now();
      for (const Pair& pair : pairs_) {
        waits.push_back({now >= pair.next ? pair.client : -1, POLLIN, 0});
        waits.push_back({pair.server, POLLIN, 0});
      }
      ::poll(waits.data(), waits.size(), 5);
      for (std::size_t i = pairs_.size(); i-- > 0;) {
        bool open = true;
        if (waits[1 + 2 * i].revents != 0) {
          const std::size_t bytes = carry(pairs_[i].client, pairs_[i].server, rate_ / 50 + 1);
          pairs_[i].next = Clock::now() + std::chrono::microseconds(bytes * 1000000 / rate_);
          open = bytes > 0;
        }
        if (open && waits[2 + 2 * i].revents != 0)
          open = carry(pairs_[i].server, pairs_[i].client, 65536) > 0;
        if (!open) {
          close(pairs_[i]);
          pairs_.erase(pairs_.begin() + static_cast<std::ptrdiff_t>(i));
        }
      }
      if (waits[0].revents != 0) accept();
    }
    for (const Pair& pair : pairs_) close(pair);
  }

  int serverPort_;
  std::size_t rate_;
  int listener_ = -1;
  std::string port_;
  std::atomic<bool> ending_{false};
  std::atomic<std::size_t> connections_{0};
  std::vector<Pair> pairs_;
  std::thread thread_;
};

}  // namespace storetest
