#include "transport/mqtt/Resolver.h"

#include <netdb.h>
#include <pthread.h>
#include <sys/socket.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <new>
#include <system_error>
#include <thread>
#include <utility>

#include "transport/mqtt/Shortage.h"
#include "transport/mqtt/Wake.h"

namespace kel::mqtt {

namespace {

Resolution lookUp(const std::string& host, std::uint16_t port, int flags) {
  addrinfo hints = {};
  hints.ai_family = AF_UNSPEC;
  hints.ai_socktype = SOCK_STREAM;
  hints.ai_flags = flags;
  addrinfo* list = nullptr;
  Resolution result;
  const int code = ::getaddrinfo(host.c_str(), std::to_string(port).c_str(), &hints, &list);
  if (code != 0) {
    const std::string why =
        code == EAI_SYSTEM ? std::generic_category().message(errno) : ::gai_strerror(code);
    result.failure = "host name " + host + ": " + why;
    return result;
  }
  for (const addrinfo* entry = list; entry != nullptr; entry = entry->ai_next) {
    char text[NI_MAXHOST];
    if (::getnameinfo(entry->ai_addr, entry->ai_addrlen, text, sizeof text, nullptr, 0, NI_NUMERICHOST) !=
        0) {
      continue;
    }
    const bool known = std::any_of(result.addresses.begin(), result.addresses.end(),
                                   [&](const Address& address) { return address.numeric == text; });
    if (!known) {
      result.addresses.push_back({text, entry->ai_family == AF_INET6});
    }
  }
  ::freeaddrinfo(list);
  if (result.addresses.empty()) {
    result.failure = "host name " + host + " has no address";
  }
  return result;
}

Resolution systemLookUp(const std::string& host, std::uint16_t port) {
  return lookUp(host, port, 0);
}

}  // namespace

struct Resolver::Lookup {
  Wake wake;
  std::atomic<bool> done{false};  // publishes `result`
  Resolution result;
};

Resolver::Resolver(LookUp way) : lookUp_(way ? std::move(way) : LookUp(systemLookUp)) {}

void Resolver::begin(const std::string& host, std::uint16_t port) {
  if (lookup_) {
    return;
  }
  try {
    Resolution numeric = lookUp(host, port, AI_NUMERICHOST);
    if (!numeric.addresses.empty()) {
      ready_ = std::move(numeric);
      return;
    }
    auto lookup = std::make_shared<Lookup>();
    std::thread([lookup, host, port, way = lookUp_] {
      sigset_t all;
      ::sigfillset(&all);
      ::pthread_sigmask(SIG_BLOCK, &all, nullptr);
      try {
        lookup->result = way(host, port);
      } catch (...) {
        lookup->result.failure = shortage();
      }
      lookup->done.store(true, std::memory_order_release);
      lookup->wake.notify();
    }).detach();
    lookup_ = std::move(lookup);
  } catch (const std::system_error& error) {
    ready_ = Resolution{{}, "host name " + host + ": " + error.what()};
  } catch (const std::bad_alloc&) {
    ready_ = Resolution{{}, shortage()};
  }
}

int Resolver::descriptor() const {
  return lookup_ ? lookup_->wake.descriptor() : -1;
}

std::optional<Resolution> Resolver::take() {
  if (lookup_ && lookup_->done.load(std::memory_order_acquire)) {
    ready_ = std::move(lookup_->result);
    lookup_.reset();
  }
  return std::exchange(ready_, std::nullopt);
}

}  // namespace kel::mqtt
