// SPDX-License-Identifier: Apache-2.0
// Mounted volumes, by the mount table and what their file systems say.
#include "platform/Volumes.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <map>

#include "platform/linux/runtime/BlockedScope.h"
#include "platform/linux/runtime/Mutex.h"
#include "platform/linux/volumes/MountVisit.h"
#include "platform/linux/volumes/Mounts.h"
#include "platform/linux/volumes/VolumeMonitor.h"
#include "platform/linux/volumes/VolumeSpace.h"
#include "platform/linux/volumes/VolumeSurvey.h"

namespace kelvane::volumes {

namespace {

/// What a volume said last, for those who ask many times in a row.
class LastAnswers {
 public:
  using Clock = std::chrono::steady_clock;
  static constexpr std::chrono::milliseconds longestAge{1};

  std::optional<Space> of(const VolumeMount& mount) {
    const runtime::Lock lock(mutex_);
    const auto known = answers_.find(mount.device);
    const bool isNew = known != answers_.end() && Clock::now() < known->second.end;
    return isNew ? std::optional(known->second.space) : std::nullopt;
  }

  /// One that took its time may be used for as long.
  void set(const VolumeMount& mount, Clock::time_point asked, const Space& space) {
    const Clock::time_point now = Clock::now();
    const runtime::Lock lock(mutex_);
    std::erase_if(answers_, [now](const auto& entry) { return now >= entry.second.end; });
    const Clock::time_point end = std::max(asked + longestAge, now + (now - asked));
    answers_.insert_or_assign(mount.device, Answer{end, space});
  }

 private:
  struct Answer {
    Clock::time_point end;
    Space space;
  };
  runtime::Mutex mutex_;
  std::map<dev_t, Answer> answers_ KELVANE_GUARDED_BY(mutex_);
};

LastAnswers& lastAnswers() {
  static auto* const answers = new LastAnswers;
  return *answers;
}

bool isSilent(const VolumeMount& mount) {
  return closedUntil(mount) == FileSystemProbe::Time::max();
}

/// Whether a file system is mounted there, not a single file.
bool isDirectory(const VolumeMount& mount) {
  return mount.isWhole || askSpace(mount);
}

/// Beneath a mount point that has been unmounted is another file system, whose space is of no interest.
Result<VolumeMount> mountAt(const std::string& path) {
  const Mounts::Table mounts = Mounts::shared().current();
  const VolumeMount* mount = findMount(*mounts, path);
  return mount != nullptr ? Result<VolumeMount>(*mount) : Failure{.number = ENOENT, .tried = "asking " + path};
}

}  // namespace

bool isUsable(const std::string& path) {
  const runtime::BlockedScope blocked;
  const Mounts::Table known = Mounts::shared().current();
  const VolumeMount* mount = findMount(*known, path);
  // Only what is known to be there is quick to tell: what has become writable by itself is no change of the table.
  const Mounts::Table mounts = mount != nullptr ? known : Mounts::shared().readAgain();
  mount = findMount(*mounts, path);
  return mount != nullptr && !isSilent(*mount) && isDirectory(*mount);
}

std::vector<std::string> local() {
  const runtime::BlockedScope blocked;
  std::vector<std::string> result;
  for (const SpaceAnswer& answer : askEachSpace(*Mounts::shared().readAgain())) {
    if (answer.space) {
      result.push_back(answer.mount.path);
    }
  }
  return result;
}

std::vector<std::string> lowOnSpace() {
  const runtime::BlockedScope blocked;
  const VolumeSurvey survey = surveyVolumes(*Mounts::shared().current());
  std::vector<ReliefPolicy::Sight> low;
  for (const SpaceAnswer& answer : survey.spaces) {
    if (answer.space) {
      ReliefPolicy::Sight sight(answer.mount, *answer.space, survey.levels);
      if (sight.level() != SpaceLevel::Ample) {
        low.push_back(std::move(sight));
      }
    }
  }
  std::stable_sort(low.begin(), low.end(), [](const ReliefPolicy::Sight& left, const ReliefPolicy::Sight& right) {
    return left.space.available < right.space.available;
  });
  return VolumeMonitor::shared().volumesToRelieve(low);
}

Relief beginRelief(const std::string& path) {
  const runtime::BlockedScope blocked;
  const auto mount = mountAt(path);
  const VolumeSurvey survey = surveyVolumes(mount ? std::vector{*mount} : std::vector<VolumeMount>());
  for (const SpaceAnswer& answer : survey.spaces) {
    VolumeMonitor::shared().beginRelief(answer.mount, answer.space, survey.levels);
  }
  return survey.levels.relief(path);
}

Result<Space> space(const std::string& path) {
  const auto mount = mountAt(path);
  if (!mount) {
    return mount.failure();
  }
  const auto asked = LastAnswers::Clock::now();
  auto space = askSpace(*mount);
  if (space) {
    lastAnswers().set(*mount, asked, *space);
  }
  return space;
}

std::vector<Result<Space>> recentSpaces(const std::vector<std::string>& paths) {
  std::vector<Result<VolumeMount>> mounts;
  std::map<dev_t, Space> known;
  std::vector<VolumeMount> unknown;
  for (const std::string& path : paths) {
    const auto& mount = mounts.emplace_back(mountAt(path));
    if (const auto recent = mount ? lastAnswers().of(*mount) : std::nullopt) {
      known.insert_or_assign(mount->device, *recent);
    } else if (mount) {
      unknown.push_back(*mount);
    }
  }
  if (!unknown.empty()) {
    const runtime::BlockedScope blocked;
    const auto asked = LastAnswers::Clock::now();
    for (const SpaceAnswer& answer : askEachSpace(unknown)) {
      if (answer.space) {
        lastAnswers().set(answer.mount, asked, *answer.space);
        known.insert_or_assign(answer.mount.device, *answer.space);
      }
    }
  }
  std::vector<Result<Space>> spaces;
  for (const auto& mount : mounts) {
    const auto found = mount ? known.find(mount->device) : known.end();
    spaces.push_back(found != known.end() ? Result<Space>(found->second)
                     : mount              ? Failure{.number = ETIMEDOUT, .tried = "asking " + mount->path}
                                          : mount.failure());
  }
  return spaces;
}

}  // namespace kelvane::volumes
