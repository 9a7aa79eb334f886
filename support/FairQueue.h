// SPDX-License-Identifier: Apache-2.0
// Work of several users that waits for one queue.
#pragma once

#include <cstdint>
#include <deque>
#include <map>
#include <mutex>
#include <optional>

#include "platform/Queues.h"

namespace kelvane {

/// Puts work on a serial queue one piece after the other. Users whose work waits take turns; the work of each keeps its
/// order; and the daemon's own goes before all of theirs. What else is put on the queue is in the midst of it at its
/// own time, so that it waits for two pieces at most. It must outlive the work. Any thread may call any function.
class FairQueue {
 public:
  explicit FairQueue(const SerialQueue& queue) : queue_(queue) {}

  /// Submits work of this user, or of the daemon's own for none, and returns at once.
  void async(std::optional<std::uint32_t> user, Block work);
  /// As async(), and returns when the work has run.
  void sync(std::optional<std::uint32_t> user, const Block& work);

 private:
  void runNext();
  Block takeNext();

  const SerialQueue queue_;
  std::mutex mutex_;
  // Guarded by mutex_:
  std::deque<Block> own_;
  /// Of those who have any.
  std::map<std::uint32_t, std::deque<Block>> users_;
  std::uint32_t lastServed_ = 0;
  /// Whether a piece is on the queue.
  bool isUnderWay_ = false;
};

}  // namespace kelvane
