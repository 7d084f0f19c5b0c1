#include "Pattern.h"

namespace kelgw {

bool isPattern(std::string_view text) {
  return text.find_first_of("*?") != std::string_view::npos;
}

bool matches(std::string_view pattern, std::string_view name) {
  std::size_t patternAt = 0;
  std::size_t nameAt = 0;
  std::size_t starAt = std::string_view::npos;
  std::size_t retryAt = 0;
  while (nameAt < name.size()) {
    if (patternAt < pattern.size() && pattern[patternAt] == '*') {
      starAt = patternAt++;
      retryAt = nameAt;
    } else if (patternAt < pattern.size() &&
               (pattern[patternAt] == '?' || pattern[patternAt] == name[nameAt])) {
      ++patternAt;
      ++nameAt;
    } else if (starAt != std::string_view::npos) {
      patternAt = starAt + 1;  // let the last star take one character more
      nameAt = ++retryAt;
    } else {
      return false;
    }
  }
  while (patternAt < pattern.size() && pattern[patternAt] == '*') {
    ++patternAt;
  }
  return patternAt == pattern.size();
}

}  // namespace kelgw
