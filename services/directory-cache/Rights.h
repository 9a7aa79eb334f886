// SPDX-License-Identifier: Apache-2.0
// What this process may delete, and where it should not.
#pragma once

#include <sys/types.h>

#include <optional>
#include <string>

#include "services/directory-cache/Descriptor.h"
#include "services/directory-cache/FileStatus.h"

namespace kelvane::directoryCache {

/// What the calling thread may do with entries of directories, as it is when this is made.
class Rights {
 public:
  Rights();

  bool isRoot() const { return user_ == 0; }
  /// Whether entries may be taken out of an open directory, those of anybody else in a sticky one aside.
  bool mayChange(int directory, const FileStatus& status) const;
  /// Whether a file may go from a directory that may be changed, and it can be told whether somebody has it open:
  /// only its owner can.
  bool mayRemove(const FileStatus& directory, const FileStatus& file) const;

 private:
  uid_t user_;
  bool isAboveOwners_;
  bool mayLease_;
};

/// Whether anybody but root may give a directory other entries.
bool isWritableByOthers(const FileStatus& directory);
/// Which directory on an absolute path, the last one included, anybody but root may change so that the path leads
/// somewhere else; none if there is none. Sticky directories of root's on the way are not among them.
std::optional<std::string> writableByOthers(const std::string& path);

}  // namespace kelvane::directoryCache
