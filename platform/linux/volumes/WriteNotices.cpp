// SPDX-License-Identifier: Apache-2.0
// Notices that somebody writes to a file system.
#include "platform/linux/volumes/WriteNotices.h"

#include <fcntl.h>
#include <sys/fanotify.h>

#include <algorithm>
#include <cerrno>
#include <utility>

#include "platform/Reporting.h"
#include "platform/linux/volumes/FileSystemProbe.h"
#include "platform/linux/volumes/MountVisit.h"

namespace kelvane {

namespace {

/// Without the identity of files an unread notice would keep the mount busy; but not every file system has one. Only
/// with it is told of new files, so that one that is written in a single long call is noticed at its beginning.
constexpr std::pair<unsigned, std::uint64_t> kinds[] = {{FAN_REPORT_FID, FAN_MODIFY | FAN_CREATE}, {0, FAN_MODIFY}};

/// May wait for the file system: for the probe's workers.
Result<FileDescriptor> openGroup(const VolumeMount& mount) {
  Failure failure;
  for (const auto& [flags, mask] : kinds) {
    FileDescriptor group(
        fanotify_init(FAN_CLASS_NOTIF | FAN_CLOEXEC | FAN_NONBLOCK | flags, O_RDONLY | O_CLOEXEC | O_LARGEFILE));
    if (!group) {
      return systemFailure("fanotify_init");
    }
    if (fanotify_mark(group.get(), FAN_MARK_ADD | FAN_MARK_FILESYSTEM, mask, AT_FDCWD, mount.path.c_str()) == 0) {
      return group;
    }
    failure = systemFailure("fanotify_mark", mount.path);
  }
  return failure;
}

/// Whether it is the same for every file system.
bool isForGood(int error) {
  return error == EPERM || error == ENOSYS || error == EINVAL;
}

}  // namespace

bool WriteNotices::ask(const VolumeMount& mount) {
  if (areAskedFor(mount.device)) {
    return true;
  }
  if (isForbidden_ || refused_.contains(mount.device) || groups_.size() >= mostGroups) {
    return false;
  }
  auto group = FileSystemProbe::shared().ask<FileDescriptor>(
      "asking " + mount.path, [mount](FileSystemProbe::Visit& visit) -> Result<FileDescriptor> {
        const auto entered = enterMount(visit, mount);
        return entered ? openGroup(entered->mount) : entered.failure();
      });
  if (group) {
    groups_.emplace(mount.device, *std::move(group));
    return true;
  }
  const Failure& failure = group.failure();
  if (failure.number == ETIMEDOUT) {
    return false;
  }
  isForbidden_ = isForGood(failure.number);
  refused_.insert(mount.device);
  if (!std::exchange(isRefusalTold_, true)) {
    reporting::reportFailure("WriteNotices", "Nobody tells of writes to " +
                                                 (isForbidden_ ? std::string("volumes") : mount.path) +
                                                 ", which are looked at more often instead: " + failure.text());
  }
  return false;
}

std::vector<dev_t> WriteNotices::take() {
  std::vector<dev_t> written;
  for (auto group = groups_.begin(); group != groups_.end();) {
    pollfd event{group->second.get(), POLLIN, 0};
    if (poll(&event, 1, 0) > 0) {
      written.push_back(group->first);
      group = groups_.erase(group);
    } else {
      ++group;
    }
  }
  return written;
}

void WriteNotices::keepOnly(const std::vector<VolumeMount>& mounts) {
  const auto isGone = [&mounts](dev_t device) {
    return std::none_of(mounts.begin(), mounts.end(),
                        [device](const VolumeMount& mount) { return mount.device == device; });
  };
  std::erase_if(groups_, [&isGone](const auto& entry) { return isGone(entry.first); });
  std::erase_if(refused_, isGone);
}

void WriteNotices::addTo(std::vector<pollfd>& events) const {
  for (const auto& [device, group] : groups_) {
    events.push_back({group.get(), POLLIN, 0});
  }
}

}  // namespace kelvane
