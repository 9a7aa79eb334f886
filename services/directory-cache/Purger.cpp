// SPDX-License-Identifier: Apache-2.0
// Frees an amount on a volume.
#include "services/directory-cache/Purger.h"

#include <algorithm>
#include <optional>
#include <utility>

#include "services/directory-cache/Removal.h"

namespace kelvane::directoryCache {

namespace {

/// Deleting goes on only while it brings at least this part of what was allocated. It does not when files share
/// their blocks with copies elsewhere, or when others write as fast as space comes free.
constexpr std::uint64_t leastYieldDivisor = 8;

}  // namespace

Purger::Purger(const std::vector<OpenDirectory>& directories, VolumeMeter& meter, CandidateBounds bounds)
    : directories_(directories), meter_(meter), bounds_(bounds), freeBefore_(meter.freeBytes()) {}

PurgeResult Purger::purge(const PurgeRequest& request, const Cancellation& cancellation) {
  std::optional<FileKey> after;
  bool isDone = request.amount == 0;
  while (!isDone) {
    Candidates candidates(bounds_, after);
    SurveyResult found = survey(directories_, request.urgency, request.now, cancellation,
                                [&](FoundLink link) { candidates.offer(std::move(link)); });
    result_.unreadable = found.unreadable;
    result_.cancelled = found.cancelled;
    Candidates::Round round = candidates.take();
    for (const Candidate& candidate : round.candidates) {
      if (isSatisfied(request.amount)) {
        break;
      }
      result_.cancelled = result_.cancelled || cancellation.isCancelled();
      if (result_.cancelled) {
        break;
      }
      remove(candidate, found.allowances);
    }
    after = round.next;
    isDone = result_.cancelled || !after || isSatisfied(request.amount);
  }
  settle();
  result_.freed = std::min(deleted_, gained_);
  return result_;
}

bool Purger::isSatisfied(std::uint64_t amount) {
  // What was deleted since the last measurement is enough only if all of it counts, so it is measured.
  if (!result_.isFutile && deleted_ - deletedWhenMeasured_ + gained_ >= amount) {
    settle();
  }
  return result_.isFutile || gained_ >= amount;
}

void Purger::settle() {
  const std::uint64_t batch = deleted_ - deletedWhenMeasured_;
  if (batch == 0) {
    return;
  }
  const std::uint64_t least = gained_ + batch / leastYieldDivisor;
  const std::uint64_t free = meter_.settledFree(freeBefore_ + gained_ + batch, freeBefore_ + least);
  const std::uint64_t gained = free > freeBefore_ ? free - freeBefore_ : 0;
  result_.isFutile = gained < least;
  gained_ = gained;
  deletedWhenMeasured_ = deleted_;
}

void Purger::remove(const Candidate& candidate, std::vector<std::uint64_t>& allowances) {
  // The allowances were reckoned by name; a file of several names takes its part from each directory that has one.
  const std::uint64_t share = candidate.allocated / candidate.links.size();
  std::vector<std::uint64_t> left = allowances;
  for (const Candidate::Link& link : candidate.links) {
    if (left[link.directory] < share) {
      return;
    }
    left[link.directory] -= share;
  }
  for (const Candidate::Link& link : candidate.links) {
    ToolLock* const lock = directories_[link.directory].lock.get();
    if (lock != nullptr && !lock->hold()) {
      ++result_.inUse;
      return;
    }
  }
  const Removal removal = removeFile(directories_, candidate);
  switch (removal.outcome) {
    case RemovalOutcome::Removed:
      ++result_.removed;
      deleted_ += removal.bytes;
      allowances = std::move(left);
      break;
    case RemovalOutcome::InUse:
      ++result_.inUse;
      break;
    case RemovalOutcome::Changed:
      ++result_.changed;
      break;
    case RemovalOutcome::Forbidden:
      ++result_.forbidden;
      break;
  }
}

}  // namespace kelvane::directoryCache
