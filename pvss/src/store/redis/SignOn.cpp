#include "store/redis/SignOn.h"

#include "store/redis/Resp.h"
#include "store/redis/SecretFile.h"

namespace pvss::redis {

bool appendAuth(std::string& out, const std::string& user, const std::string& passFile, std::string& error) {
  std::string secret;
  if (!passFile.empty()) {
    std::optional<std::string> password = readPasswordFile(passFile, error);
    if (!password) return false;
    secret = std::move(*password);
  }
  RespWriter command(out);
  command.header(user.empty() ? 2 : 3);
  command.text("AUTH");
  if (!user.empty()) command.text(user);
  command.text(secret);
  return true;
}

bool speaksTls(char first) {
  // An alert, or a handshake.
  return first == '\x15' || first == '\x16';
}

}  // namespace pvss::redis
