// SPDX-License-Identifier: Apache-2.0
// Tells the thread pool that the calling thread is about to wait.
#include "platform/linux/runtime/BlockedScope.h"

#include "platform/linux/runtime/Pool.h"

namespace kelvane::runtime {

BlockedScope::BlockedScope() : worker_(Pool::currentWorker()) {
  if (worker_ && worker_->blockedScopes++ == 0)
    Pool::shared().block(*worker_);
}

BlockedScope::~BlockedScope() {
  if (worker_ && --worker_->blockedScopes == 0)
    Pool::shared().unblock(*worker_);
}

}  // namespace kelvane::runtime
