// SPDX-License-Identifier: Apache-2.0
// The mounts that a path can lead to, and which of them hold data that can be freed.
#include "platform/linux/volumes/MountTable.h"

#include <libmount/libmount.h>
#include <sys/sysmacros.h>

#include <algorithm>
#include <cerrno>
#include <iterator>
#include <map>
#include <memory>
#include <string_view>
#include <utility>

namespace kelvane {

namespace {

/// What the table says of one mount.
struct Mount {
  int identifier;
  int parent;
  std::string path;
  VolumeMount volume;
  bool isVolume;
  /// Whether a walk through it asks somebody who may not answer.
  bool mayHang;
};

struct FreeTable {
  void operator()(libmnt_table* table) const { mnt_unref_table(table); }
};
struct FreeIterator {
  void operator()(libmnt_iter* iterator) const { mnt_free_iter(iterator); }
};

std::string_view text(const char* string) {
  return string == nullptr ? std::string_view() : string;
}

bool hasOption(const char* options, const char* name) {
  char* value = nullptr;
  std::size_t length = 0;
  return options != nullptr && mnt_optstr_get_option(options, name, &value, &length) == 0;
}

/// Read-only is said of the mount, of the file system, or of both; and of an ext4 that has met an error, in a word of
/// its own.
bool isWritable(libmnt_fs* fs) {
  const char* const options = mnt_fs_get_fs_options(fs);
  return !hasOption(mnt_fs_get_vfs_options(fs), "ro") && !hasOption(options, "ro") &&
         !hasOption(options, "emergency_ro");
}

bool isLocal(libmnt_fs* fs) {
  const std::string_view type = text(mnt_fs_get_fstype(fs));
  if (type == "tmpfs") {
    return true;
  }
  // An overlay's space is that of the file system beneath, which is a volume of its own. What libmount
  // takes for pseudo includes that, FUSE and shares of a virtual machine's host.
  if (mnt_fs_is_netfs(fs) != 0 || mnt_fs_is_pseudofs(fs) != 0 || type.starts_with("fuse.")) {
    return false;
  }
  if (major(mnt_fs_get_devno(fs)) != 0) {
    return true;
  }
  // File systems that span devices have an anonymous device number; all but zfs name one of the devices.
  return type == "zfs" || text(mnt_fs_get_source(fs)).starts_with("/dev/");
}

/// The mount points on disks and in the kernel's own file systems are remembered by the kernel. Here it asks.
bool mayHang(libmnt_fs* fs) {
  static constexpr std::string_view others[] = {"9p",    "autofs",   "ceph", "coda",   "gfs2",    "lustre",
                                                "ocfs2", "orangefs", "smb3", "vboxsf", "virtiofs"};
  const std::string_view type = text(mnt_fs_get_fstype(fs));
  return mnt_fs_is_netfs(fs) != 0 || type.starts_with("fuse") || std::ranges::find(others, type) != std::end(others);
}

Result<std::vector<Mount>> readTable(const char* mountInfoFile) {
  const std::unique_ptr<libmnt_table, FreeTable> table(mnt_new_table());
  const std::unique_ptr<libmnt_iter, FreeIterator> iterator(mnt_new_iter(MNT_ITER_FORWARD));
  const int failed = table && iterator ? mnt_table_parse_file(table.get(), mountInfoFile) : -ENOMEM;
  if (failed != 0) {
    return Failure{.number = failed < 0 ? -failed : EIO, .tried = std::string("reading ") + mountInfoFile};
  }
  std::vector<Mount> mounts;
  libmnt_fs* fs = nullptr;
  while (mnt_table_next_fs(table.get(), iterator.get(), &fs) == 0) {
    const std::string path(text(mnt_fs_get_target(fs)));
    mounts.push_back(Mount{.identifier = mnt_fs_get_id(fs),
                           .parent = mnt_fs_get_parent_id(fs),
                           .path = path,
                           .volume = {path, mnt_fs_get_devno(fs), text(mnt_fs_get_root(fs)) == "/"},
                           .isVolume = isWritable(fs) && isLocal(fs),
                           .mayHang = mayHang(fs)});
  }
  return mounts;
}

/// Follows paths through the tree of mounts as the kernel does.
class MountTree {
 public:
  explicit MountTree(const std::vector<Mount>& mounts) {
    for (const Mount& mount : mounts) {
      byIdentifier_.emplace(mount.identifier, &mount);
      children_.emplace(std::pair(mount.parent, std::string_view(mount.path)), &mount);
    }
  }

