// SPDX-License-Identifier: Apache-2.0
// The monotonic tick clock, the date and short sleeps.
#pragma once

#include <cstdint>
#include <optional>

#include "platform/Value.h"

namespace kelvane::clock {

/// Ticks × numerator ÷ denominator are nanoseconds.
struct Timebase {
  std::uint32_t numerator;
  std::uint32_t denominator;
};

/// The tick clock's ratio; none when the clock cannot be read.
[[nodiscard]] std::optional<Timebase> timebase();
/// Ticks since an arbitrary point; never falls.
std::uint64_t ticks();
/// The current date, from the settable system clock.
Date now();
/// Blocks the calling thread for at least this long, as usleep does.
void sleepMicroseconds(std::uint32_t microseconds);

}  // namespace kelvane::clock
