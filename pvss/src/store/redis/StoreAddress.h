// StoreAddress: what a store address says, taken apart.
//
// redis+unix:///path/redis.sock   redis://host:6379   rediss://host:6379
// Options behind '?', joined by '&', %XX decoded: user=NAME, passfile=FILE, db=NUMBER; redis:// also takes
// the database number as its path. A secret never stands in the address.
#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace pvss::redis {

struct StoreAddress {
  enum class Kind : unsigned char { local, tcp, tls };
  Kind kind = Kind::local;
  std::string path;  ///< of the socket, for local
  std::string host;
  int port = 6379;
  std::string user;
  std::string passFile;
  int database = 0;
  std::string text;  ///< for people: the address without its options
};

/// Null with the reason in `error` when it is no usable address of a Redis store. Does not block.
std::optional<StoreAddress> parseStoreAddress(std::string_view address, std::string& error);

}  // namespace pvss::redis
