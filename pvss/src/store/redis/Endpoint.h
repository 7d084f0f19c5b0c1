// Endpoint: from a server's place to sockets' addresses, without ever blocking the caller.
//
// Purpose    Socket paths and numeric hosts are known at once; names are looked up by a thread that lives as
//            long as the look-up takes.
// Ownership  The caller owns the look-up; dropping it early is allowed, its thread ends by itself.
// Thread     One; the look-up's own thread shares nothing but its result.
#pragma once

#include <sys/socket.h>

#include <memory>
#include <string>
#include <vector>

#include "store/redis/StoreAddress.h"

namespace pvss::redis {

struct Endpoint {
  sockaddr_storage address{};
  socklen_t size = 0;
};

/// How names become addresses: `flags` as for getaddrinfo, whose code is given back, 0 for success. A test
/// puts another one in its place, before the first look-up.
using ResolveHost = int (*)(const std::string& host, int port, int flags, std::vector<Endpoint>& out);
ResolveHost& resolveHost() noexcept;

class EndpointLookup {
 public:
  explicit EndpointLookup(const ServerPlace& place);
  ~EndpointLookup();
  EndpointLookup(const EndpointLookup&) = delete;
  EndpointLookup& operator=(const EndpointLookup&) = delete;

  [[nodiscard]] bool done() const;
  /// Readable once the look-up is done; -1 when it was done at once.
  [[nodiscard]] int descriptor() const;
  /// What was found, in the order to try; empty with the reason in error(). Only once done.
  [[nodiscard]] const std::vector<Endpoint>& endpoints() const;
  [[nodiscard]] const std::string& error() const;

 private:
  struct Shared;
  std::shared_ptr<Shared> shared_;
};

}  // namespace pvss::redis
