// SPDX-License-Identifier: Apache-2.0
// Where named services listen.
#pragma once

#include <string>

namespace kelvane::ipc {

/// The directory belongs to root, so that only the service manager decides who owns a name.
inline constexpr char serviceDirectory[] = "/run/kelvane/ipc";

/// The path of a service's socket; the name must be one.
std::string servicePath(const std::string& name);

}  // namespace kelvane::ipc
