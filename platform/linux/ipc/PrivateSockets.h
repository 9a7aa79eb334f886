// SPDX-License-Identifier: Apache-2.0
// Listening and connecting at sockets that are no named services.
#pragma once

#include <sys/types.h>

#include <string>

#include "platform/Ipc.h"

namespace kelvane::ipc {

/// As Listener::named, but on a socket at any absolute path, made with this mode, or on the socket that the
/// service manager passed for that path. The directory it lies in is made, with mode 0755, when it is
/// missing. The socket appears once the listener is resumed and goes with it.
Listener listenAt(std::string path, mode_t mode, const Interface& interface, RequestHandler handler);

/// As Connection::toService, but to the socket at this path.
Connection connectAt(std::string path);

}  // namespace kelvane::ipc
