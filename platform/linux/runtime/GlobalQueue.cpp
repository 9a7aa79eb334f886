// SPDX-License-Identifier: Apache-2.0
// The global concurrent queue: the pool itself.
#include <utility>

#include "platform/Queues.h"
#include "platform/linux/runtime/Pool.h"

namespace kelvane::globalQueue {

void async(Block item) {
  runtime::Pool::shared().submit(std::move(item));
}

// An item of the global queue may start at any time beside any other, so it may just as well start here.
void sync(const Block& item) {
  item();
}

}  // namespace kelvane::globalQueue
