// SPDX-License-Identifier: Apache-2.0
// What the file system tells of a file at a moment.
#include "services/directory-cache/FileStatus.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>

#include <algorithm>
#include <limits>

namespace kelvane::directoryCache {

namespace {

constexpr std::uint64_t statBlockBytes = 512;

FileTime timeOf(const struct statx_timestamp& time) {
  return {time.tv_sec, time.tv_nsec};
}

std::optional<FileStatus> ask(int directory, const char* name, int flags) {
  struct statx found = {};
  if (statx(directory, name, flags | AT_NO_AUTOMOUNT, STATX_BASIC_STATS | STATX_BTIME | STATX_MNT_ID, &found) != 0) {
    return std::nullopt;
  }
  FileStatus status;
  status.device = makedev(found.stx_dev_major, found.stx_dev_minor);
  status.inode = found.stx_ino;
  if ((found.stx_mask & STATX_MNT_ID) != 0) {
    status.mount = found.stx_mnt_id;
  }
  status.mode = found.stx_mode;
  status.owner = found.stx_uid;
  status.links = found.stx_nlink;
  status.allocated = found.stx_blocks * statBlockBytes;
  status.accessed = timeOf(found.stx_atime);
  status.modified = timeOf(found.stx_mtime);
  status.changed = timeOf(found.stx_ctime);
  if ((found.stx_mask & STATX_BTIME) != 0) {
    status.born = timeOf(found.stx_btime);
  }
  status.isFixed = (found.stx_attributes & (STATX_ATTR_IMMUTABLE | STATX_ATTR_APPEND)) != 0;
  return status;
}

}  // namespace

bool FileStatus::isRegular() const {
  return S_ISREG(mode);
}

bool FileStatus::isDirectory() const {
  return S_ISDIR(mode);
}

FileTime FileStatus::lastUse(const Clocks& clocks) const {
  FileTime last = {std::numeric_limits<std::int64_t>::min(), 0};
  last = clocks.access ? std::max(last, accessed) : last;
  last = clocks.modification ? std::max(last, modified) : last;
  last = clocks.change ? std::max(last, changed) : last;
  return clocks.birth && born ? std::max(last, *born) : last;
}

std::optional<FileStatus> statusAt(int directory, const char* name) {
  return ask(directory, name, AT_SYMLINK_NOFOLLOW);
}

std::optional<FileStatus> statusOf(const Descriptor& descriptor) {
  return ask(descriptor.number(), "", AT_EMPTY_PATH);
}

}  // namespace kelvane::directoryCache
