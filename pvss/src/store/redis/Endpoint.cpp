#include "store/redis/Endpoint.h"

#include <netdb.h>
#include <sys/eventfd.h>
#include <sys/un.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <system_error>
#include <thread>

namespace pvss::redis {

// Written by one side before `done` is set, read by the other after it.
struct EndpointLookup::Shared {
  Shared() = default;
  Shared(const Shared&) = delete;
  Shared& operator=(const Shared&) = delete;
  ~Shared() {
    if (event >= 0) ::close(event);
  }
  std::atomic<bool> done{false};
  int event = -1;
  std::vector<Endpoint> endpoints;
  std::string error;
};

namespace {

int lookUp(const std::string& host, int port, int flags, std::vector<Endpoint>& out) {
  addrinfo hints{};
  hints.ai_family = AF_UNSPEC;
  hints.ai_socktype = SOCK_STREAM;
  hints.ai_flags = flags | AI_NUMERICSERV;
  addrinfo* found = nullptr;
  const int code = ::getaddrinfo(host.c_str(), std::to_string(port).c_str(), &hints, &found);
  if (code != 0) return code;
  for (const addrinfo* each = found; each != nullptr; each = each->ai_next) {
    Endpoint endpoint;
    std::memcpy(&endpoint.address, each->ai_addr, each->ai_addrlen);
    endpoint.size = each->ai_addrlen;
    out.push_back(endpoint);
  }
  ::freeaddrinfo(found);
  return 0;
}

}  // namespace

ResolveHost& resolveHost() noexcept {
  static ResolveHost function = &lookUp;
  return function;
}

EndpointLookup::EndpointLookup(const ServerPlace& place) : shared_(std::make_shared<Shared>()) {
  if (!place.path.empty()) {
    sockaddr_un local{};
    local.sun_family = AF_UNIX;
    std::memcpy(local.sun_path, place.path.c_str(), place.path.size() + 1);
    Endpoint endpoint;
    std::memcpy(&endpoint.address, &local, sizeof local);
    endpoint.size = sizeof local;
    shared_->endpoints.push_back(endpoint);
    shared_->done = true;
    return;
  }
  if (resolveHost()(place.host, place.port, AI_NUMERICHOST, shared_->endpoints) == 0) {
    shared_->done = true;
    return;
  }
  shared_->event = ::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
  try {
    std::thread([shared = shared_, resolve = resolveHost(), host = place.host, port = place.port] {
      const int code = resolve(host, port, AI_ADDRCONFIG, shared->endpoints);
      if (code != 0) shared->error = "cannot look up " + host + ": " + ::gai_strerror(code);
      shared->done.store(true, std::memory_order_release);
      const std::uint64_t one = 1;
      // Nobody is harmed when this fails: the caller also looks at `done` at every turn.
      [[maybe_unused]] const ssize_t written = ::write(shared->event, &one, sizeof one);
    }).detach();
  } catch (const std::system_error& failure) {
    shared_->error = std::string("cannot start a thread to look up the host: ") + failure.what();
    shared_->done = true;
  }
}

EndpointLookup::~EndpointLookup() = default;

bool EndpointLookup::done() const {
  return shared_->done.load(std::memory_order_acquire);
}
int EndpointLookup::descriptor() const {
  return shared_->event;
}
const std::vector<Endpoint>& EndpointLookup::endpoints() const {
  return shared_->endpoints;
}
const std::string& EndpointLookup::error() const {
  return shared_->error;
}

}  // namespace pvss::redis
