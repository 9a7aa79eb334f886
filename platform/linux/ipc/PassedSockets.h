// SPDX-License-Identifier: Apache-2.0
// The listening sockets that the service manager passed to the process.
#pragma once

#include <string>

#include "platform/linux/runtime/FileDescriptor.h"

namespace kelvane::ipc {

/// Takes the passed AF_UNIX stream socket that listens at this path; with a service's name, also one that
/// was passed under that name, or one that was passed alone and is not the control socket. Each can be taken once;
/// none when there is no such socket. Any thread.
[[nodiscard]] FileDescriptor takePassedSocket(const std::string& path, const std::string& serviceName);

}  // namespace kelvane::ipc
