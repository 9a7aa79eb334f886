// SPDX-License-Identifier: Apache-2.0
// The simulated clock's script.
#pragma once

#include <optional>

#include "platform/Clock.h"

namespace kelvane::simulated {

/// What the clock shows. Ticks follow virtual time; the date too, from where it was last set.
class Clock {
 public:
  /// One nanosecond a tick unless set; none makes the clock unreadable (ticks then count nanoseconds).
  void setTimebase(std::optional<clock::Timebase> timebase) { timebase_ = timebase; }
  std::optional<clock::Timebase> timebase() const { return timebase_; }
  std::uint64_t ticks(std::uint64_t nanoseconds) const;

  void setDate(Date date, std::uint64_t nanoseconds);
  Date date(std::uint64_t nanoseconds) const;

 private:
  std::optional<clock::Timebase> timebase_ = clock::Timebase{1, 1};
  double dateAtZero_ = 1'750'000'000;
};

}  // namespace kelvane::simulated
