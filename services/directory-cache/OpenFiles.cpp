// SPDX-License-Identifier: Apache-2.0
// Which files processes have open, where leases do not tell.
#include "services/directory-cache/OpenFiles.h"

#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <system_error>

namespace kelvane::directoryCache {

namespace {

namespace fs = std::filesystem;

bool isNumber(const std::string& text) {
  return !text.empty() && std::all_of(text.begin(), text.end(), [](unsigned char byte) { return std::isdigit(byte); });
}

bool hasOpen(const fs::path& process, ino_t inode, const std::string& except) {
  std::error_code ignored;
  for (fs::directory_iterator entry(process / "fdinfo", ignored), end; !ignored && entry != end;
       entry.increment(ignored)) {
    std::ifstream info(entry->path());
    for (std::string key; entry->path() != except && info >> key;) {
      ino_t number = 0;
      if (key == "ino:" && info >> number && number == inode) {
        return true;
      }
    }
  }
  return false;
}

bool hasMapped(const fs::path& process, ino_t inode) {
  std::ifstream maps(process / "maps");
  for (std::string line; std::getline(maps, line);) {
    std::istringstream fields(line);
    std::string range;
    std::string rights;
    std::string offset;
    std::string device;
    ino_t number = 0;
    if (fields >> range >> rights >> offset >> device >> number && number == inode) {
      return true;
    }
  }
  return false;
}

}  // namespace

bool isOpenInSomeProcess(ino_t inode, int ours) {
  const std::string except = "/proc/" + std::to_string(getpid()) + "/fdinfo/" + std::to_string(ours);
  std::error_code ignored;
  for (fs::directory_iterator entry("/proc", ignored), end; !ignored && entry != end; entry.increment(ignored)) {
    const fs::path& process = entry->path();
    if (isNumber(process.filename()) && (hasOpen(process, inode, except) || hasMapped(process, inode))) {
      return true;
    }
  }
  return false;
}

}  // namespace kelvane::directoryCache
