// SPDX-License-Identifier: Apache-2.0
// Finding and reading files.
#pragma once

#include <cstddef>
#include <string>
#include <variant>
#include <vector>

#include "platform/Result.h"
#include "platform/Value.h"

namespace kelvane::files {

/// What is beneath a directory.
struct Listing {
  /// Paths relative to the directory, in name order, a directory before what is in it. Directories are entries too.
  std::vector<std::string> entries;
  /// The directory, or directories in it, that could not be listed, each with the reason, for people. None for one that
  /// is missing.
  std::vector<std::string> failures;
};
/// Symbolic links to directories are followed for the directory itself only.
[[nodiscard]] Listing entriesBeneath(const std::string& directory);

struct Error {
  std::string text;
  /// There is nothing at the path, and no link that leads nowhere.
  bool isMissing = false;
};
/// The contents of a regular file of configuration. An error for anything else (FIFOs and devices are not opened), for
/// what cannot be read, for more than maximumBytes, and for what others than root and the process's user may change:
/// the file, or a directory or link on the way to it.
[[nodiscard]] std::variant<Data, Error> read(const std::string& path, std::size_t maximumBytes);

/// The one name without links, "." or ".." of what a path leads to. A failure when there is nothing, or it can't be
/// found out.
[[nodiscard]] Result<std::string> realPath(const std::string& path);

}  // namespace kelvane::files
