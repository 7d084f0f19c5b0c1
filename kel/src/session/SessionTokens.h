// What the files of the session share: tokens of its own messages, and pauses between them.
#pragma once

#include <chrono>
#include <cstdint>

namespace kel {

inline constexpr std::uint64_t withdrawalToken = ~std::uint64_t{0};
inline constexpr std::uint64_t presenceToken = withdrawalToken - 1;
inline constexpr std::uint64_t probeToken = withdrawalToken - 2;
inline constexpr std::uint64_t ledgerToken = withdrawalToken - 3;

// Answers to many probes become one; beyond so many at once there is one answer a second.
inline constexpr std::chrono::milliseconds presencePause{50};
inline constexpr std::chrono::milliseconds probePause{100};
inline constexpr std::chrono::milliseconds ledgerPause{200};
inline constexpr std::chrono::milliseconds floodPause{1000};
inline constexpr int answersAtOnce = 5;

}  // namespace kel
