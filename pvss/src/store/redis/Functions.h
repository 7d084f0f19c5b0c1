// Functions: the text and version of the function library that this program brings.
#pragma once

#include <string_view>

namespace pvss::redis {

/// The whole text, as FUNCTION LOAD takes it.
std::string_view functionsText();
/// The version that the text itself states; the store and the program must have the same.
std::string_view functionsVersion();

}  // namespace pvss::redis
