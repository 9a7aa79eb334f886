// SPDX-License-Identifier: Apache-2.0
// What the main thread does once everything is set up: nothing, but for running signal handlers.
#include <unistd.h>

#include "platform/Queues.h"
#include "platform/linux/system/ServiceManager.h"

namespace kelvane {

void enterMainLoop() {
  serviceManager::notifyReady();
  for (;;)
    pause();
}

}  // namespace kelvane
