// SPDX-License-Identifier: Apache-2.0
// The volumes of this system and the space on them.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "platform/linux/system/MountTable.h"
#include "platform/linux/system/VolumeLevels.h"

namespace kelvane {

/// One mount for each file system that is a volume, in mount order.
[[nodiscard]] std::vector<VolumeMount> localVolumes();

/// None when the volume cannot be asked. May wait for as long as the file system likes.
[[nodiscard]] std::optional<VolumeSpace> spaceOf(const std::string& volume);

/// Containers bind single files over others; those are mount points, but no volumes.
[[nodiscard]] bool isDirectory(const VolumeMount& mount);

}  // namespace kelvane
