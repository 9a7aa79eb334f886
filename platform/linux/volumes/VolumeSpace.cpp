// SPDX-License-Identifier: Apache-2.0
// Questions about the space on volumes.
#include "platform/linux/volumes/VolumeSpace.h"

#include <sys/stat.h>
#include <sys/statvfs.h>

#include <cerrno>

#include "platform/linux/volumes/MountVisit.h"

namespace kelvane {

std::atomic<Result<volumes::Space> (*)(const VolumeMount&)> spaceReader{&readSpace};

Result<volumes::Space> readSpace(const VolumeMount& mount) {
  struct stat file;
  if (!mount.isWhole && stat(mount.path.c_str(), &file) != 0) {
    return systemFailure("asking", mount.path);
  }
  if (!mount.isWhole && !S_ISDIR(file.st_mode)) {
    return Failure{.number = ENOTDIR, .tried = "asking " + mount.path};
  }
  struct statvfs status;
  if (statvfs(mount.path.c_str(), &status) != 0) {
    return systemFailure("asking", mount.path);
  }
  return volumes::Space{.size = std::uint64_t{status.f_blocks} * status.f_frsize,
                        .available = std::uint64_t{status.f_bavail} * status.f_frsize,
                        .free = std::uint64_t{status.f_bfree} * status.f_frsize,
                        // The number of a device is soon another's: of the disk that is put in its drive next.
                        .fileSystem = mount.device ^ std::uint64_t{status.f_fsid}};
}

Result<volumes::Space> askIn(FileSystemProbe::Visit& visit, const VolumeMount& mount) {
  const auto entered = enterMount(visit, mount);
  return entered ? spaceReader.load(std::memory_order_relaxed)(entered->mount) : entered.failure();
}

Result<volumes::Space> askSpace(const VolumeMount& mount) {
  return FileSystemProbe::shared().ask<volumes::Space>(
      "asking " + mount.path, [mount](FileSystemProbe::Visit& visit) { return askIn(visit, mount); });
}

}  // namespace kelvane
