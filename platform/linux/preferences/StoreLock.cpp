// SPDX-License-Identifier: Apache-2.0
// The lock that keeps one process's stores from all others.
#include "platform/linux/preferences/StoreLock.h"

#include <sys/file.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>

#include <algorithm>
#include <cerrno>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

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

/// The processes that this one can see and that have locks of the file. File systems may have numbers there that are
/// not those that stat() gives: where none has a lock by its device's number, these are all those that have one of a
/// file with its own.
std::vector<std::string> holdersOf(const struct stat& status) {
  std::vector<std::string> holders;
  std::vector<std::string> holdersOfNumber;
  std::ifstream locks("/proc/locks");
  for (std::string line; std::getline(locks, line);) {
    std::istringstream words(line);
    std::string number;
    std::string kind;
    std::string manner;
    std::string access;
    std::string process;
    unsigned majorNumber = 0;
    unsigned minorNumber = 0;
    char colon = 0;
    ino_t inode = 0;
    words >> number >> kind >> manner >> access >> process;
    words >> std::hex >> majorNumber >> colon >> minorNumber >> colon >> std::dec >> inode;
    if (words && kind == "FLOCK" && inode == status.st_ino) {
      (makedev(majorNumber, minorNumber) == status.st_dev ? holders : holdersOfNumber).push_back(process);
    }
  }
  return holders.empty() ? holdersOfNumber : holders;
}

/// Whether each process that has the lock has ended; not, when this one can see none.
bool isHeldByEnded(int directory) {
  struct stat status;
  if (fstat(directory, &status) != 0) {
    return false;
  }
  const std::vector<std::string> holders = holdersOf(status);
  return !holders.empty() && std::ranges::all_of(holders, hasEnded);
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
