// SPDX-License-Identifier: Apache-2.0
// The opening of a store on a disk that may not answer.
#pragma once

#include <chrono>
#include <memory>
#include <string>

#include "platform/Limits.h"
#include "platform/Result.h"
#include "platform/linux/preferences/DiskCalls.h"
#include "platform/linux/preferences/PreferencesStore.h"
#include "platform/linux/volumes/FileSystemProbe.h"

namespace kelvane {

/// Opens a store as PreferencesStore::open() does, on a thread of the probe's. Fails when a file system on the way
/// there has kept that thread for longer than the patience, or is silent already. The thread then changes nothing any
/// more once it returns, removes what it was making, and closes what it has opened, the lock with it.
Result<std::unique_ptr<PreferencesStore>> openInTime(FileSystemProbe& probe, const std::string& directory,
                                                     const std::string& name, const DiskCalls& calls = {},
                                                     std::chrono::milliseconds patience = limits::openingPatience);

}  // namespace kelvane
