// Times as people write and read them; milliseconds or nanoseconds since the epoch inside.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace kelgw {

/// "2026-03-01T12:00:00.250Z", always in UTC; "-" for 0, which means never.
[[nodiscard]] std::string showTimeMs(std::int64_t milliseconds);
/// The same, for nanoseconds, with as many decimals as are needed (3, 6 or 9).
[[nodiscard]] std::string showTimeNs(std::int64_t nanoseconds);
/// "now", milliseconds since the epoch, or "2026-03-01T12:00:00[.250]Z" (a blank instead of the T and a
/// missing Z are understood; it is UTC all the same). Throws DatumError.
[[nodiscard]] std::int64_t parseTimeMs(std::string_view text, std::int64_t nowMs);
[[nodiscard]] std::int64_t nowMs();
/// "12s", "3m 20s", "2h 5m", "4d 1h".
[[nodiscard]] std::string showSpanMs(std::int64_t milliseconds);

}  // namespace kelgw
