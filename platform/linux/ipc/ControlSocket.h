// SPDX-License-Identifier: Apache-2.0
// The service manager's door: a socket on which root runs activities and posts events.
#pragma once

#include <optional>
#include <string>

#include "platform/IpcInterface.h"

namespace kelvane {

/// com.tessaly.KelvanePlatform: "runActivity" and "postEvent", each answered with nothing when the handler
/// has returned, or with an error when nobody has registered for the name.
extern const ipc::Interface controlInterface;

/// Serves the interface for the life of the process, on the socket that the service manager passed for
/// paths::controlSocket, else on one of its own that only root can connect to. An error's text when that
/// cannot be. Calls after the first give its outcome.
[[nodiscard]] std::optional<std::string> openControlSocket();

}  // namespace kelvane
