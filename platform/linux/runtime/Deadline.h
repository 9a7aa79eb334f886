// SPDX-License-Identifier: Apache-2.0
// Ends of waits on the monotonic clock.
#pragma once

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <optional>

namespace kelvane::runtime {

/// The moment a wait ends; none waits for ever.
using Deadline = std::optional<std::chrono::steady_clock::time_point>;

/// A time-out that reaches beyond the clock's range never passes; a negative one has passed.
inline Deadline deadlineAfter(std::chrono::nanoseconds timeout) {
  const auto now = std::chrono::steady_clock::now();
  if (timeout > std::chrono::steady_clock::time_point::max() - now)
    return std::nullopt;
  return now + timeout;
}

/// Waits until ready() holds, which it is asked under the lock; false when the deadline passed first.
template <typename Predicate>
bool waitUntil(std::condition_variable& condition, std::unique_lock<std::mutex>& lock, const Deadline& deadline,
               Predicate ready) {
  if (deadline)
    return condition.wait_until(lock, *deadline, ready);
  condition.wait(lock, ready);
  return true;
}

}  // namespace kelvane::runtime
