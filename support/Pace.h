// SPDX-License-Identifier: Apache-2.0
// How fast each user may go on.
#pragma once

#include <chrono>
#include <cstdint>
#include <map>
#include <mutex>

namespace kelvane {

/// Tells when each user's next step may be taken, so that none takes more than so many a second for long. Who has taken
/// none for a second may take a second's steps at once. Remembers the users who have to wait, or would have to had they
/// taken a second's steps more. Any thread may call it.
class Pace {
 public:
  /// Takes note of one more step of this user's and gives how long it is to wait. perSecond is at least 1.
  std::chrono::nanoseconds step(std::uint32_t user, std::uint32_t perSecond);

 private:
  std::mutex mutex_;
  /// When the next step of each user would come if they came at even intervals, in nanoseconds of the tick clock.
  /// Guarded by mutex_.
  std::map<std::uint32_t, double> next_;
};

}  // namespace kelvane
