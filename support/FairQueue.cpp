// SPDX-License-Identifier: Apache-2.0
// Work of several users that waits for one queue.
#include "support/FairQueue.h"

#include <utility>

namespace kelvane {

void FairQueue::async(std::optional<std::uint32_t> user, Block work) {
  {
    const std::scoped_lock lock(mutex_);
    (user ? users_[*user] : own_).push_back(std::move(work));
    if (std::exchange(isUnderWay_, true)) {
      return;
    }
  }
  queue_.async([this] { runNext(); });
}

void FairQueue::sync(std::optional<std::uint32_t> user, const Block& work) {
  const Group group;
  group.enter();
  async(user, [&work, group] {
    work();
    group.leave();
  });
  group.wait();
}

void FairQueue::runNext() {
  takeNext()();
  {
    const std::scoped_lock lock(mutex_);
    isUnderWay_ = !own_.empty() || !users_.empty();
    if (!isUnderWay_) {
      return;
    }
  }
  queue_.async([this] { runNext(); });
}

Block FairQueue::takeNext() {
  const std::scoped_lock lock(mutex_);
  const auto takeFrom = [](std::deque<Block>& waiting) {
    Block work = std::move(waiting.front());
    waiting.pop_front();
    return work;
  };
  if (!own_.empty()) {
    return takeFrom(own_);
  }
  auto next = users_.upper_bound(lastServed_);
  if (next == users_.end()) {
    next = users_.begin();
  }
  lastServed_ = next->first;
  Block work = takeFrom(next->second);
  if (next->second.empty()) {
    users_.erase(next);
  }
  return work;
}

}  // namespace kelvane
