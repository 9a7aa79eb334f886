// SPDX-License-Identifier: Apache-2.0
// The volumes of this system and the space on them.
#include "platform/linux/system/LocalVolumes.h"

#include <sys/stat.h>
#include <sys/statvfs.h>

#include <algorithm>
#include <utility>

#include "platform/linux/system/Paths.h"

namespace kelvane {

std::vector<VolumeMount> localVolumes() {
  std::vector<VolumeMount> chosen;
  for (VolumeMount& mount : volumeMounts(paths::mountInfo)) {
    const auto same = std::find_if(chosen.begin(), chosen.end(),
                                   [&mount](const VolumeMount& other) { return other.device == mount.device; });
    if (same == chosen.end()) {
      if (isDirectory(mount)) {
        chosen.push_back(std::move(mount));
      }
    } else if (mount.isWhole && !same->isWhole) {
      // A bind mount came first; the file system's own mount point is the better name.
      *same = std::move(mount);
    }
  }
  return chosen;
}

std::optional<VolumeSpace> spaceOf(const std::string& volume) {
  struct statvfs status;
  if (statvfs(volume.c_str(), &status) != 0) {
    return std::nullopt;
  }
  return VolumeSpace{.size = std::uint64_t{status.f_blocks} * status.f_frsize,
                     .available = std::uint64_t{status.f_bavail} * status.f_frsize};
}

bool isDirectory(const VolumeMount& mount) {
  struct stat status;
  return mount.isWhole || (stat(mount.path.c_str(), &status) == 0 && S_ISDIR(status.st_mode));
}

}  // namespace kelvane
