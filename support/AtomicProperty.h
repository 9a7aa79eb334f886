// SPDX-License-Identifier: Apache-2.0
// A property that any thread may read and replace as a whole.
#pragma once

#include <mutex>
#include <utility>

namespace kelvane {

/// Holds a value of a type too large for std::atomic. Each function is atomic.
template <typename T>
class AtomicProperty {
 public:
  AtomicProperty() = default;
  explicit AtomicProperty(T value) : value_(std::move(value)) {}

  T load() const {
    const std::scoped_lock lock(mutex_);
    return value_;
  }
  void store(T value) {
    // The old value goes after the lock is released, with the parameter: its destructor may be anybody's code.
    const std::scoped_lock lock(mutex_);
    std::swap(value_, value);
  }
  /// Calls the function with the value to change and gives what it returns; the function calls nothing else.
  auto change(const auto& function) {
    const std::scoped_lock lock(mutex_);
    return function(value_);
  }

 private:
  mutable std::mutex mutex_;
  T value_{};
};

}  // namespace kelvane
