// SPDX-License-Identifier: Apache-2.0
// From process start to serving.
#pragma once

namespace kelvane {

/// Starts the daemon and serves until SIGTERM ends the process. Runs on the main thread.
[[noreturn]] void runDaemon();

}  // namespace kelvane
