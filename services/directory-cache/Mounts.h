// SPDX-License-Identifier: Apache-2.0
// Which mount a path is on, without asking its file system.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace kelvane::directoryCache {

/// The mounts of this namespace as they were when this was made. Nothing here waits for a file system that hangs.
class Mounts {
 public:
  /// From text of the form of /proc/self/mountinfo.
  explicit Mounts(const std::string& text);
  static Mounts ofThisProcess();

  /// Whether a path is, going by its name, on another device than what is mounted at the volume's path. False when
  /// nothing is mounted there.
  bool isElsewhere(const std::string& path, const std::string& volume) const;
  /// Whether two mounts, by their numbers, are of one file system. Its parts may have devices of their own, as the
  /// subvolumes of btrfs do. False of mounts that were not there.
  bool areOfOneFileSystem(std::uint64_t one, std::uint64_t other) const;

 private:
  struct Mount {
    std::uint64_t number;
    std::string path;
    /// Major and minor number, as the system writes them.
    std::string device;
  };
  /// The last that was mounted at the longest part of the path, or null.
  const Mount* find(const std::string& path) const;

  std::vector<Mount> mounts_;
};

}  // namespace kelvane::directoryCache
