// SPDX-License-Identifier: Apache-2.0
// What could go from a set of directories.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <variant>
#include <vector>

#include "services/directory-cache/Candidates.h"
#include "services/directory-cache/Configuration.h"
#include "services/directory-cache/ToolLock.h"
#include "services/directory-cache/Tree.h"
#include "support/Cancellation.h"

namespace kelvane::directoryCache {

/// A configured directory as it is now.
struct OpenDirectory {
  const DirectoryRules* rules;
  Tree tree;
  /// Null when the rules name none.
  std::unique_ptr<ToolLock> lock;
};

/// What is done with the locks of directories: queries only look at them.
enum class LockUse { Look, Hold };

/// For root, which directory on the path others may change although the rules do not expect it; none for anybody else.
std::optional<std::string> writableForRoot(const DirectoryRules& rules);

/// Why a directory is not looked at.
struct LeftDirectory {
  std::string why;
  /// It comes and goes, and needs nobody's attention.
  bool isOrdinary = false;
};
/// Opens a directory that may be worked on now.
std::variant<OpenDirectory, LeftDirectory> openDirectory(const DirectoryRules& rules, LockUse lockUse);

/// Opens those of the directories that are on the volume with this mount point. One that cannot be opened is left out
/// and logged, and so is one that is locked or not to be trusted, but for one that does not exist: caches come and go.
std::vector<OpenDirectory> openDirectoriesOn(const std::string& volume, const std::vector<DirectoryRules>& directories,
                                             LockUse lockUse = LockUse::Hold);

struct SurveyResult {
  /// For each directory, how many bytes may go before only the ones to keep are left.
  std::vector<std::uint64_t> allowances;
  std::uint64_t unreadable = 0;
  bool cancelled = false;
};

/// Looks at every file of the directories and shows the names of those that this process may delete and that are old
/// enough at the urgency, seen from now (seconds since 1970).
SurveyResult survey(const std::vector<OpenDirectory>& directories, std::int32_t urgency, std::int64_t now,
                    const Cancellation& cancellation, const std::function<void(FoundLink)>& visit);

/// How many bytes a purge at the urgency could free. A file with names elsewhere counts for nothing.
std::uint64_t purgeableBytes(const std::vector<OpenDirectory>& directories, std::int32_t urgency, std::int64_t now,
                             const Cancellation& cancellation);

}  // namespace kelvane::directoryCache
