// SPDX-License-Identifier: Apache-2.0
// Readiness of a process that has set itself up.
#pragma once

namespace kelvane {

/// The main loop is about to be entered: opens the control socket if anything was registered that it could
/// reach, reports the process as started up, and begins to watch the volumes if there is a handler for it.
void announceReadiness();

}  // namespace kelvane
