// SPDX-License-Identifier: Apache-2.0
// How far the clients of a test have come.
#include "tests/durability/Progress.h"

#include "tests/linux/testing/Eventually.h"

namespace kelvane::test {

void Progress::add() {
  const std::lock_guard lock(mutex_);
  ++count_;
  changed_.notify_all();
}

void Progress::giveUp() {
  const std::lock_guard lock(mutex_);
  isOver_ = true;
  changed_.notify_all();
}

void Progress::restart() {
  const std::lock_guard lock(mutex_);
  count_ = 0;
  isOver_ = false;
}

bool Progress::reaches(int count) {
  std::unique_lock lock(mutex_);
  changed_.wait_for(lock, patience, [&] { return count_ >= count || isOver_; });
  return count_ >= count;
}

}  // namespace kelvane::test
