// SPDX-License-Identifier: Apache-2.0
// Deletes one file, if it is still what it was.
#include "services/directory-cache/Removal.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <string>

#include "services/directory-cache/Descriptor.h"

namespace kelvane::directoryCache {

namespace {

RemovalOutcome outcomeFor(int error) {
  return error == ENOENT || error == ENOTDIR || error == ELOOP ? RemovalOutcome::Changed : RemovalOutcome::Forbidden;
}

/// Opens a file without following a link, waiting for a device or having any effect on it.
Descriptor openFile(const Descriptor& parent, const std::string& name) {
  constexpr int flags = O_NOFOLLOW | O_CLOEXEC;
  Descriptor file(openat(parent.number(), name.c_str(), O_RDONLY | O_NONBLOCK | O_NOCTTY | flags));
  if (!file.isValid() && (errno == EACCES || errno == EPERM)) {
    // Deleting takes no permission to read.
    return Descriptor(openat(parent.number(), name.c_str(), O_PATH | flags));
  }
  return file;
}

/// Asks for a lease that is granted only to the sole opener. It ends with the descriptor; until then, who opens
/// the file waits for us to be through.
bool isOpenElsewhere(const Descriptor& file) {
  // Somebody who opens it now has the system signal us. The default signal would end the process, this one is ignored.
  fcntl(file.number(), F_SETSIG, SIGURG);
  return fcntl(file.number(), F_SETLEASE, F_WRLCK) != 0 && errno == EAGAIN;
}

/// Removes the directories above path that have become empty, the innermost first, but never the root.
void removeEmptyParents(const Tree& tree, std::string path) {
  for (std::size_t slash = path.rfind('/'); slash != std::string::npos; slash = path.rfind('/')) {
    path.resize(slash);
    const Descriptor parent = tree.openParent(path);
    if (!parent.isValid() || unlinkat(parent.number(), lastComponent(path).c_str(), AT_REMOVEDIR) != 0) {
      return;
    }
  }
}

}  // namespace

Removal removeFile(const std::vector<OpenDirectory>& directories, const Candidate& candidate) {
  Descriptor file;
  std::uint64_t bytes = 0;
  // All names are looked at before the first goes: losing some would cost the owner something and free nothing.
  for (const Candidate::Link& link : candidate.links) {
    const Descriptor parent = directories[link.directory].tree.openParent(link.path);
    const std::string name = lastComponent(link.path);
    struct stat status = {};
    if (!parent.isValid() || fstatat(parent.number(), name.c_str(), &status, AT_SYMLINK_NOFOLLOW) != 0) {
      return {outcomeFor(errno)};
    }
    if (!S_ISREG(status.st_mode) || FileKey::of(status) != candidate.key || status.st_nlink != candidate.links.size()) {
      return {RemovalOutcome::Changed};
    }
    if (!file.isValid()) {
      bytes = allocatedBytes(status);
      file = openFile(parent, name);
      if (!file.isValid()) {
        return {outcomeFor(errno)};
      }
    }
  }
  if (isOpenElsewhere(file)) {
    return {RemovalOutcome::InUse};
  }
  for (const Candidate::Link& link : candidate.links) {
    const OpenDirectory& directory = directories[link.directory];
    const Descriptor parent = directory.tree.openParent(link.path);
    if (!parent.isValid() || unlinkat(parent.number(), lastComponent(link.path).c_str(), 0) != 0) {
      return {outcomeFor(errno)};
    }
    if (directory.rules->removesEmptyDirectories) {
      removeEmptyParents(directory.tree, link.path);
    }
  }
  return {RemovalOutcome::Removed, bytes};
}

}  // namespace kelvane::directoryCache
