// SPDX-License-Identifier: Apache-2.0
// Messages to the service manager that started the process; without one they do nothing.
#pragma once

namespace kelvane::serviceManager {

/// The main loop is about to be entered: opens the control socket if anything was registered that it could
/// reach, and reports the process as started up.
void notifyReady();

/// The process holds this many keep-alive transactions now.
void notifyTransactions(unsigned count);

/// The process is alive.
void notifyWatchdog();

}  // namespace kelvane::serviceManager
