// SPDX-License-Identifier: Apache-2.0
// Deletes one file, if it is still what it was.
#include "services/directory-cache/Removal.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <optional>
#include <string>
#include <utility>

#include "services/directory-cache/Descriptor.h"
#include "services/directory-cache/Ending.h"
#include "services/directory-cache/OpenFiles.h"
#include "services/directory-cache/SetAside.h"

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
/// the file waits for us to be through. None when nobody else has it open.
std::optional<RemovalOutcome> leaseAlone(const Descriptor& file, const FileStatus& status) {
  // Somebody who opens it now has the system signal us. The default signal would end the process, this one is ignored.
  fcntl(file.number(), F_SETSIG, SIGURG);
  if (fcntl(file.number(), F_SETLEASE, F_WRLCK) == 0) {
    return std::nullopt;
  }
  if (errno == EAGAIN) {
    return RemovalOutcome::InUse;
  }
  if (errno == EACCES || status.owner != geteuid()) {
    // Somebody else's: it can't be told who has it open.
    return RemovalOutcome::Forbidden;
  }
  // The file system has no leases, or the file may not be read.
  return isOpenInSomeProcess(status.inode, file.number()) ? std::optional(RemovalOutcome::InUse) : std::nullopt;
}

/// Whether somebody waits for the lease to end, or has not waited any longer.
bool isAwaited(const Descriptor& file) {
  const int lease = fcntl(file.number(), F_GETLEASE);
  return lease >= 0 && lease != F_WRLCK;
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

class FileRemoval {
 public:
  FileRemoval(const std::vector<OpenDirectory>& directories, const Candidate& candidate)
      : directories_(directories), candidate_(candidate) {}

  Removal run() {
    if (const auto failure = look()) {
      return {*failure};
    }
    const bool hadLease = fcntl(file_.number(), F_GETLEASE) == F_WRLCK;
    const ending::Unbroken unbroken;
    std::vector<SetAside> names;
    names.reserve(candidate_.links.size());
    for (const Candidate::Link& link : candidate_.links) {
      Descriptor parent = directories_[link.directory].tree.openParent(link.path);
      std::optional<SetAside> name =
          parent.isValid() ? SetAside::take(std::move(parent), lastComponent(link.path)) : std::nullopt;
      if (!name) {
        return {outcomeFor(errno)};
      }
      names.push_back(std::move(*name));
    }
    const bool areSame = std::all_of(names.begin(), names.end(), [this](const SetAside& name) { return isIt(name); });
    if (!areSame || isUsed()) {
      return {RemovalOutcome::Changed};
    }
    if (hadLease && isAwaited(file_)) {
      return {RemovalOutcome::InUse};
    }
    for (SetAside& name : names) {
      if (!name.remove(false)) {
        return {outcomeFor(errno)};
      }
    }
    return {RemovalOutcome::Removed, status_.allocated};
  }

 private:
  /// All names are looked at before anything happens to the first: losing some would cost the owner something and free
  /// nothing. What is opened is what has the name that was looked at first.
  std::optional<RemovalOutcome> look() {
    for (const Candidate::Link& link : candidate_.links) {
      const Descriptor parent = directories_[link.directory].tree.openParent(link.path);
      const std::string name = lastComponent(link.path);
      const auto status = parent.isValid() ? statusAt(parent.number(), name.c_str()) : std::nullopt;
      if (!status) {
        return outcomeFor(errno);
      }
      if (!isUnchanged(*status, link)) {
        return RemovalOutcome::Changed;
      }
      if (!file_.isValid()) {
        file_ = openFile(parent, name);
        const auto opened = file_.isValid() ? statusOf(file_) : std::nullopt;
        if (!opened) {
          return outcomeFor(errno);
        }
        if (!isUnchanged(*opened, link)) {
          return RemovalOutcome::Changed;
        }
        status_ = *opened;
      }
    }
    return leaseAlone(file_, status_);
  }

  bool isUnchanged(const FileStatus& status, const Candidate::Link& link) const {
    return status.isRegular() && FileKey::of(status, directories_[link.directory].rules->clocks) == candidate_.key &&
           status.changed == candidate_.changed && status.links == candidate_.links.size();
  }

  bool isIt(const SetAside& name) const {
    const auto status = name.status();
    return status && status->isSameFile(status_);
  }

  /// Setting aside is a change of the file, but no use.
  bool isUsed() const {
    const auto now = statusOf(file_);
    return !now || now->links != status_.links || now->accessed != status_.accessed ||
           now->modified != status_.modified;
  }

  const std::vector<OpenDirectory>& directories_;
  const Candidate& candidate_;
  /// The file, and what it was when it was opened.
  Descriptor file_;
  FileStatus status_;
};

}  // namespace

Removal removeFile(const std::vector<OpenDirectory>& directories, const Candidate& candidate) {
  const Removal removal = FileRemoval(directories, candidate).run();
  for (const Candidate::Link& link : candidate.links) {
    const OpenDirectory& directory = directories[link.directory];
    if (removal.outcome == RemovalOutcome::Removed && directory.rules->removesEmptyDirectories) {
      removeEmptyParents(directory.tree, link.path);
    }
  }
  return removal;
}

}  // namespace kelvane::directoryCache
