// SPDX-License-Identifier: Apache-2.0
// Messages to the service manager that started the process.
#include "platform/linux/system/ServiceManager.h"

#include <systemd/sd-daemon.h>

#include <optional>
#include <string>

#include "platform/Reporting.h"
#include "platform/linux/system/ControlSocket.h"
#include "platform/linux/system/Handlers.h"
#include "platform/linux/system/VolumeMonitor.h"

namespace kelvane::serviceManager {

void notifyReady() {
  if (handlers::any()) {
    if (const std::optional<std::string> error = openControlSocket()) {
      reporting::reportFailure("serviceManager::notifyReady", "Unable to open the control socket: " + *error);
    }
  }
  sd_notify(0, "READY=1");
  VolumeMonitor::shared().start();
}

void notifyTransactions(unsigned count) {
  std::string status = "Idle";
  if (count > 0) {
    status = "Busy, " + std::to_string(count) + (count == 1 ? " transaction" : " transactions");
  }
  sd_notify(0, ("STATUS=" + status).c_str());
}

void notifyWatchdog() {
  sd_notify(0, "WATCHDOG=1");
}

}  // namespace kelvane::serviceManager
