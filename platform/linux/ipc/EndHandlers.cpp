// SPDX-License-Identifier: Apache-2.0
// What is to be done at the ends of connections.
#include "platform/linux/ipc/EndHandlers.h"

#include <utility>

namespace kelvane::ipc {

void EndHandlers::run(Block handler) {
  ++underWay_;
  queue_.async([this, handler = std::move(handler)]() mutable {
    handler();
    handler = nullptr;
    --underWay_;
  });
}

void EndHandlers::runAfter(Block item) {
  if (underWay_ == 0) {
    globalQueue::async(std::move(item));
  } else {
    run([item = std::move(item)]() mutable { globalQueue::async(std::move(item)); });
  }
}

}  // namespace kelvane::ipc
