// SPDX-License-Identifier: Apache-2.0
// The date without the jumps of a clock that is set.
#include "services/directory-cache/SteadyDate.h"

#include <algorithm>
#include <ctime>

namespace kelvane::directoryCache {

std::int64_t SteadyDate::at(std::int64_t clock, std::int64_t sinceBoot) {
  const std::lock_guard guard(mutex_);
  // What the seconds are rounded off by must not add up.
  if (clock <= date_ + (sinceBoot - sinceBoot_)) {
    date_ = clock;
    sinceBoot_ = sinceBoot;
    return clock;
  }
  return date_ + (sinceBoot - sinceBoot_);
}

std::int64_t SteadyDate::secondsSinceBoot() {
  timespec time = {};
  return clock_gettime(CLOCK_BOOTTIME, &time) == 0 ? time.tv_sec : 0;
}

}  // namespace kelvane::directoryCache
