// SPDX-License-Identifier: Apache-2.0
// Rights on the directory of all stores.
#pragma once

#include <string>

#include "platform/Result.h"

namespace kelvane {

/// Sees to it that the open directory, which this path leads to, is this process's user's alone: whoever can open it
/// can hold its lock. One that others may open is closed to them, which the log says. Fails when it belongs to somebody
/// else, or when the path is a link to one that others may open, as that may be there for more than stores.
Result<> keepToOwner(int stores, const std::string& path);

}  // namespace kelvane
