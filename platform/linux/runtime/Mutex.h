// SPDX-License-Identifier: Apache-2.0
// Mutexes that clang's thread-safety analysis follows.
#pragma once

#include <chrono>
#include <condition_variable>
#include <mutex>

#include "platform/ThreadSafety.h"

namespace kelvane::runtime {

/// What it guards says so (KELVANE_GUARDED_BY).
class KELVANE_CAPABILITY("mutex") Mutex {
 public:
  Mutex() = default;
  Mutex(const Mutex&) = delete;
  Mutex& operator=(const Mutex&) = delete;

  void lock() KELVANE_ACQUIRE() { mutex_.lock(); }
  void unlock() KELVANE_RELEASE() { mutex_.unlock(); }

 private:
  friend class Lock;
  std::mutex mutex_;
};

/// Holds a mutex while it lives, but for what lies between unlock() and lock().
class KELVANE_SCOPED_CAPABILITY Lock {
 public:
  explicit Lock(Mutex& mutex) KELVANE_ACQUIRE(mutex) : lock_(mutex.mutex_) {}
  ~Lock() KELVANE_RELEASE() {}
  Lock(const Lock&) = delete;
  Lock& operator=(const Lock&) = delete;

  void unlock() KELVANE_RELEASE() { lock_.unlock(); }
  void lock() KELVANE_ACQUIRE() { lock_.lock(); }

 private:
  friend class Condition;
  std::unique_lock<std::mutex> lock_;
};

/// Waits under a lock, which is let go of meanwhile. To be used in a loop that looks at what is waited for, as the
/// analysis does not follow a predicate.
class Condition {
 public:
  void wait(Lock& lock) { condition_.wait(lock.lock_); }
  /// False when the deadline passed.
  [[nodiscard]] bool waitUntil(Lock& lock, std::chrono::steady_clock::time_point deadline) {
    return condition_.wait_until(lock.lock_, deadline) == std::cv_status::no_timeout;
  }
  void notifyAll() { condition_.notify_all(); }

 private:
  std::condition_variable condition_;
};

}  // namespace kelvane::runtime
