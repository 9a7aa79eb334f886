// SPDX-License-Identifier: Apache-2.0
// The lock that keeps one process's stores from all others.
#include "platform/linux/preferences/StoreLock.h"

#include <sys/file.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <fstream>
#include <optional>
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

/// The user whose process it is, also while that runs a program with another's rights; none when it is gone.
std::optional<uid_t> userOf(const std::string& process) {
  std::ifstream file("/proc/" + process + "/status");
  const std::string title = "Uid:";
  for (std::string line; std::getline(file, line);) {
    uid_t user = 0;
    if (line.starts_with(title) && std::istringstream(line.substr(title.size())) >> user) {
      return user;
    }
  }
  return std::nullopt;
}

/// Whether the process can be another daemon, which runs as this one's user and gives its lock to nobody.
bool mayBeDaemon(const std::string& process) {
  return userOf(process) == getuid();
}

}  // namespace

Result<> lockStores(int directory, const std::string& path) {
  if (flock(directory, LOCK_EX | LOCK_NB) == 0) {
    return {};
  }
  if (errno != EWOULDBLOCK) {
    return systemFailure("locking", path);
  }
  struct stat status;
  if (fstat(directory, &status) != 0) {
    return systemFailure("locking", path);
  }
  const std::vector<std::string> holders = holdersOf(status);
  if (!holders.empty() && std::ranges::all_of(holders, hasEnded)) {
    return Failure{.tried = "locking " + path + ": the disk still keeps a process that has ended"};
  }
  if (holders.empty() || std::ranges::any_of(holders, mayBeDaemon)) {
    return Failure{.number = EBUSY, .tried = "locking " + path};
  }
  // A daemon may have ended since the first attempt.
  if (flock(directory, LOCK_EX | LOCK_NB) == 0) {
    return {};
  }
  return Failure{.tried = "locking " + path + ": process " + holders.front() + ", which is no daemon, has locked it"};
}

}  // namespace kelvane
