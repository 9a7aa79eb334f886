// SPDX-License-Identifier: Apache-2.0
// The file that a cache's own program locks while it works.
#pragma once

#include <string>
#include <utility>

#include "services/directory-cache/Descriptor.h"

namespace kelvane::directoryCache {

/// A lock file of somebody else's; it is never made. Locks of both kinds count, fcntl's and flock's. Where there is no
/// such file nobody can have locked it. One that may not be opened, or is reached through a symbolic link, counts as
/// locked.
class ToolLock {
 public:
  explicit ToolLock(std::string path) : path_(std::move(path)) {}

  /// Asks without keeping the program from its lock, but for the moment that flock takes to tell.
  bool isFree() const;
  /// Takes both locks, until the end of this object, if that has not been done with the file that is there now. False
  /// when somebody else has one.
  [[nodiscard]] bool hold();

 private:
  std::string path_;
  Descriptor held_;
};

}  // namespace kelvane::directoryCache
