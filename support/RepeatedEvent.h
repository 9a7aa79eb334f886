// SPDX-License-Identifier: Apache-2.0
// Events that peers can repeat at will, for the log.
#pragma once

#include <chrono>
#include <cstdint>
#include <mutex>
#include <utility>

#include "support/Timebase.h"

namespace kelvane {

/// Thins out an event's lines: the first is due at once, and then one each interval at most, which tells how many
/// events there were. What comes after the last line is told with the next. Any thread may call it.
class RepeatedEvent {
 public:
  explicit RepeatedEvent(std::chrono::nanoseconds interval) : interval_(interval) {}

  /// Counts one more. How many a line has to tell of now, this one included; 0 when none is due.
  std::uint64_t happened() {
    const std::scoped_lock lock(mutex_);
    ++untold_;
    if (wasTold_ && nanosecondsSince(told_) < static_cast<double>(interval_.count())) {
      return 0;
    }
    wasTold_ = true;
    told_ = clock::ticks();
    return std::exchange(untold_, 0);
  }

 private:
  const std::chrono::nanoseconds interval_;
  std::mutex mutex_;
  // Guarded by mutex_:
  std::uint64_t untold_ = 0;
  bool wasTold_ = false;
  std::uint64_t told_ = 0;
};

}  // namespace kelvane
