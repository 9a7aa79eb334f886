// SPDX-License-Identifier: Apache-2.0
// Groups: counts of work under way.
#include <condition_variable>
#include <mutex>
#include <utility>

#include "platform/Queues.h"
#include "platform/linux/runtime/BlockedScope.h"
#include "platform/linux/runtime/Deadline.h"
#include "platform/linux/runtime/Thread.h"

namespace kelvane {

struct Group::State {
  bool isEmpty() {
    const std::lock_guard lock(mutex);
    return count == 0;
  }

  bool waitUntilEmpty(const runtime::Deadline& deadline) {
    const runtime::BlockedScope blocked;
    std::unique_lock lock(mutex);
    return runtime::waitUntil(emptied, lock, deadline, [this] { return count == 0; });
  }

  std::mutex mutex;
  std::condition_variable emptied;
  /// Guarded by mutex.
  unsigned long count = 0;
};

namespace {

/// The item as part of the group. What the item holds is let go of before the group is left.
Block memberOf(const Group& group, Block item) {
  group.enter();
  return [group, item = std::move(item)]() mutable {
    item();
    item = nullptr;
    group.leave();
  };
}

}  // namespace

Group::Group() : state_(std::make_shared<State>()) {}

void Group::async(const SerialQueue& queue, Block item) const {
  queue.async(memberOf(*this, std::move(item)));
}

void Group::asyncGlobal(Block item) const {
  globalQueue::async(memberOf(*this, std::move(item)));
}

void Group::enter() const {
  const std::lock_guard lock(state_->mutex);
  ++state_->count;
}

void Group::leave() const {
  // A waiter may destroy this object as soon as the count is 0.
  const std::shared_ptr<State> state = state_;
  {
    const std::lock_guard lock(state->mutex);
    if (state->count == 0)
      runtime::stopProcess("a group was left more often than entered");
    if (--state->count > 0)
      return;
  }
  state->emptied.notify_all();
}

void Group::wait() const {
  if (!state_->isEmpty())
    state_->waitUntilEmpty(std::nullopt);
}

bool Group::wait(std::chrono::nanoseconds timeout) const {
  return state_->isEmpty() || (timeout.count() > 0 && state_->waitUntilEmpty(runtime::deadlineAfter(timeout)));
}

}  // namespace kelvane
