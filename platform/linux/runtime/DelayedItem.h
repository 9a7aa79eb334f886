// SPDX-License-Identifier: Apache-2.0
// Work that follows changes, at most once in a while.
#pragma once

#include <atomic>
#include <chrono>
#include <memory>

#include "platform/Queues.h"

namespace kelvane {

/// Runs an item on the global queue some time after it was asked to, once for all requests in between.
/// Without a request it costs nothing, no wake-up either. Any thread may request. An item whose owner
/// destroyed this may still run once; it must hold on to what it uses.
class DelayedItem {
 public:
  DelayedItem(std::chrono::milliseconds delay, Block item);

  void request() const;

 private:
  struct State {
    std::chrono::milliseconds delay;
    Block item;
    std::atomic<bool> requested = false;
  };
  std::shared_ptr<State> state_;
};

}  // namespace kelvane
