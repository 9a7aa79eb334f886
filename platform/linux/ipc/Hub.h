// SPDX-License-Identifier: Apache-2.0
// What all connections of the process share.
#pragma once

#include "platform/linux/ipc/DeliveryGate.h"
#include "platform/linux/ipc/EventLoop.h"
#include "platform/linux/ipc/LibraryInput.h"
#include "platform/linux/ipc/Quota.h"

namespace kelvane::ipc {

/// The event loop and, for its thread alone, the counts against the limits. One per process, never
/// destroyed.
struct Hub {
  static Hub& shared() {
    static Hub& hub = *new Hub;
    return hub;
  }

  EventLoop& loop = EventLoop::shared();
  /// Made at once: the first connection may come when there are no descriptors left.
  LibraryInput& libraryInput = LibraryInput::shared();
  Quota quota;
  DeliveryGate gate;
};

}  // namespace kelvane::ipc
