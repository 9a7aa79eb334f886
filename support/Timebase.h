// SPDX-License-Identifier: Apache-2.0
// Durations on the tick clock.
#pragma once

#include <atomic>
#include <cstdint>

#include "platform/Clock.h"

namespace kelvane {

/// Nanoseconds per tick. 0 until start-up has set it, and for good if the tick clock has no timebase: every
/// duration then reads as zero.
inline std::atomic<double> gTimebaseConversion = 0.0;

inline constexpr double nanosecondsPerSecond = 1e9;

/// Nanoseconds since an earlier reading of the tick clock.
inline double nanosecondsSince(std::uint64_t startTicks) {
  return static_cast<double>(clock::ticks() - startTicks) * gTimebaseConversion;
}

}  // namespace kelvane
