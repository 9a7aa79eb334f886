// SPDX-License-Identifier: Apache-2.0
// Messages to the service manager that started the process.
#include "platform/linux/system/ServiceManager.h"

#include <systemd/sd-daemon.h>

namespace kelvane::serviceManager {

void notifyReady() {
  sd_notify(0, "READY=1");
}

void notifyReloading() {
  sd_notify(0, "RELOADING=1");
}

void notifyStatus(unsigned transactions, const std::string& remark) {
  std::string status = "Idle";
  if (transactions > 0) {
    status = "Busy, " + std::to_string(transactions) + (transactions == 1 ? " transaction" : " transactions");
  }
  if (!remark.empty()) {
    status += "; " + remark;
  }
  sd_notify(0, ("STATUS=" + status).c_str());
}

void notifyWatchdog() {
  sd_notify(0, "WATCHDOG=1");
}

}  // namespace kelvane::serviceManager
