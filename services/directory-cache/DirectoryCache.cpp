// SPDX-License-Identifier: Apache-2.0
// The service: directories of files that may be deleted when space runs out.
#include "services/directory-cache/DirectoryCache.h"

#include <string>
#include <utility>

#include "platform/Clock.h"
#include "platform/Limits.h"
#include "platform/Reporting.h"
#include "services/directory-cache/LogNames.h"
#include "services/directory-cache/Purger.h"
#include "services/directory-cache/Survey.h"
#include "services/directory-cache/VolumeMeter.h"

namespace kelvane::directoryCache {

namespace {

constexpr std::int64_t jumpWorthTellingSeconds = 60;

std::int64_t secondsNow() {
  return static_cast<std::int64_t>(clock::now().secondsSince1970);
}

std::string summary(const SpaceRequest& request, const PurgeResult& result) {
  std::string text = "freed " + std::to_string(result.freed) + " of " + std::to_string(request.amount) + " bytes on " +
                     request.volume + " at urgency " + std::to_string(request.urgency) + ": " +
                     std::to_string(result.removed) + " files deleted";
  const std::pair<std::uint64_t, const char*> counts[] = {
      {result.inUse, " in use"},
      {result.changed, " changed meanwhile"},
      {result.forbidden, " not allowed to delete"},
      {result.unreadable, " files or directories not readable or not trusted"},
  };
  for (const auto& [count, what] : counts) {
    if (count != 0) {
      text += ", " + std::to_string(count) + what;
    }
  }
  if (result.isFutile) {
    text += "; ended because deleting gained the volume next to nothing";
  }
  return text + (result.cancelled ? "; cancelled" : "");
}

}  // namespace

DirectoryCache::DirectoryCache(Configuration configuration)
    : KelvaneService(std::move(configuration.service)),
      directories_(std::move(configuration.directories)),
      steadyDate_(secondsNow(), SteadyDate::secondsSinceBoot()) {}

std::int64_t DirectoryCache::dateFor(std::int32_t urgency) {
  const std::int64_t clock = secondsNow();
  const std::int64_t steady = steadyDate_.at(clock, SteadyDate::secondsSinceBoot());
  if (urgency > mildestUrgency) {
    return clock;
  }
  if (clock - steady > jumpWorthTellingSeconds) {
    reporting::writeLog(
        logLevels::warning, logCategory, "DirectoryCache::dateFor",
        "the clock has jumped ahead by " + std::to_string(clock - steady) +
            " s since this began, so ages at urgency 1 count without that; started anew, it believes it");
  }
  return steady;
}

std::optional<std::uint64_t> DirectoryCache::purgeable(const SpaceRequest& request, const Cancellation& cancellation) {
  return purgeableBytes(openDirectoriesOn(request.volume, directories_, LockUse::Look), request.urgency,
                        dateFor(request.urgency), cancellation);
}

std::uint64_t DirectoryCache::purge(const SpaceRequest& request, const Cancellation& cancellation) {
  const std::vector<OpenDirectory> directories = openDirectoriesOn(request.volume, directories_);
  if (directories.empty()) {
    return 0;
  }
  MountedVolumeMeter meter(request.volume, directories.front().tree.root());
  Purger purger(directories, meter, {limits::cacheCandidates, limits::cacheCandidateBytes});
  const PurgeResult result = purger.purge({request.urgency, request.amount, dateFor(request.urgency)}, cancellation);
  reporting::writeLog(logLevels::notice, logCategory, "DirectoryCache::purge", summary(request, result));
  return result.freed;
}

void DirectoryCache::notify(const std::string& name, const Value& value) {
  reporting::writeLog(logLevels::notice, logCategory, "DirectoryCache::notify",
                      "notified of " + name + ": " + value.description());
}

}  // namespace kelvane::directoryCache
