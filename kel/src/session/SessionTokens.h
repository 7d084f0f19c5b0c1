// What the files of the session share: tokens of its own messages, and pauses between them.
#pragma once

#include <chrono>
#include <cstdint>

namespace kel {

inline constexpr std::uint64_t withdrawalToken = ~std::uint64_t{0};
inline constexpr std::uint64_t presenceToken = withdrawalToken - 1;
inline constexpr std::uint64_t probeToken = withdrawalToken - 2;
inline constexpr std::uint64_t ledgerToken = withdrawalToken - 3;

inline constexpr std::chrono::milliseconds presencePause{50};  // answers to many probes become one
inline constexpr std::chrono::milliseconds probePause{100};
inline constexpr std::chrono::milliseconds ledgerPause{200};  // between two answers, however many ask

}  // namespace kel
