// SecretFile: what must be known to nobody else: passwords and private keys, kept in files of their owner.
#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace pvss::redis {

/// The whole file, for `what` ("password file", "key file"). Refused with the reason in `error`: no regular
/// file, open in any way to group or others, empty, or above 64 KiB. Blocks for one small read.
std::optional<std::string> readSecretFile(const std::string& path, std::string_view what, std::string& error);

/// The first line of such a file, without its end.
std::optional<std::string> readPasswordFile(const std::string& path, std::string& error);

}  // namespace pvss::redis
