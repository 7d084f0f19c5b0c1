#include "ScriptedBroker.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <stdexcept>
#include <utility>

namespace kel::testing {

namespace {

int listenOnLoopback(int backlog, std::uint16_t& port) {
  const int descriptor = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in address = {};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t size = sizeof address;
  if (::bind(descriptor, reinterpret_cast<const sockaddr*>(&address), size) != 0 ||
      ::listen(descriptor, backlog) != 0 ||
      ::getsockname(descriptor, reinterpret_cast<sockaddr*>(&address), &size) != 0) {
    throw std::runtime_error("cannot listen on the loopback interface");
  }
  port = ntohs(address.sin_port);
  return descriptor;
}

std::string packet(int header, const std::string& body) {
  std::string text(1, static_cast<char>(header));
  text.push_back(static_cast<char>(body.size()));  // every packet here is shorter than 128 bytes
  return text + body;
}

std::string properties(const std::string& reasonString) {
  if (reasonString.empty()) return std::string(1, '\0');
  std::string list("\x1f\0", 2);
  list.push_back(static_cast<char>(reasonString.size()));
  list += reasonString;
  return std::string(1, static_cast<char>(list.size())) + list;
}

std::size_t headerSize(std::string_view whole) {
  std::size_t at = 1;
  while ((static_cast<unsigned char>(whole[at]) & 0x80U) != 0) ++at;
  return at + 1;
}

}  // namespace

std::string connack(int reason, const std::string& reasonString) {
  return packet(0x20, std::string(1, '\0') + static_cast<char>(reason) + properties(reasonString));
}

std::string suback(std::string_view subscribe, int reason) {
  const auto id = std::string(subscribe.substr(headerSize(subscribe), 2));
  return packet(0x90, id + '\0' + static_cast<char>(reason));
}

std::string puback(std::string_view publish, int reason, const std::string& reasonString) {
  const std::size_t at = headerSize(publish);
  const std::size_t topic = static_cast<std::size_t>(static_cast<unsigned char>(publish[at])) * 256U +
                            static_cast<unsigned char>(publish[at + 1]);
  const auto id = std::string(publish.substr(at + 2 + topic, 2));
  return packet(0x40, id + static_cast<char>(reason) + properties(reasonString));
}

std::string disconnectPacket(int reason) {
  return packet(0xe0, std::string(1, static_cast<char>(reason)) + properties({}));
}

ScriptedBroker::ScriptedBroker(Script script)
    : script_(std::move(script)), listener_(listenOnLoopback(16, port_)), stop_(::eventfd(0, EFD_CLOEXEC)) {
  thread_ = std::thread([this] { run(); });
}

ScriptedBroker::~ScriptedBroker() {
  ::eventfd_write(stop_, 1);
  thread_.join();
  ::close(listener_);
  ::close(stop_);
}

std::string ScriptedBroker::url(const std::string& options) const {
  return "mqtt://127.0.0.1:" + std::to_string(port_) + (options.empty() ? "" : "?" + options);
}

bool ScriptedBroker::wait(int descriptor) const {
  pollfd fds[2] = {{stop_, POLLIN, 0}, {descriptor, POLLIN, 0}};
  return ::poll(fds, 2, -1) > 0 && fds[0].revents == 0;
}

void ScriptedBroker::run() {
  while (wait(listener_)) {
    const int client = ::accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC);
    ++connections_;
    serve(client);
    ::close(client);
  }
}

void ScriptedBroker::serve(int client) {
  std::string buffer;
  while (wait(client)) {
    char chunk[4096];
    const auto got = ::recv(client, chunk, sizeof chunk, 0);
    if (got <= 0) return;
    buffer.append(chunk, static_cast<std::size_t>(got));
    while (buffer.size() >= 2) {
      std::size_t length = 0;
      std::size_t at = 1;
      unsigned shift = 0;
      bool whole = false;
      while (at < buffer.size() && !whole) {
        const auto byte = static_cast<unsigned char>(buffer[at++]);
        length |= static_cast<std::size_t>(byte & 0x7fU) << shift;
        shift += 7;
        whole = (byte & 0x80U) == 0;
      }
      if (!whole || buffer.size() < at + length) break;
      const Answer answer = script_(std::string_view(buffer).substr(0, at + length));
      buffer.erase(0, at + length);
      if (!answer.bytes.empty() && ::send(client, answer.bytes.data(), answer.bytes.size(), MSG_NOSIGNAL) < 0)
        return;
      if (answer.close) return;
    }
  }
}

FullBacklog::FullBacklog(const char* at, std::uint16_t port)
    : listener_(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
  sockaddr_in address = {};
  address.sin_family = AF_INET;
  ::inet_pton(AF_INET, at, &address.sin_addr);
  address.sin_port = htons(port);
  socklen_t size = sizeof address;
  if (::bind(listener_, reinterpret_cast<const sockaddr*>(&address), size) != 0 ||
      ::listen(listener_, 0) != 0 ||
      ::getsockname(listener_, reinterpret_cast<sockaddr*>(&address), &size) != 0) {
    throw std::runtime_error("no listening socket at " + std::string(at));
  }
  port_ = ntohs(address.sin_port);
  for (int& filler : fillers_) {
    filler = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    static_cast<void>(::connect(filler, reinterpret_cast<const sockaddr*>(&address), sizeof address));
  }
}

FullBacklog::~FullBacklog() {
  for (const int filler : fillers_) ::close(filler);
  ::close(listener_);
}

}  // namespace kel::testing
