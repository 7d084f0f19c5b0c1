// Pattern: names with * (any text) and ? (one character), as a shell would have them.
#pragma once

#include <string>
#include <string_view>

namespace kelgw {

[[nodiscard]] bool isPattern(std::string_view text);
/// The whole name must match; linear in practice, never exponential.
[[nodiscard]] bool matches(std::string_view pattern, std::string_view name);

}  // namespace kelgw
