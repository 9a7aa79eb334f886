// SPDX-License-Identifier: Apache-2.0
// A directory whose files may be deleted, and the walk through it.
#pragma once

#include <sys/types.h>

#include <compare>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "services/directory-cache/Descriptor.h"
#include "services/directory-cache/FileStatus.h"
#include "support/Cancellation.h"

namespace kelvane::directoryCache {

/// The file system that something is on: by device, and by mount where devices differ within one file system.
struct VolumeIdentity {
  dev_t device = 0;
  std::optional<std::uint64_t> mount;

  bool isSame(const VolumeIdentity& other) const {
    return device == other.device || (mount && other.mount && *mount == *other.mount);
  }
};

/// Of an open file or directory; none when the system does not tell.
[[nodiscard]] std::optional<VolumeIdentity> volumeOf(const Descriptor& descriptor);
/// Of whatever is at the path; none when it cannot be reached.
[[nodiscard]] std::optional<VolumeIdentity> volumeAt(const std::string& path);

/// When a file was last used, and which file it is. Ordered by time; the rest makes the order total.
struct FileKey {
  std::int64_t seconds = 0;
  std::uint32_t nanoseconds = 0;
  dev_t device = 0;
  ino_t inode = 0;

  static FileKey of(const FileStatus& status, const Clocks& clocks);
  friend auto operator<=>(const FileKey&, const FileKey&) = default;
};

/// What a walk came upon: a regular file.
struct WalkedFile {
  /// Relative to the tree's root. Any bytes but NUL.
  const std::string& path;
  const FileStatus& status;
  /// Whether this process may delete it.
  bool mayGo;
};

struct WalkRules {
  /// Wildcards for paths that are passed over, with all that is beneath a directory that matches.
  std::vector<std::string> protectedPatterns = {};
  /// Whether directories are passed over that anybody but root may write to.
  bool trustsRootAlone = false;
};

struct WalkResult {
  /// Directories and files that could not be looked at, other than by having gone, or that are not trusted.
  std::uint64_t unreadable = 0;
  bool cancelled = false;
};

/// One configured directory, opened. Everything is reached from its descriptor, component by component or with
/// a lookup that cannot leave it: no symbolic link is followed and no mount point crossed, also when somebody
/// moves directories meanwhile. Not for several threads at once.
class Tree {
 public:
  /// None when it cannot be opened, with the reason in errno: ELOOP when a symbolic link is on the way.
  [[nodiscard]] static std::optional<Tree> open(const std::string& path);

  const Descriptor& root() const { return root_; }

  /// Shows every regular file that the rules do not pass over. In no order. Holds as many descriptors as the tree is
  /// deep, and goes no deeper than limits::directoryDepth.
  WalkResult walk(const WalkRules& rules, const Cancellation& cancellation,
                  const std::function<void(const WalkedFile&)>& visit) const;

  /// The directory that holds path; not valid when it is gone or no longer reached without a link.
  Descriptor openParent(const std::string& path) const;

 private:
  explicit Tree(Descriptor root) : root_(std::move(root)) {}

  Descriptor root_;
};

/// The last component of a relative path.
std::string lastComponent(const std::string& path);

}  // namespace kelvane::directoryCache
