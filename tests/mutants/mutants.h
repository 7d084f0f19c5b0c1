// mutants.h: which of the small changes is on. Part of the changed copy of the sources only; see check.py.
#pragma once

#include <optional>
#include <type_traits>

namespace mutants {

/// Notes that the mutant was reached; whether it is the one that the environment names.
bool isOn(int number) noexcept;

/// Not inline: what the compiler could decide, and nobody ever runs, leaves no symbol behind.
template <int number>
[[gnu::noinline]] bool onAtRunTime() noexcept {
  return isOn(number);
}

template <int number>
constexpr bool on() noexcept {
  if (std::is_constant_evaluated()) {
    return false;
  }
  return onAtRunTime<number>();
}

/// A guard that may be left out.
template <typename Guard>
class Maybe {
 public:
  template <typename Lock>
  Maybe(bool wanted, Lock& lock) {
    if (wanted) {
      guard_.emplace(lock);
    }
  }

 private:
  std::optional<Guard> guard_;
};

}  // namespace mutants
