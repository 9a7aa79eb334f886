// SPDX-License-Identifier: Apache-2.0
// Paths that lead through file systems that may never answer.
#pragma once

#include <sys/types.h>

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

  bool isSame(const FileIdentity& other) const { return device == other.device && inode == other.inode; }
};

/// Of an open file, or of what a link of /proc leads to, by what the kernel knows of it: never waits.
[[nodiscard]] Result<FileIdentity> identityOf(const FileDescriptor& file);
[[nodiscard]] Result<FileIdentity> identityAt(const std::string& link);

/// Enters the file system that an open file lies on; ETIMEDOUT when that may not be.
[[nodiscard]] Result<> enterFileSystemOf(FileSystemProbe::Visit& visit, const FileDescriptor& file,
                                         const std::string& path);

/// The file at a path, opened as no more than a place (O_PATH). Symbolic links are followed, and each file system on
/// the way is entered before it is asked, the last one, too. leadsNowhere, if given, is set when it fails for want of
/// something that a link on the way leads to.
[[nodiscard]] Result<FileDescriptor> walkTo(FileSystemProbe::Visit& visit, const std::string& path,
                                            bool* leadsNowhere = nullptr);

/// What the path leads to, by way of the probe.
[[nodiscard]] Result<FileIdentity> askIdentity(const std::string& path);

}  // namespace kelvane
