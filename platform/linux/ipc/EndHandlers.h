// SPDX-License-Identifier: Apache-2.0
// What is to be done at the ends of connections.
#pragma once

#include <atomic>

#include "platform/Queues.h"

namespace kelvane::ipc {

/// Runs the handlers of connections' ends off the event loop's thread, because what they do (writing to the log is
/// enough) may take any time, and no input or output may wait for that. One at a time, in the order of the ends.
///
/// What is to come after an end goes through here too: it waits only while handlers are under way, which is hardly
/// ever. One per process, never destroyed. Any thread may call any function.
class EndHandlers {
 public:
  /// Runs the handler, and lets go of it, after those before it.
  void run(Block handler);
  /// Runs the item on the global queue when all handlers that were given before have run. Items start in their order.
  void runAfter(Block item);

 private:
  const SerialQueue queue_{"com.tessaly.kelvane_ipc_ends"};
  /// What the queue has not done with yet.
  std::atomic<int> underWay_ = 0;
};

}  // namespace kelvane::ipc
