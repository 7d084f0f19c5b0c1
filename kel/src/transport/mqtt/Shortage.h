// What this process itself has run out of, in words that need no memory to be had.
#pragma once

#include <exception>
#include <new>
#include <string>

namespace kel::mqtt {

/// Inside a catch block: why, or as much of it as there is memory for.
inline std::string shortage() noexcept {
  try {
    try {
      throw;
    } catch (const std::bad_alloc&) {
      return "this process has no memory left";
    } catch (const std::exception& exception) {
      return std::string("this process cannot go on: ") + exception.what();
    } catch (...) {
      return "this process cannot go on";
    }
  } catch (...) {
    return "no memory";  // short enough to lie in the string itself
  }
}

}  // namespace kel::mqtt
