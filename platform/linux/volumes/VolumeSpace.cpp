// SPDX-License-Identifier: Apache-2.0
// The space on a volume.
#include "platform/linux/volumes/VolumeSpace.h"

#include <sys/stat.h>
#include <sys/statvfs.h>

namespace kelvane {

std::optional<volumes::Space> spaceOf(const VolumeMount& mount) {
  struct statvfs status;
  if (!isDirectory(mount) || statvfs(mount.path.c_str(), &status) != 0) {
    return std::nullopt;
  }
  return volumes::Space{.size = std::uint64_t{status.f_blocks} * status.f_frsize,
                        .available = std::uint64_t{status.f_bavail} * status.f_frsize,
                        .free = std::uint64_t{status.f_bfree} * status.f_frsize};
}

bool isDirectory(const VolumeMount& mount) {
  struct stat status;
  return mount.isWhole || (stat(mount.path.c_str(), &status) == 0 && S_ISDIR(status.st_mode));
}

}  // namespace kelvane
