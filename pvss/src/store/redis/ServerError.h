// ServerError: what an error reply of the server means for the link.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace pvss::redis {

enum class ServerErrorKind : std::uint8_t {
  loading,           ///< the server reads its data yet; wait
  failover,          ///< not (any more) a server that can be written; connect again
  trouble,           ///< the server cannot now (memory, disk, replicas, busy); wait
  denied,            ///< user, password or permission
  functionsMissing,  ///< no such function
  fenced,            ///< another manager holds the number
  order,             ///< an earlier write did not get through
  refused,           ///< this very request will never succeed
  unknown,           ///< none of these
};

ServerErrorKind kindOfServerError(std::string_view error);

/// The error for people: what to do first where there is something to do, then the server's words.
std::string describeServerError(std::string_view error);

}  // namespace pvss::redis
