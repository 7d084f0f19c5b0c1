#include "store/redis/Functions.h"

namespace pvss::redis {
namespace {

constexpr std::string_view text =
#include "functions_lua.inc"
    ;

constexpr std::string_view versionIn(std::string_view source) {
  constexpr std::string_view before = "local VERSION = '";
  const std::size_t begin = source.find(before);
  if (begin == std::string_view::npos) return {};
  source.remove_prefix(begin + before.size());
  return source.substr(0, source.find('\''));
}

static_assert(text.starts_with("#!lua name=kelgw\n"));
static_assert(!versionIn(text).empty(), "functions.lua states no version");

}  // namespace

std::string_view functionsText() {
  return text;
}
std::string_view functionsVersion() {
  return versionIn(text);
}

}  // namespace pvss::redis
