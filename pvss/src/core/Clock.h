// Clock: the steady clock of the manager core, which tests replace.
#pragma once

#include <chrono>

namespace pvss {

using SteadyNow = std::chrono::steady_clock::time_point (*)();

/// The function that gives the time now; std::chrono::steady_clock::now unless replaced.
SteadyNow& steadyNow() noexcept;

}  // namespace pvss
