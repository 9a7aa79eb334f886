// SPDX-License-Identifier: Apache-2.0
// How fast each user may go on.
#include "support/Pace.h"

#include <algorithm>

#include "support/Timebase.h"

namespace kelvane {

std::chrono::nanoseconds Pace::step(std::uint32_t user, std::uint32_t perSecond) {
  // Without a timebase all durations are 0, and so is what anybody waits.
  if (gTimebaseConversion == 0.0) {
    return std::chrono::nanoseconds(0);
  }
  const double now = static_cast<double>(clock::ticks()) * gTimebaseConversion;
  const double interval = nanosecondsPerSecond / perSecond;
  const std::scoped_lock lock(mutex_);
  std::erase_if(next_, [now](const auto& entry) { return entry.second <= now; });
  const double even = next_.try_emplace(user, now).first->second;
  next_[user] = even + interval;
  // The last of a second's steps comes at once, too.
  const double wait = even - now - (nanosecondsPerSecond - interval);
  return std::chrono::nanoseconds(static_cast<std::int64_t>(std::max(wait, 0.0)));
}

}  // namespace kelvane
