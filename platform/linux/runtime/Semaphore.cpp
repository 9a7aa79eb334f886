// SPDX-License-Identifier: Apache-2.0
// Counting semaphores.
#include <condition_variable>
#include <mutex>

#include "platform/Queues.h"
#include "platform/linux/runtime/BlockedScope.h"
#include "platform/linux/runtime/Deadline.h"

namespace kelvane {

struct Semaphore::State {
  explicit State(long initialCount) : count(initialCount) {}

  bool take() {
    const std::lock_guard lock(mutex);
    if (count <= 0)
      return false;
    --count;
    return true;
  }

  bool takeUntil(const runtime::Deadline& deadline) {
    const runtime::BlockedScope blocked;
    std::unique_lock lock(mutex);
    if (!runtime::waitUntil(signalled, lock, deadline, [this] { return count > 0; }))
      return false;
    --count;
    return true;
  }

  std::mutex mutex;
  std::condition_variable signalled;
  /// Guarded by mutex.
  long count;
};

Semaphore::Semaphore(long count) : state_(std::make_shared<State>(count)) {}

void Semaphore::signal() const {
  // The waiter may destroy this object as soon as it has the count.
  const std::shared_ptr<State> state = state_;
  {
    const std::lock_guard lock(state->mutex);
    ++state->count;
  }
  state->signalled.notify_one();
}

void Semaphore::wait() const {
  if (!state_->take())
    state_->takeUntil(std::nullopt);
}

bool Semaphore::wait(std::chrono::nanoseconds timeout) const {
  return state_->take() || (timeout.count() > 0 && state_->takeUntil(runtime::deadlineAfter(timeout)));
}

}  // namespace kelvane
