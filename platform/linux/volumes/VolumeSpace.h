// SPDX-License-Identifier: Apache-2.0
// Questions about the space on volumes.
#pragma once

#include <atomic>

#include "platform/Result.h"
#include "platform/Volumes.h"
#include "platform/linux/volumes/FileSystemProbe.h"
#include "platform/linux/volumes/MountTable.h"

namespace kelvane {

/// Asks a mount's file system itself; ENOTDIR for a mount that is no directory, as containers bind single files over
/// others. It may wait for ever: it is for the probe's workers only.
[[nodiscard]] Result<volumes::Space> readSpace(const VolumeMount& mount);
/// What workers ask with: readSpace, unless a test puts something here that does not answer.
extern std::atomic<Result<volumes::Space> (*)(const VolumeMount&)> spaceReader;

/// As readSpace, once the mount's file system has been entered; ETIMEDOUT when that may not be.
[[nodiscard]] Result<volumes::Space> askIn(FileSystemProbe::Visit& visit, const VolumeMount& mount);
/// As readSpace, by way of the probe: ETIMEDOUT while the file system is silent or rests.
[[nodiscard]] Result<volumes::Space> askSpace(const VolumeMount& mount);

}  // namespace kelvane
