// SPDX-License-Identifier: Apache-2.0
// Messages to the service manager that started the process; without one they do nothing.
#pragma once

namespace kelvane::serviceManager {

/// The main loop is about to be entered: opens the control socket if anything was registered that it could
/// reach, reports the process as started up, and begins to watch the volumes if there is a handler for it.
void notifyReady();

/// The process holds this many keep-alive transactions now.
void notifyTransactions(unsigned count);

/// The process is alive.
void notifyWatchdog();

}  // namespace kelvane::serviceManager
