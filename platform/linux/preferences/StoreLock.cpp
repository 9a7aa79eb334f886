// SPDX-License-Identifier: Apache-2.0
// The lock that keeps one process's stores from all others.
#include "platform/linux/preferences/StoreLock.h"

#include <sys/file.h>
#include <sys/stat.h>

#include <cerrno>
#include <fstream>
#include <sstream>
#include <string>

namespace kelvane {

namespace {

/// Whether the process's first thread has ended, and with it, as a rule, all that signals can end.
bool hasEnded(const std::string& process) {
  std::ifstream file("/proc/" + process + "/stat");
  std::string line;
  std::getline(file, line);
  const std::size_t name = line.rfind(") ");
  return name != std::string::npos && line.find_first_of("ZX", name) == name + 2;
}

/// Whether there is a process with the lock that this one can see, and each such has ended. File systems have
/// numbers there that need not be those that stat() gives, so another file's lock may be taken for this one's.
bool isHeldByEnded(int directory) {
  struct stat status;
  if (fstat(directory, &status) != 0) {
    return false;
  }
  const std::string inode = ":" + std::to_string(status.st_ino);
  std::ifstream locks("/proc/locks");
  bool isHeld = false;
  for (std::string line; std::getline(locks, line);) {
    std::istringstream words(line);
    std::string number;
    std::string kind;
    std::string manner;
    std::string access;
    std::string process;
    std::string file;
    words >> number >> kind >> manner >> access >> process >> file;
    if (kind != "FLOCK" || !file.ends_with(inode)) {
      continue;
    }
    if (!hasEnded(process)) {
      return false;
    }
    isHeld = true;
  }
  return isHeld;
}

}  // namespace

Result<> lockStores(int directory, const std::string& path) {
  if (flock(directory, LOCK_EX | LOCK_NB) == 0) {
    return {};
  }
  if (errno != EWOULDBLOCK) {
    return systemFailure("locking", path);
  }
  if (isHeldByEnded(directory)) {
    return Failure{.tried = "locking " + path + ": the disk still keeps a process that has ended"};
  }
  return Failure{.number = EBUSY, .tried = "locking " + path};
}

}  // namespace kelvane
