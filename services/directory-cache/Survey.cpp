// SPDX-License-Identifier: Apache-2.0
// What could go from a set of directories.
#include "services/directory-cache/Survey.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <optional>
#include <utility>

#include "platform/Limits.h"
#include "platform/Reporting.h"
#include "services/directory-cache/LogNames.h"
#include "services/directory-cache/Mounts.h"
#include "services/directory-cache/Rights.h"

namespace kelvane::directoryCache {

std::optional<std::string> writableForRoot(const DirectoryRules& rules) {
  return rules.othersMayWrite || !Rights().isRoot() ? std::nullopt : writableByOthers(rules.path);
}

std::variant<OpenDirectory, LeftDirectory> openDirectory(const DirectoryRules& rules, LockUse lockUse) {
  std::optional<Tree> tree = Tree::open(rules.path);
  if (!tree) {
    return LeftDirectory{errno == ELOOP ? "a symbolic link is on the way" : std::strerror(errno), errno == ENOENT};
  }
  if (const auto writable = writableForRoot(rules)) {
    return LeftDirectory{"others may write to " + *writable + ", so root deletes nothing there"};
  }
  auto lock = rules.lock.empty() ? nullptr : std::make_unique<ToolLock>(rules.lock);
  if (lock && !(lockUse == LockUse::Hold ? lock->hold() : lock->isFree())) {
    return LeftDirectory{rules.lock + " is locked, or may not be opened", true};
  }
  return OpenDirectory{&rules, std::move(*tree), std::move(lock)};
}

std::vector<OpenDirectory> openDirectoriesOn(const std::string& volume, const std::vector<DirectoryRules>& directories,
                                             LockUse lockUse) {
  std::vector<OpenDirectory> open;
  const std::optional<VolumeIdentity> asked = volumeAt(volume);
  if (!asked) {
    return open;
  }
  const Mounts mounts = Mounts::ofThisProcess();
  const auto isAsked = [&](const VolumeIdentity& volume) {
    return volume.isSame(*asked) ||
           (volume.mount && asked->mount && mounts.areOfOneFileSystem(*volume.mount, *asked->mount));
  };
  for (const DirectoryRules& rules : directories) {
    // Another volume may hang, and is not asked.
    if (mounts.isElsewhere(rules.path, volume)) {
      continue;
    }
    const std::optional<VolumeIdentity> here = volumeAt(rules.path);
    if (here && !isAsked(*here)) {
      continue;
    }
    auto opened = openDirectory(rules, lockUse);
    if (const auto* left = std::get_if<LeftDirectory>(&opened)) {
      if (here || !left->isOrdinary) {
        reporting::writeLog(left->isOrdinary ? logLevels::notice : logLevels::warning, logCategory, "openDirectoriesOn",
                            rules.path + ": " + left->why);
      }
      continue;
    }
    OpenDirectory& directory = std::get<OpenDirectory>(opened);
    const std::optional<VolumeIdentity> there = volumeOf(directory.tree.root());
    if (there && isAsked(*there)) {
      open.push_back(std::move(directory));
    }
  }
  return open;
}

SurveyResult survey(const std::vector<OpenDirectory>& directories, std::int32_t urgency, std::int64_t now,
                    const Cancellation& cancellation, const std::function<void(FoundLink)>& visit) {
  SurveyResult result;
  for (std::size_t index = 0; index < directories.size() && !result.cancelled; ++index) {
    const DirectoryRules& rules = *directories[index].rules;
    std::uint64_t total = 0;
    const WalkRules walk = {rules.protectedPatterns, !rules.othersMayWrite && Rights().isRoot()};
    const WalkResult walked = directories[index].tree.walk(walk, cancellation, [&](const WalkedFile& file) {
      const FileStatus& status = file.status;
      total += status.allocated / std::max<std::uint64_t>(status.links, 1);
      if (file.mayGo && rules.isOldEnough(status, urgency, now)) {
        const FileKey key = FileKey::of(status, rules.clocks);
        visit({key, index, file.path, status.allocated, status.links, status.changed});
      }
    });
    result.allowances.push_back(total > rules.keepBytes ? total - rules.keepBytes : 0);
    result.unreadable += walked.unreadable;
    result.cancelled = walked.cancelled;
  }
  return result;
}

std::uint64_t purgeableBytes(const std::vector<OpenDirectory>& directories, std::int32_t urgency, std::int64_t now,
                             const Cancellation& cancellation) {
  std::vector<std::uint64_t> oldEnough(directories.size());
  // Only names that need others to go with them have to be remembered.
  Candidates shared({limits::cacheCandidates, limits::cacheCandidateBytes}, std::nullopt);
  const SurveyResult result = survey(directories, urgency, now, cancellation, [&](FoundLink link) {
    if (link.links == 1) {
      oldEnough[link.directory] += link.allocated;
    } else {
      shared.offer(std::move(link));
    }
  });
  for (const Candidate& candidate : shared.take().candidates) {
    for (const Candidate::Link& link : candidate.links) {
      oldEnough[link.directory] += candidate.allocated / candidate.links.size();
    }
  }
  std::uint64_t bytes = 0;
  for (std::size_t index = 0; index < result.allowances.size(); ++index) {
    bytes += std::min(oldEnough[index], result.allowances[index]);
  }
  return bytes;
}

}  // namespace kelvane::directoryCache
