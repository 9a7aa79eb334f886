// SPDX-License-Identifier: Apache-2.0
// Messages to the service manager that started the process; without one they do nothing.
#pragma once

namespace kelvane::serviceManager {

/// The process has started up.
void notifyReady();

/// The process holds this many keep-alive transactions now.
void notifyTransactions(unsigned count);

/// The process is alive.
void notifyWatchdog();

}  // namespace kelvane::serviceManager
