// SPDX-License-Identifier: Apache-2.0
// Paths that lead through file systems that may never answer.
#pragma once

#include <sys/types.h>

#include <optional>
#include <string>

#include "platform/Result.h"
#include "platform/linux/runtime/FileDescriptor.h"
#include "platform/linux/volumes/FileSystemProbe.h"

namespace kelvane {

/// What tells a file from every other.
struct FileIdentity {
  dev_t device = 0;
  ino_t inode = 0;
  mode_t mode = 0;
  uid_t owner = 0;

  bool isSame(const FileIdentity& other) const { return device == other.device && inode == other.inode; }
};

/// Of an open file, or of what a link of /proc leads to, by what the kernel knows of it: never waits.
[[nodiscard]] Result<FileIdentity> identityOf(const FileDescriptor& file);
[[nodiscard]] Result<FileIdentity> identityAt(const std::string& link);

/// The one name without links of an open file, likewise.
[[nodiscard]] Result<std::string> nameOf(const FileDescriptor& file);

/// Enters the file system that a file lies on; ETIMEDOUT when that may not be.
[[nodiscard]] Result<> enterFileSystemOf(FileSystemProbe::Visit& visit, const FileIdentity& file,
                                         const std::string& path);
[[nodiscard]] Result<> enterFileSystemOf(FileSystemProbe::Visit& visit, const FileDescriptor& file,
                                         const std::string& path);

/// What a walk has come across.
struct WalkFindings {
  /// It failed for want of something that a link on the way leads to.
  bool leadsNowhere = false;
  /// The first of all directories and links on the way, and of what they lead to, that others than root and this
  /// process's user may change, and how they may, for people.
  std::optional<std::string> stranger;
};
/// The file at a path, opened as no more than a place (O_PATH). Symbolic links are followed, and each file system on
/// the way is entered before it is asked, the last one, too.
[[nodiscard]] Result<FileDescriptor> walkTo(FileSystemProbe::Visit& visit, const std::string& path,
                                            WalkFindings* findings = nullptr);

/// What the path leads to, by way of the probe.
[[nodiscard]] Result<FileIdentity> askIdentity(const std::string& path);

}  // namespace kelvane
