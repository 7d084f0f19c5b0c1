// The password of a broker's user, kept in a file that only its owner can read.
#pragma once

#include <optional>
#include <string>

namespace kel::mqtt {

/// The first line of the file, without its end. Refused with a reason in `error`: no regular file, readable
/// or writable for group or others, empty, or longer than MQTT carries. Blocks for one small read.
std::optional<std::string> readPasswordFile(const std::string& path, std::string& error);

}  // namespace kel::mqtt
