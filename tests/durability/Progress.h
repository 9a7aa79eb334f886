// SPDX-License-Identifier: Apache-2.0
// How far the clients of a test have come.
#pragma once

#include <condition_variable>
#include <mutex>

namespace kelvane::test {

/// Counts what has been acknowledged to all of them. Any thread may call any function.
class Progress {
 public:
  void add();
  /// There will be no more.
  void giveUp();
  void restart();
  /// Waits until so many have been acknowledged; false when they will not be.
  [[nodiscard]] bool reaches(int count);

 private:
  std::mutex mutex_;
  std::condition_variable changed_;
  int count_ = 0;
  bool isOver_ = false;
};

}  // namespace kelvane::test
