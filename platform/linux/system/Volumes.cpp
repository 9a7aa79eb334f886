// SPDX-License-Identifier: Apache-2.0
// Mounted volumes, by the mount table and statvfs.
#include "platform/Volumes.h"

#include <sys/stat.h>
#include <sys/statvfs.h>

#include <algorithm>
#include <optional>
#include <utility>

#include "platform/linux/runtime/BlockedScope.h"
#include "platform/linux/system/MountTable.h"
#include "platform/linux/system/Paths.h"
#include "platform/linux/system/VolumeLevels.h"

namespace kelvane::volumes {

namespace {

std::optional<VolumeSpace> spaceOf(const std::string& path) {
  struct statvfs status;
  if (statvfs(path.c_str(), &status) != 0) {
    return std::nullopt;
  }
  return VolumeSpace{.size = std::uint64_t{status.f_blocks} * status.f_frsize,
                     .available = std::uint64_t{status.f_bavail} * status.f_frsize};
}

/// Containers bind single files over others; those are mount points, but no volumes.
bool isDirectory(const VolumeMount& mount) {
  struct stat status;
  return mount.isWhole || (stat(mount.path.c_str(), &status) == 0 && S_ISDIR(status.st_mode));
}

}  // namespace

bool isUsable(const std::string& path) {
  const runtime::BlockedScope blocked;
  // The table holds each mount point in its one canonical form, so comparing the text is enough to refuse
  // every other spelling.
  const std::vector<VolumeMount> mounts = volumeMounts(paths::mountInfo);
  const auto mount = std::find_if(mounts.begin(), mounts.end(),
                                  [&path](const VolumeMount& candidate) { return candidate.path == path; });
  return mount != mounts.end() && isDirectory(*mount);
}

std::vector<std::string> local() {
  const runtime::BlockedScope blocked;
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
  std::vector<std::string> result;
  for (VolumeMount& mount : chosen) {
    result.push_back(std::move(mount.path));
  }
  return result;
}

std::vector<std::string> lowOnSpace() {
  const runtime::BlockedScope blocked;
  const VolumeLevels levels = VolumeLevels::current();
  std::vector<std::pair<std::uint64_t, std::string>> low;
  for (std::string& volume : local()) {
    const auto space = spaceOf(volume);
    if (space && levels.level(volume, *space) != SpaceLevel::Ample) {
      low.emplace_back(space->available, std::move(volume));
    }
  }
  std::stable_sort(low.begin(), low.end(),
                   [](const auto& left, const auto& right) { return left.first < right.first; });
  std::vector<std::string> result;
  for (auto& [available, volume] : low) {
    result.push_back(std::move(volume));
  }
  return result;
}

std::uint64_t availableBytes(const std::string& path) {
  const runtime::BlockedScope blocked;
  const auto space = spaceOf(path);
  return space ? space->available : 0;
}

}  // namespace kelvane::volumes
