// SPDX-License-Identifier: Apache-2.0
// What the main thread does once everything is set up: nothing, but for what signals ask for.
#include <malloc.h>

#include "platform/Queues.h"
#include "platform/linux/ipc/Readiness.h"
#include "platform/linux/system/Reload.h"

namespace kelvane {

namespace {

// A program that is linked with this file is a daemon. Its memory is to go back to the system after a load, but the
// allocator gives back only the top of its first arena, and what is in flight between threads keeps the others from
// becoming empty. One arena costs no time that could be measured. It must be said before there are threads.
[[maybe_unused]] const int haveOneArena = mallopt(M_ARENA_MAX, 1);

}  // namespace

void enterMainLoop() {
  announceReadiness();
  for (;;)
    reload::fulfilNext();
}

}  // namespace kelvane