  /// Whether the mount's path leads to it and not to another one.
  bool isReachable(const Mount& mount) {
    const Mount* above = childAt(mount.identifier, mount.path);
    return (above == nullptr || above == &mount) && isLedTo(mount);
  }

  /// Those that its path leads through and that may hang, the topmost first.
  std::vector<PassedMount> wayTo(const Mount& mount) {
    std::vector<PassedMount> way;
    for (const Mount* passed = lastPassed(mount); passed != nullptr; passed = lastPassed(*passed)) {
      way.push_back({passed->path, passed->volume.device});
    }
    std::ranges::reverse(way);
    return way;
  }

 private:
  /// Whether its path leads that far, whatever lies on top of it. What has been found out on one way up holds for all
  /// others: mounts may lie in stacks, or within each other, of thousands.
  bool isLedTo(const Mount& mount) {
    std::vector<int> way;
    bool isLed = true;
    for (const Mount* current = &mount; current != nullptr && isLed;) {
      const auto [known, isNew] = isLedTo_.try_emplace(current->identifier, false);
      if (!isNew) {
        isLed = known->second;
        break;
      }
      way.push_back(current->identifier);
      isLed = !isCoveredInParent(*current);
      current = parentOf(*current);
    }
    for (const int identifier : way) {
      isLedTo_[identifier] = isLed;
    }
    return isLed;
  }

  const Mount* parentOf(const Mount& mount) const {
    const auto parent = byIdentifier_.find(mount.parent);
    return parent == byIdentifier_.end() || parent->second == &mount ? nullptr : parent->second;
  }

  /// The one that may hang next above a mount; null when there is none. Remembered, too.
  const Mount* lastPassed(const Mount& mount) {
    std::vector<int> way;
    const Mount* passed = nullptr;
    for (const Mount* current = &mount; current != nullptr;) {
      const auto [known, isNew] = lastPassed_.try_emplace(current->identifier, nullptr);
      if (!isNew) {
        passed = known->second;
        break;
      }
      way.push_back(current->identifier);
      const Mount* parent = parentOf(*current);
      // One that is mounted on the root of another leaves nothing to be walked there.
      if (parent != nullptr && parent->mayHang && parent->path != current->path) {
        passed = parent;
        break;
      }
      current = parent;
    }
    for (const int identifier : way) {
      lastPassed_[identifier] = passed;
    }
    return passed;
  }

  const Mount* childAt(int parent, std::string_view path) const {
    const auto found = children_.find(std::pair(parent, path));
    return found == children_.end() ? nullptr : found->second;
  }

  /// Whether a path that walks the parent mount towards this one is led off by another mount before.
  bool isCoveredInParent(const Mount& mount) const {
    const std::string_view path = mount.path;
    for (std::size_t end = 1; end <= path.size(); ++end) {
      if (end == 1 || end == path.size() || path[end] == '/') {
        const Mount* other = childAt(mount.parent, path.substr(0, end));
        if (other != nullptr && other != &mount && other->identifier != mount.parent) {
          return true;
        }
      }
    }
    return false;
  }

  std::map<int, const Mount*> byIdentifier_;
  std::map<std::pair<int, std::string_view>, const Mount*> children_;
  std::map<int, bool> isLedTo_;
  std::map<int, const Mount*> lastPassed_;
};

}  // namespace

Result<std::vector<VolumeMount>> volumeMounts(const char* mountInfoFile) {
  const Result<std::vector<Mount>> mounts = readTable(mountInfoFile);
  if (!mounts) {
    return mounts.failure();
  }
  MountTree tree(*mounts);
  std::vector<VolumeMount> volumes;
  for (const Mount& mount : *mounts) {
    if (mount.isVolume && tree.isReachable(mount)) {
      volumes.push_back(mount.volume);
      volumes.back().way = tree.wayTo(mount);
    }
  }
  std::ranges::stable_sort(volumes, {},
                           [](const VolumeMount& volume) { return std::pair(volume.way.size(), !volume.isWhole); });
  return volumes;
}

}  // namespace kelvane
