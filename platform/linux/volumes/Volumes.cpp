// SPDX-License-Identifier: Apache-2.0
// Mounted volumes, by the mount table and statvfs.
#include "platform/Volumes.h"

#include <sys/statvfs.h>

#include <algorithm>
#include <cerrno>
#include <set>
#include <utility>

#include "platform/linux/runtime/BlockedScope.h"
#include "platform/linux/volumes/KnownMounts.h"
#include "platform/linux/volumes/VolumeMonitor.h"
#include "platform/linux/volumes/VolumeSpace.h"

namespace kelvane::volumes {

namespace {

/// None when there is no such mount point. The table holds each in its one canonical form, so comparing the text is
/// enough to refuse every other spelling.
const VolumeMount* find(const std::vector<VolumeMount>& mounts, const std::string& path) {
  const auto mount = std::find_if(mounts.begin(), mounts.end(),
                                  [&path](const VolumeMount& candidate) { return candidate.path == path; });
  return mount == mounts.end() ? nullptr : &*mount;
}

/// Whether asking it would keep this thread waiting, too.
bool isSilent(const VolumeMount& mount) {
  return VolumeMonitor::shared().isSilent(mount.device);
}

/// Goes through the mounts of each file system that is not silent until one of them is accepted.
template <typename Accepts>
void forEachFileSystem(const std::vector<VolumeMount>& mounts, Accepts accepts) {
  std::set<dev_t> accepted;
  for (const VolumeMount& mount : mounts) {
    if (!accepted.contains(mount.device) && !isSilent(mount) && accepts(mount)) {
      accepted.insert(mount.device);
    }
  }
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
  const KnownMounts::Mounts known = KnownMounts::shared().current();
  if (const VolumeMount* mount = find(*known, path)) {
    if (isSilent(*mount)) {
      return false;
    }
    if (isDirectory(*mount) && isWritable(path)) {
      return true;
    }
  }
  const KnownMounts::Mounts mounts = KnownMounts::shared().readAgain();
  const VolumeMount* mount = find(*mounts, path);
  return mount != nullptr && !isSilent(*mount) && isDirectory(*mount);
}

std::vector<std::string> local() {
  const runtime::BlockedScope blocked;
  std::vector<std::string> result;
  forEachFileSystem(*KnownMounts::shared().readAgain(), [&result](const VolumeMount& mount) {
    if (!isDirectory(mount)) {
      return false;
    }
    result.push_back(mount.path);
    return true;
  });
  return result;
}

std::vector<std::string> lowOnSpace() {
  const runtime::BlockedScope blocked;
  const VolumeLevels levels = VolumeLevels::current();
  std::vector<VolumeWatch::Sight> low;
  forEachFileSystem(*KnownMounts::shared().current(), [&low, &levels](const VolumeMount& mount) {
    const auto space = spaceOf(mount);
    if (!space) {
      return false;
    }
    VolumeWatch::Sight sight(mount, *space, levels);
    if (sight.level() != SpaceLevel::Ample) {
      low.push_back(std::move(sight));
    }
    return true;
  });
  std::stable_sort(low.begin(), low.end(), [](const VolumeWatch::Sight& left, const VolumeWatch::Sight& right) {
    return left.space.available < right.space.available;
  });
  return VolumeMonitor::shared().volumesToRelieve(low);
}

Result<Space> space(const std::string& path) {
  const runtime::BlockedScope blocked;
  const KnownMounts::Mounts known = KnownMounts::shared().current();
  // Beneath a mount point that has been unmounted is another file system, whose space is of no interest.
  const VolumeMount* mount = find(*known, path);
  if (mount == nullptr) {
    return Failure{.number = ENOENT, .tried = "asking " + path};
  }
  if (isSilent(*mount)) {
    return Failure{.number = ETIMEDOUT, .tried = "asking " + path};
  }
  const auto space = spaceOf(*mount);
  return space ? Result<Space>(*space) : Failure{.number = EIO, .tried = "asking " + path};
}

std::uint64_t availableBytes(const std::string& path) {
  const auto known = space(path);
  return known ? known->available : 0;
}

}  // namespace kelvane::volumes
