// Whether bytes are UTF-8 as the Unicode standard has it: shortest forms only, no surrogates, up to U+10FFFF.
#pragma once

#include <string_view>

namespace kel {

[[nodiscard]] bool isUtf8(std::string_view bytes);

}  // namespace kel
