// What a fuzzer calls when something must hold: it ends the process, and the fuzzer keeps the input.
#pragma once

#include <cstdlib>

namespace fuzz {

inline void require(bool holds) {
  if (!holds) {
    std::abort();
  }
}

}  // namespace fuzz
