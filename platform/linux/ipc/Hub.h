// SPDX-License-Identifier: Apache-2.0
// What all connections of the process share.
#pragma once

#include "platform/linux/ipc/DeliveryGate.h"
#include "platform/linux/ipc/EndHandlers.h"
#include "platform/linux/ipc/EventLoop.h"
#include "platform/linux/ipc/HeldReplies.h"
#include "platform/linux/ipc/LibraryInput.h"
#include "platform/linux/ipc/Quota.h"
#include "platform/linux/ipc/SharedCalls.h"

namespace kelvane::ipc {

/// The event loop, what every thread may use and, for the loop's thread alone, the rest. One per process, never
/// destroyed. All of it is made at once: the first connection may come when there are no descriptors left.
struct Hub {
  static Hub& shared() {
    static Hub& hub = *new Hub;
    return hub;
  }

  EventLoop& loop = EventLoop::shared();
  EndHandlers endHandlers;
  LibraryInput libraryInput;
  HeldReplies heldReplies;
  Quota quota;
  SharedCalls sharedCalls;
  DeliveryGate gate;
};

}  // namespace kelvane::ipc
