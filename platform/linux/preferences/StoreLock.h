// SPDX-License-Identifier: Apache-2.0
// The lock that keeps one process's stores from all others.
#pragma once

#include <string>

#include "platform/Result.h"

namespace kelvane {

/// Locks the directory, which has this path, for as long as it is open. Fails with EBUSY when a process has the lock,
/// and otherwise when that process has ended but for threads that a disk keeps: no signal ends those, nor their lock.
Result<> lockStores(int directory, const std::string& path);

}  // namespace kelvane
