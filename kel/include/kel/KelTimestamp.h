// KelTimestamp: a moment of a Kel record.
#pragma once

#include <cstdint>

/// A plain value. Nanoseconds since 1970-01-01 00:00 UTC, negative before.
class KelTimestamp {
 public:
  constexpr KelTimestamp() noexcept = default;
  constexpr explicit KelTimestamp(std::int64_t nanoseconds) noexcept : timeNanoseconds(nanoseconds) {}

  friend constexpr bool operator==(const KelTimestamp&, const KelTimestamp&) noexcept = default;

  std::int64_t timeNanoseconds = 0;
};
