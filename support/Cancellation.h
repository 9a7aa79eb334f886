// SPDX-License-Identifier: Apache-2.0
// Asking work that is under way to end early.
#pragma once

#include <atomic>
#include <memory>

namespace kelvane {

/// Tells work that is under way whether somebody still wants it. A copy refers to the same cancellation; it
/// is never undone. Any thread may call any function.
class Cancellation {
 public:
  bool isCancelled() const { return cancelled_->load(std::memory_order_relaxed); }
  void cancel() const { cancelled_->store(true, std::memory_order_relaxed); }

  friend bool operator==(const Cancellation&, const Cancellation&) = default;

 private:
  std::shared_ptr<std::atomic<bool>> cancelled_ = std::make_shared<std::atomic<bool>>(false);
};

}  // namespace kelvane
