// SPDX-License-Identifier: Apache-2.0
// What this process may delete, and where it should not.
#include "services/directory-cache/Rights.h"

#include <fcntl.h>
#include <linux/capability.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>

namespace kelvane::directoryCache {

namespace {

bool hasCapability(unsigned number) {
  __user_cap_header_struct header = {_LINUX_CAPABILITY_VERSION_3, 0};
  __user_cap_data_struct data[_LINUX_CAPABILITY_U32S_3] = {};
  return syscall(SYS_capget, &header, data) == 0 && (data[CAP_TO_INDEX(number)].effective & CAP_TO_MASK(number)) != 0;
}

bool isSticky(const FileStatus& directory) {
  return (directory.mode & S_ISVTX) != 0;
}

}  // namespace

Rights::Rights() : user_(geteuid()), isAboveOwners_(hasCapability(CAP_FOWNER)), mayLease_(hasCapability(CAP_LEASE)) {}

bool Rights::mayChange(int directory, const FileStatus& status) const {
  return !status.isFixed && faccessat(directory, ".", W_OK | X_OK, AT_EACCESS) == 0;
}

bool Rights::mayRemove(const FileStatus& directory, const FileStatus& file) const {
  const bool isOurs = file.owner == user_;
  return !file.isFixed && (isOurs || mayLease_) &&
         (isOurs || !isSticky(directory) || directory.owner == user_ || isAboveOwners_);
}

bool isWritableByOthers(const FileStatus& directory) {
  return directory.owner != 0 || (directory.mode & (S_IWGRP | S_IWOTH)) != 0;
}

std::optional<std::string> writableByOthers(const std::string& path) {
  for (std::size_t end = 0; end < path.size();) {
    end = std::min(path.find('/', end + 1), path.size());
    const std::string part = end == 0 ? "/" : path.substr(0, end);
    const auto status = statusAt(AT_FDCWD, part.c_str());
    if (!status) {
      return std::nullopt;
    }
    const bool isOnTheWay = end < path.size();
    if (isWritableByOthers(*status) && !(isOnTheWay && isSticky(*status) && status->owner == 0)) {
      return part;
    }
  }
  return std::nullopt;
}

}  // namespace kelvane::directoryCache
