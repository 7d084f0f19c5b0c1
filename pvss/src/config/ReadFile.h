// ReadFile: a whole file as a text.
#pragma once

#include <string>

namespace pvss {

/// 0, or the errno of what went wrong. Blocks as long as the file system does.
[[nodiscard]] int readFile(const std::string& path, std::string& text);

}  // namespace pvss
