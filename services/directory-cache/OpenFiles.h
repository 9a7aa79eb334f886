// SPDX-License-Identifier: Apache-2.0
// Which files processes have open, where leases do not tell.
#pragma once

#include <sys/types.h>

namespace kelvane::directoryCache {

/// Whether a process that this one may look into has a file of this number open or mapped, on whichever volume, but for
/// this process's descriptor ours. Takes milliseconds, and asks no file system but that of the processes.
bool isOpenInSomeProcess(ino_t inode, int ours);

}  // namespace kelvane::directoryCache
