// SPDX-License-Identifier: Apache-2.0
// The service manager's side of activities: having another process run them.
#pragma once

#include <functional>
#include <optional>
#include <string>

#include "platform/Ipc.h"

namespace kelvane::control {

/// Told what went wrong, or none, once the activity's handler has returned; on a thread of the IPC facility.
using Finished = std::function<void(const std::optional<ipc::CallError>&)>;

/// Has the daemon, which is started if need be, run the activity that it registered by this name. Returns at once.
/// Only for the user that the service manager runs as.
void requestActivity(const std::string& name, Finished finished);

}  // namespace kelvane::control
