// SPDX-License-Identifier: Apache-2.0
// Frees an amount on a volume.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "services/directory-cache/Candidates.h"
#include "services/directory-cache/Configuration.h"
#include "services/directory-cache/Survey.h"
#include "services/directory-cache/VolumeMeter.h"
#include "support/Cancellation.h"

namespace kelvane::directoryCache {

struct PurgeRequest {
  std::int32_t urgency;
  std::uint64_t amount;
  /// Seconds since 1970, from which ages are counted.
  std::int64_t now;
};

struct PurgeResult {
  /// Bytes that the volume gained: never more than was deleted, however much others freed meanwhile.
  std::uint64_t freed = 0;
  std::uint64_t removed = 0;
  std::uint64_t inUse = 0;
  std::uint64_t changed = 0;
  std::uint64_t forbidden = 0;
  /// Directories and files that could not be looked at.
  std::uint64_t unreadable = 0;
  bool cancelled = false;
  /// Ended because deleting brought the volume next to nothing.
  bool isFutile = false;
};

/// Deletes files of some directories of one volume, the least recently used first, until the volume has gained an
/// amount or nothing old enough is left. Used for one purge, on one thread.
class Purger {
 public:
  Purger(const std::vector<OpenDirectory>& directories, VolumeMeter& meter, CandidateBounds bounds);

  PurgeResult purge(const PurgeRequest& request, const Cancellation& cancellation);

 private:
  bool isSatisfied(std::uint64_t amount);
  void settle();
  void remove(const Candidate& candidate, std::vector<std::uint64_t>& allowances);

  const std::vector<OpenDirectory>& directories_;
  VolumeMeter& meter_;
  const CandidateBounds bounds_;
  const std::uint64_t freeBefore_;
  /// Of the files deleted so far, what was allocated to them.
  std::uint64_t deleted_ = 0;
  /// What was deleted and what the volume had gained when it was last measured.
  std::uint64_t deletedWhenMeasured_ = 0;
  std::uint64_t gained_ = 0;
  PurgeResult result_;
};

}  // namespace kelvane::directoryCache
