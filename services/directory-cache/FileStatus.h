// SPDX-License-Identifier: Apache-2.0
// What the file system tells of a file at a moment.
#pragma once

#include <sys/types.h>

#include <compare>
#include <cstdint>
#include <optional>

#include "services/directory-cache/Descriptor.h"

namespace kelvane::directoryCache {

/// Since 1970.
struct FileTime {
  std::int64_t seconds = 0;
  std::uint32_t nanoseconds = 0;

  friend auto operator<=>(const FileTime&, const FileTime&) = default;
};

/// Which of a file's times count as its use.
struct Clocks {
  bool access = true;
  bool modification = true;
  bool change = true;
  bool birth = true;

  friend bool operator==(const Clocks&, const Clocks&) = default;
};

struct FileStatus {
  dev_t device = 0;
  ino_t inode = 0;
  /// Where the system tells.
  std::optional<std::uint64_t> mount;
  mode_t mode = 0;
  uid_t owner = 0;
  /// How many names the file has, wherever they are.
  nlink_t links = 0;
  /// Bytes on disk, which is what deleting it can free: not a sparse file's size.
  std::uint64_t allocated = 0;
  FileTime accessed;
  FileTime modified;
  FileTime changed;
  /// Where the file system keeps account of it.
  std::optional<FileTime> born;
  /// Made immutable or append-only: the file can't go, nor can what is in the directory.
  bool isFixed = false;

  bool isRegular() const;
  bool isDirectory() const;
  bool isSameFile(const FileStatus& other) const { return device == other.device && inode == other.inode; }
  /// The latest of the times that count; the earliest there is if none does.
  FileTime lastUse(const Clocks& clocks) const;
};

/// Of what has this name in a directory, without following a link; none with the reason in errno.
[[nodiscard]] std::optional<FileStatus> statusAt(int directory, const char* name);
/// Of something open.
[[nodiscard]] std::optional<FileStatus> statusOf(const Descriptor& descriptor);

}  // namespace kelvane::directoryCache
