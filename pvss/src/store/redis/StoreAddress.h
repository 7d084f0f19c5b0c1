// StoreAddress: what a store address says, taken apart.
//
// redis+unix:///path/redis.sock   redis://host:6379   redis+sentinel://host:26379,host:26379/master
// rediss:// and rediss+sentinel:// are the same over TLS. Options behind '?', joined by '&', %XX decoded:
// user=NAME, passfile=FILE, db=NUMBER; over TLS ca=FILE, cert=FILE, key=FILE; with Sentinel
// sentineluser=NAME, sentinelpassfile=FILE. redis:// and rediss:// also take the database number as their
// path. A secret never stands in the address.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace pvss::redis {

/// Where one server listens: the path of a socket, or a host and a port.
struct ServerPlace {
  std::string path;  ///< empty for a host
  std::string host;
  int port = 0;
  [[nodiscard]] std::string text() const;  ///< for people: path, host:port or [host]:port
  bool operator==(const ServerPlace&) const = default;
};

/// The files of a TLS link, all PEM; an empty name means none.
struct TlsFiles {
  std::string ca;    ///< authorities that may have signed the server's certificate; none: those of the system
  std::string cert;  ///< this side's certificate, with those between it and its authority
  std::string key;   ///< belongs to it
};

struct StoreAddress {
  std::vector<ServerPlace> places;  ///< the one server, or the sentinels in the order to ask
  std::string masterName;           ///< what the sentinels are asked for; empty without Sentinel
  bool tls = false;
  TlsFiles tlsFiles;
  std::string user;
  std::string passFile;
  std::string sentinelUser;
  std::string sentinelPassFile;
  int database = 0;
  std::string text;  ///< for people: the address without its options

  [[nodiscard]] bool bySentinel() const { return !masterName.empty(); }
};

/// Null with the reason in `error` when it is no usable address of a Redis store. Does not block.
std::optional<StoreAddress> parseStoreAddress(std::string_view address, std::string& error);

/// Whether the text can be the name or the number of a host; anything else is never looked up.
bool isHost(std::string_view text);

}  // namespace pvss::redis
