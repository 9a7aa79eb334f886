// SPDX-License-Identifier: Apache-2.0
// The space on a volume.
#pragma once

#include <optional>

#include "platform/Volumes.h"
#include "platform/linux/volumes/MountTable.h"
#include "platform/linux/volumes/VolumeLevels.h"

namespace kelvane {

/// None when the mount is no directory or cannot be asked. May wait for as long as the file system likes.
[[nodiscard]] std::optional<volumes::Space> spaceOf(const VolumeMount& mount);

/// Containers bind single files over others; those are mount points, but no volumes. May wait, too.
[[nodiscard]] bool isDirectory(const VolumeMount& mount);

}  // namespace kelvane
