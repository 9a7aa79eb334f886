// SPDX-License-Identifier: Apache-2.0
// A directory's entry under a name that nobody else knows.
#include "services/directory-cache/SetAside.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <utility>

#include "platform/Process.h"
#include "platform/Reporting.h"
#include "services/directory-cache/LogNames.h"

namespace kelvane::directoryCache {

namespace {

/// Renames within a directory, replacing nothing. Errors as renameat2's.
bool renameTo(const Descriptor& directory, const char* from, const char* to) {
  if (renameat2(directory.number(), from, directory.number(), to, RENAME_NOREPLACE) == 0) {
    return true;
  }
  // Some file systems cannot do that at once, but can refuse a second name.
  return errno == EINVAL && linkat(directory.number(), from, directory.number(), to, 0) == 0 &&
         unlinkat(directory.number(), from, 0) == 0;
}

}  // namespace

SetAside::SetAside(Descriptor parent, std::string name, std::string secretName)
    : parent_(std::move(parent)), name_(std::move(name)), secretName_(std::move(secretName)) {}

std::optional<SetAside> SetAside::take(Descriptor parent, const std::string& name) {
  std::string secretName = prefix + randomUuid();
  bool isTaken = renameat2(parent.number(), name.c_str(), parent.number(), secretName.c_str(), RENAME_NOREPLACE) == 0;
  if (!isTaken && errno == EINVAL) {
    // There is nothing to replace: nobody has that name.
    isTaken = renameat(parent.number(), name.c_str(), parent.number(), secretName.c_str()) == 0;
  }
  if (!isTaken && errno != ENOSPC && errno != EDQUOT) {
    return std::nullopt;
  }
  return SetAside(std::move(parent), name, isTaken ? std::move(secretName) : name);
}

SetAside::~SetAside() {
  if (!parent_.isValid() || isGone_ || !isMoved() || renameTo(parent_, secretName_.c_str(), name_.c_str())) {
    return;
  }
  // Somebody has made a new entry of that name. Neither is ours to delete.
  reporting::writeLog(logLevels::warning, logCategory, "SetAside",
                      name_ + ": " + std::strerror(errno) + ", so what had this name is kept as " + secretName_);
}

std::optional<FileStatus> SetAside::status() const {
  return statusAt(parent_.number(), secretName_.c_str());
}

bool SetAside::remove(bool isDirectory) {
  if (unlinkat(parent_.number(), secretName_.c_str(), isDirectory ? AT_REMOVEDIR : 0) != 0) {
    return false;
  }
  isGone_ = true;
  return true;
}

}  // namespace kelvane::directoryCache
