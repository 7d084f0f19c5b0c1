#include "store/redis/ServerError.h"

#include <algorithm>
#include <array>

namespace pvss::redis {
namespace {

struct Known {
  std::string_view code;
  ServerErrorKind kind;
};

constexpr std::array known{
    Known{"LOADING", ServerErrorKind::loading},      Known{"READONLY", ServerErrorKind::failover},
    Known{"UNBLOCKED", ServerErrorKind::failover},   Known{"MASTERDOWN", ServerErrorKind::failover},
    Known{"CLUSTERDOWN", ServerErrorKind::failover}, Known{"OOM", ServerErrorKind::trouble},
    Known{"MISCONF", ServerErrorKind::trouble},      Known{"NOREPLICAS", ServerErrorKind::trouble},
    Known{"BUSY", ServerErrorKind::trouble},         Known{"TRYAGAIN", ServerErrorKind::trouble},
    Known{"NOAUTH", ServerErrorKind::denied},        Known{"WRONGPASS", ServerErrorKind::denied},
    Known{"NOPERM", ServerErrorKind::denied},        Known{"FENCED", ServerErrorKind::fenced},
    Known{"ORDER", ServerErrorKind::order},          Known{"REFUSED", ServerErrorKind::refused},
};

}  // namespace

ServerErrorKind kindOfServerError(std::string_view error) {
  const std::string_view code = error.substr(0, error.find(' '));
  const auto* found =
      std::find_if(known.begin(), known.end(), [&](const Known& k) { return k.code == code; });
  if (found != known.end()) return found->kind;
  if (error.starts_with("ERR Function not found")) return ServerErrorKind::functionsMissing;
  if (error.starts_with("ERR unknown command")) return ServerErrorKind::functionsMissing;
  if (error.starts_with("ERR AUTH")) return ServerErrorKind::denied;
  // What a function may not do has no code of its own.
  if (error.starts_with("ERR The user executing the script can't")) return ServerErrorKind::denied;
  if (error.starts_with("ERR max number of clients")) return ServerErrorKind::trouble;
  return ServerErrorKind::unknown;
}

std::string describeServerError(std::string_view error) {
  const std::string words(error);
  switch (kindOfServerError(error)) {
    case ServerErrorKind::loading:
      return "the server is still loading its data";
    case ServerErrorKind::failover:
      return "the server cannot be written now (a replica, or a failover): " + words;
    case ServerErrorKind::trouble:
      return "the server is in trouble: " + words;
    case ServerErrorKind::denied:
      return "user, password or permission: " + words;
    case ServerErrorKind::functionsMissing:
      if (error.starts_with("ERR unknown command"))
        return "the server is too old: Redis 7.0 or newer is needed";
      return "the function library is missing in the store: run kelgw apply";
    case ServerErrorKind::fenced:
      return "the manager number is held by " +
             std::string(error.substr(std::min<std::size_t>(7, error.size())));
    case ServerErrorKind::unknown:
      return "the server answers with an error that is not known here: " + words;
    case ServerErrorKind::order:
    case ServerErrorKind::refused:
      break;
  }
  return words.starts_with("REFUSED ") ? words.substr(8) : words;
}

}  // namespace pvss::redis
