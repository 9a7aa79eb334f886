// SPDX-License-Identifier: Apache-2.0
// The file that a cache's own program locks while it works.
#include "services/directory-cache/ToolLock.h"

#include <fcntl.h>
#include <linux/openat2.h>
#include <sys/file.h>
#include <sys/syscall.h>

#include <cerrno>
#include <optional>

#include "services/directory-cache/FileStatus.h"

namespace kelvane::directoryCache {

namespace {

Descriptor openPlain(const std::string& path, std::uint64_t access) {
  open_how how = {};
  how.flags = access | O_NONBLOCK | O_NOCTTY | O_CLOEXEC;
  how.resolve = RESOLVE_NO_SYMLINKS;
  return Descriptor(static_cast<int>(syscall(SYS_openat2, AT_FDCWD, path.c_str(), &how, sizeof how)));
}

/// A lock file, open, and the strongest fcntl lock that its opening allows.
struct OpenLock {
  Descriptor file;
  struct flock whole {};
};

OpenLock openLock(const std::string& path) {
  OpenLock lock;
  lock.whole.l_type = F_WRLCK;
  lock.whole.l_whence = SEEK_SET;
  lock.file = openPlain(path, O_RDWR);
  if (!lock.file.isValid() && (errno == EACCES || errno == EPERM || errno == EROFS)) {
    lock.file = openPlain(path, O_RDONLY);
    lock.whole.l_type = F_RDLCK;
  }
  return lock;
}

}  // namespace

bool ToolLock::isFree() const {
  OpenLock lock = openLock(path_);
  if (!lock.file.isValid()) {
    return errno == ENOENT;
  }
  const int number = lock.file.number();
  return fcntl(number, F_OFD_GETLK, &lock.whole) == 0 && lock.whole.l_type == F_UNLCK &&
         flock(number, LOCK_SH | LOCK_NB) == 0;
}

bool ToolLock::hold() {
  const auto there = statusAt(AT_FDCWD, path_.c_str());
  const auto ours = held_.isValid() ? statusOf(held_) : std::nullopt;
  if (there && ours && there->isSameFile(*ours)) {
    return true;
  }
  OpenLock lock = openLock(path_);
  if (!lock.file.isValid()) {
    return errno == ENOENT;
  }
  const int number = lock.file.number();
  if (fcntl(number, F_OFD_SETLK, &lock.whole) != 0 || flock(number, LOCK_EX | LOCK_NB) != 0) {
    return false;
  }
  held_ = std::move(lock.file);
  return true;
}

}  // namespace kelvane::directoryCache
