// SPDX-License-Identifier: Apache-2.0
// The lock that keeps one process's stores from all others.
#pragma once

#include <string>

#include "platform/Result.h"

namespace kelvane {

/// Locks the directory, which has this path, for as long as it is open. Fails with EBUSY when another daemon has the
/// lock, and otherwise when that has ended but for threads that a disk keeps, as no signal ends those, nor their lock;
/// or when who has it can be no daemon, but another user's process that could open the directory once.
Result<> lockStores(int directory, const std::string& path);

}  // namespace kelvane
