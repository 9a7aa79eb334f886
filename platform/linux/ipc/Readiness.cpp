// SPDX-License-Identifier: Apache-2.0
// Readiness of a process that has set itself up.
#include "platform/linux/ipc/Readiness.h"

#include <optional>
#include <string>

#include "platform/Reporting.h"
#include "platform/linux/ipc/ControlSocket.h"
#include "platform/linux/system/Handlers.h"
#include "platform/linux/system/ServiceManager.h"
#include "platform/linux/volumes/VolumeMonitor.h"

namespace kelvane {

void announceReadiness() {
  if (handlers::any()) {
    if (const std::optional<std::string> error = openControlSocket()) {
      reporting::reportFailure("announceReadiness", "Unable to open the control socket: " + *error);
    }
  }
  serviceManager::notifyReady();
  VolumeMonitor::shared().start();
}

}  // namespace kelvane
