// SPDX-License-Identifier: Apache-2.0
// The date without the jumps of a clock that is set.
#pragma once

#include <cstdint>
#include <mutex>

namespace kelvane::directoryCache {

/// Follows the clock, but never faster than time passes, so that a clock that jumps ahead makes nothing old. A clock
/// that is set back is followed at once. Any thread may call it.
class SteadyDate {
 public:
  /// Both in seconds: since 1970 by the clock, and since the system began, with the time it slept.
  SteadyDate(std::int64_t clock, std::int64_t sinceBoot) : date_(clock), sinceBoot_(sinceBoot) {}

  /// Seconds since 1970, given what both say now.
  std::int64_t at(std::int64_t clock, std::int64_t sinceBoot);

  /// What the system says.
  static std::int64_t secondsSinceBoot();

 private:
  std::mutex mutex_;
  std::int64_t date_;
  std::int64_t sinceBoot_;
};

}  // namespace kelvane::directoryCache
