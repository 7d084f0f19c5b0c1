// Any bytes are a value of a type, which then has one text form that reads back as itself, or are refused.
#include <cstdint>
#include <string>
#include <string_view>

#include "Require.h"
#include "store/ValueCodec.h"

using fuzz::require;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string_view text(reinterpret_cast<const char*>(data), size);
  for (int type = 0; type <= 26; ++type) {
    const auto element = static_cast<DpElementType>(type);
    std::string error;
    const pvss::SharedValue value = pvss::parseValueText(element, text, error);
    require((value == nullptr) == !error.empty());
    if (value) {
      require(value->isA() == pvss::variableTypeOf(element));
      const pvss::SharedValue again = pvss::parseValueText(element, pvss::valueText(*value), error);
      require(again && pvss::sameValue(*value, *again));
    }
  }
  return 0;
}
