// Every change of a state that has a life goes through here and leaves one trace line: old, new, cause.
#pragma once

#include <string>
#include <string_view>

#include "Log.h"

namespace kel {

/// `State` is an enum with a function `const char* stateName(State)`. Returns whether anything changed.
template <class State>
bool transition(State& state, State next, std::string_view subject, std::string_view cause) {
  if (state == next) return false;
  if (logs(LogLevel::trace)) {
    log(LogLevel::trace, std::string(subject) + ": " + stateName(state) + " -> " + stateName(next) + " (" +
                             std::string(cause) + ")");
  }
  state = next;
  return true;
}

}  // namespace kel
