// Secrets of a broker's user, kept in files that only their owner can read.
#pragma once

#include <optional>
#include <string>

namespace kel::mqtt {

/// The first line of the file, without its end. Refused with a reason in `error`: no regular file, readable
/// or writable for group or others, empty, or longer than MQTT carries. Blocks for one small read.
std::optional<std::string> readPasswordFile(const std::string& path, std::string& error);

/// Whether a private key is kept as such a file; the reason in `error` if not. Blocks for a look at it.
bool checkKeyFile(const std::string& path, std::string& error);

}  // namespace kel::mqtt
