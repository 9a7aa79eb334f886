// SPDX-License-Identifier: Apache-2.0
// Work that follows changes, at most once in a while.
#include "platform/linux/runtime/DelayedItem.h"

#include <thread>
#include <utility>

#include "platform/linux/runtime/BlockedScope.h"

namespace kelvane {

DelayedItem::DelayedItem(std::chrono::milliseconds delay, Block item) : state_(std::make_shared<State>()) {
  state_->delay = delay;
  state_->item = std::move(item);
}

void DelayedItem::request() const {
  if (state_->requested.exchange(true)) {
    return;
  }
  globalQueue::async([state = state_] {
    {
      const runtime::BlockedScope blocked;
      std::this_thread::sleep_for(state->delay);
    }
    // Cleared first: a change that the item comes too early to see asks for another run.
    state->requested = false;
    state->item();
  });
}

}  // namespace kelvane
