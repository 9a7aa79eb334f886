// SPDX-License-Identifier: Apache-2.0
// Mounted volumes, by the mount table and statvfs.
#include "platform/Volumes.h"

#include <sys/statvfs.h>

#include <algorithm>
#include <utility>

#include "platform/linux/runtime/BlockedScope.h"
#include "platform/linux/system/KnownMounts.h"
#include "platform/linux/system/LocalVolumes.h"
#include "platform/linux/system/Paths.h"
#include "platform/linux/system/VolumeMonitor.h"

namespace kelvane::volumes {

namespace {

/// The table holds each mount point in its one canonical form, so comparing the text is enough to refuse every
/// other spelling.
bool isAmong(const std::vector<VolumeMount>& mounts, const std::string& path) {
  const auto mount = std::find_if(mounts.begin(), mounts.end(),
                                  [&path](const VolumeMount& candidate) { return candidate.path == path; });
  return mount != mounts.end() && isDirectory(*mount);
}

/// The mount and the file system both.
bool isWritable(const std::string& path) {
  struct statvfs status;
  return statvfs(path.c_str(), &status) == 0 && (status.f_flag & ST_RDONLY) == 0;
}

}  // namespace

bool isUsable(const std::string& path) {
  const runtime::BlockedScope blocked;
  // Only what is known to be usable is quick to tell: a mount that has become writable is no change of the table.
  return (isAmong(*KnownMounts::shared().current(), path) && isWritable(path)) ||
         isAmong(volumeMounts(paths::mountInfo), path);
}

std::vector<std::string> local() {
  const runtime::BlockedScope blocked;
  std::vector<std::string> result;
  for (VolumeMount& mount : localVolumes()) {
    result.push_back(std::move(mount.path));
  }
  return result;
}

std::vector<std::string> lowOnSpace() {
  const runtime::BlockedScope blocked;
  VolumeMonitor& monitor = VolumeMonitor::shared();
  const VolumeLevels levels = VolumeLevels::current();
  std::vector<VolumeWatch::Sight> low;
  for (const VolumeMount& mount : localVolumes()) {
    if (monitor.isSilent(mount.device)) {
      continue;
    }
    if (const auto space = spaceOf(mount.path)) {
      VolumeWatch::Sight sight(mount, *space, levels);
      if (sight.level() != SpaceLevel::Ample) {
        low.push_back(std::move(sight));
      }
    }
  }
  std::stable_sort(low.begin(), low.end(), [](const VolumeWatch::Sight& left, const VolumeWatch::Sight& right) {
    return left.space.available < right.space.available;
  });
  return monitor.volumesToRelieve(low);
}

std::uint64_t availableBytes(const std::string& path) {
  const runtime::BlockedScope blocked;
  const auto space = spaceOf(path);
  return space ? space->available : 0;
}

}  // namespace kelvane::volumes
