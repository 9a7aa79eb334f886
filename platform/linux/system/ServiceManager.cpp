// SPDX-License-Identifier: Apache-2.0
// Messages to the service manager that started the process.
#include "platform/linux/system/ServiceManager.h"

#include <systemd/sd-daemon.h>

#include <string>

namespace kelvane::serviceManager {

void notifyReady() {
  sd_notify(0, "READY=1");
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
