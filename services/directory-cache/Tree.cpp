// SPDX-License-Identifier: Apache-2.0
// A directory whose files may be deleted, and the walk through it.
#include "services/directory-cache/Tree.h"

#include <dirent.h>
#include <fcntl.h>
#include <fnmatch.h>
#include <linux/openat2.h>
#include <sys/syscall.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <memory>
#include <string_view>

#include "platform/Limits.h"
#include "services/directory-cache/Rights.h"

namespace kelvane::directoryCache {

namespace {

/// Opens a directory beneath another, by a path of any number of components.
Descriptor openBeneath(int directory, const char* path, std::uint64_t flags) {
  open_how how = {};
  how.flags = flags | O_DIRECTORY | O_CLOEXEC;
  how.resolve = RESOLVE_BENEATH | RESOLVE_NO_SYMLINKS | RESOLVE_NO_MAGICLINKS | RESOLVE_NO_XDEV;
  return Descriptor(static_cast<int>(syscall(SYS_openat2, directory, path, &how, sizeof how)));
}

struct CloseDirectory {
  void operator()(DIR* directory) const { closedir(directory); }
};

/// One directory of those that the walk is in.
struct Level {
  std::unique_ptr<DIR, CloseDirectory> directory;
  std::size_t pathLength;
  FileStatus status;
  bool mayChange;
};

/// Whether what an error is about simply is no longer there, or is no longer what it was.
bool isVanished(int error) {
  return error == ENOENT || error == ENOTDIR || error == ELOOP;
}

class Walk {
 public:
  Walk(const WalkRules& rules, const std::function<void(const WalkedFile&)>& visit) : rules_(rules), visit_(visit) {}

  WalkResult run(const Descriptor& root, const Cancellation& cancellation) {
    enter(openBeneath(root.number(), ".", O_RDONLY));
    while (!levels_.empty() && !result_.cancelled) {
      result_.cancelled = cancellation.isCancelled();
      path_.resize(levels_.back().pathLength);
      errno = 0;
      if (const dirent* entry = readdir(levels_.back().directory.get())) {
        look(*entry);
        continue;
      }
      // A directory that fails half way is as good as unreadable; one that was removed reads as empty.
      result_.unreadable += errno != 0 ? 1 : 0;
      levels_.pop_back();
    }
    return result_;
  }

 private:
  void enter(Descriptor descriptor) {
    if (!descriptor.isValid()) {
      // Another volume is none of our business.
      result_.unreadable += isVanished(errno) || errno == EXDEV ? 0 : 1;
      return;
    }
    const std::optional<FileStatus> status = statusOf(descriptor);
    if (!status || (rules_.trustsRootAlone && isWritableByOthers(*status))) {
      ++result_.unreadable;
      return;
    }
    std::unique_ptr<DIR, CloseDirectory> directory(fdopendir(descriptor.number()));
    if (!directory) {
      ++result_.unreadable;
      return;
    }
    const int number = descriptor.release();
    levels_.push_back({std::move(directory), path_.size(), *status, rights_.mayChange(number, *status)});
  }

  void look(const dirent& entry) {
    const std::string_view name = entry.d_name;
    if (name == "." || name == "..") {
      return;
    }
    path_.append(levels_.size() == 1 ? "" : "/").append(name);
    if (isProtected()) {
      return;
    }
    if (path_.size() >= PATH_MAX) {
      ++result_.unreadable;
      return;
    }
    const int parent = dirfd(levels_.back().directory.get());
    if (entry.d_type == DT_DIR) {
      descend(parent, entry.d_name);
      return;
    }
    if (entry.d_type != DT_REG && entry.d_type != DT_UNKNOWN) {
      return;
    }
    const std::optional<FileStatus> status = statusAt(parent, entry.d_name);
    if (!status) {
      result_.unreadable += isVanished(errno) ? 0 : 1;
    } else if (status->isRegular()) {
      const Level& level = levels_.back();
      visit_({path_, *status, level.mayChange && rights_.mayRemove(level.status, *status)});
    } else if (status->isDirectory()) {
      descend(parent, entry.d_name);
    }
  }

  void descend(int parent, const char* name) {
    if (levels_.size() >= static_cast<std::size_t>(limits::directoryDepth)) {
      ++result_.unreadable;
      return;
    }
    enter(openBeneath(parent, name, O_RDONLY));
  }

  bool isProtected() const {
    return std::any_of(rules_.protectedPatterns.begin(), rules_.protectedPatterns.end(),
                       [this](const std::string& pattern) { return fnmatch(pattern.c_str(), path_.c_str(), 0) == 0; });
  }

  const WalkRules& rules_;
  const Rights rights_;
  const std::function<void(const WalkedFile&)>& visit_;
  std::vector<Level> levels_;
  std::string path_;
  WalkResult result_;
};

}  // namespace

std::optional<VolumeIdentity> volumeOf(const Descriptor& descriptor) {
  const std::optional<FileStatus> status = statusOf(descriptor);
  return status ? std::optional(VolumeIdentity{status->device, status->mount}) : std::nullopt;
}

std::optional<VolumeIdentity> volumeAt(const std::string& path) {
  const Descriptor descriptor(::open(path.c_str(), O_PATH | O_CLOEXEC));
  return descriptor.isValid() ? volumeOf(descriptor) : std::nullopt;
}

FileKey FileKey::of(const FileStatus& status, const Clocks& clocks) {
  const FileTime used = status.lastUse(clocks);
  return {used.seconds, used.nanoseconds, status.device, status.inode};
}

std::optional<Tree> Tree::open(const std::string& path) {
  open_how how = {};
  how.flags = O_PATH | O_DIRECTORY | O_CLOEXEC;
  how.resolve = RESOLVE_NO_SYMLINKS;
  Descriptor root(static_cast<int>(syscall(SYS_openat2, AT_FDCWD, path.c_str(), &how, sizeof how)));
  if (!root.isValid()) {
    return std::nullopt;
  }
  return Tree(std::move(root));
}

WalkResult Tree::walk(const WalkRules& rules, const Cancellation& cancellation,
                      const std::function<void(const WalkedFile&)>& visit) const {
  return Walk(rules, visit).run(root_, cancellation);
}

Descriptor Tree::openParent(const std::string& path) const {
  const std::size_t slash = path.rfind('/');
  const std::string parent = slash == std::string::npos ? "." : path.substr(0, slash);
  return openBeneath(root_.number(), parent.c_str(), O_PATH);
}

std::string lastComponent(const std::string& path) {
  return path.substr(path.rfind('/') + 1);
}

}  // namespace kelvane::directoryCache
