// SPDX-License-Identifier: Apache-2.0
// Messages to the service manager that started the process; without one they do nothing.
#pragma once

#include <string>

namespace kelvane::serviceManager {

/// The process has started up, or has read its configuration again.
void notifyReady();
/// The process reads its configuration again, until it is ready.
void notifyReloading();

/// The process holds this many keep-alive transactions now, and has this to remark, on one line, unless it is empty.
void notifyStatus(unsigned transactions, const std::string& remark);

/// The process is alive.
void notifyWatchdog();

}  // namespace kelvane::serviceManager
