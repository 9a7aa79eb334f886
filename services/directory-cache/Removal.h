// SPDX-License-Identifier: Apache-2.0
// Deletes one file, if it is still what it was.
#pragma once

#include <cstdint>
#include <vector>

#include "services/directory-cache/Candidates.h"
#include "services/directory-cache/Survey.h"

namespace kelvane::directoryCache {

enum class RemovalOutcome {
  Removed,   ///< all names are gone, and the space with them
  InUse,     ///< somebody has it open, so deleting it would free nothing
  Changed,   ///< used, replaced, linked or moved since it was found, or already gone
  Forbidden  ///< the system did not let it go
};

struct Removal {
  RemovalOutcome outcome;
  /// Bytes that were allocated to the file; 0 unless removed.
  std::uint64_t bytes = 0;
};

/// Deletes all names of a file after a last look at each: same file, not used since, open nowhere. Whether it is open
/// can be told only by its owner, and surely only on file systems with leases: on others, processes that this one may
/// not look into are taken not to have it open. Directories that it leaves empty go too where their rules say so.
Removal removeFile(const std::vector<OpenDirectory>& directories, const Candidate& candidate);

}  // namespace kelvane::directoryCache
