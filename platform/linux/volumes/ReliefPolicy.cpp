// SPDX-License-Identifier: Apache-2.0
// When volumes are looked at, and when a shortage of theirs is announced.
#include "platform/linux/volumes/ReliefPolicy.h"

#include <sys/sysmacros.h>

#include <algorithm>
#include <iterator>
#include <utility>

namespace kelvane {

namespace {

using Duration = ReliefPolicy::Duration;

Duration seconds(double count) {
  return std::chrono::duration_cast<Duration>(std::chrono::duration<double>(count));
}

double inSeconds(Duration duration) {
  return std::chrono::duration<double>(duration).count();
}

std::uint64_t difference(std::uint64_t one, std::uint64_t other) {
  return one > other ? one - other : other - one;
}

}  // namespace

ReliefPolicy::Sight::Sight(const VolumeMount& mount, const volumes::Space& volumeSpace, const VolumeLevels& levels,
                           bool areTold)
    : volume(mount.path),
      device(mount.device),
      space(volumeSpace),
      marks(levels.marks(mount.path, volumeSpace.size)),
      writesAreTold(areTold) {}

void ReliefPolicy::look(Time now, const std::vector<Sight>& sights, const std::vector<VolumeMount>& unasked) {
  const bool isFirst = lastLook_ == Time::min();
  lastLook_ = now;
  keepOnly(sights, unasked, now);
  for (const Sight& sight : sights) {
    Volume& volume = volumes_.try_emplace(sight.volume, takeUnmounted(sight)).first->second;
    see(volume, now, sight);
    volume.isUnasked = false;
    if (isFirst && volume.level != SpaceLevel::Ample) {
      // Nothing was crossed just now.
      volume.pausedUntil = now + pauseAtStart;
      volume.wasVeryLow = volume.level == SpaceLevel::VeryLow;
    }
  }

  judgeRuns(now);
  for (auto& [name, volume] : volumes_) {
    considerRecovery(volume);
  }
}

/// What is mounted no more keeps its pause, should it be mounted again; but without a device of its own it will be
/// another one, with any number.
void ReliefPolicy::keepOnly(const std::vector<Sight>& sights, const std::vector<VolumeMount>& unasked, Time now) {
  std::map<std::string, Volume> kept;
  const auto keep = [&](const std::string& name, dev_t device) -> Volume* {
    const auto known = volumes_.find(name);
    const bool isSame = known != volumes_.end() && known->second.device == device;
    return isSame ? &kept.insert(volumes_.extract(known)).position->second : nullptr;
  };
  for (const Sight& sight : sights) {
    keep(sight.volume, sight.device);
  }
  for (const VolumeMount& mount : unasked) {
    if (Volume* volume = keep(mount.path, mount.device)) {
      volume->isUnasked = true;
    }
  }
  for (auto& [name, volume] : volumes_) {
    if (major(volume.device) != 0) {
      volume.run = noRun;
      volume.isTaken = volume.hasGained = false;
      unmounted_.insert_or_assign(volume.device, std::move(volume));
    }
  }
  volumes_ = std::move(kept);
  std::erase_if(unmounted_, [now](const auto& entry) { return now >= entry.second.pausedUntil; });
}

/// In the same drive may be another disk by now, which has another size, or not as much of it available.
ReliefPolicy::Volume ReliefPolicy::takeUnmounted(const Sight& sight) {
  const auto known = volumes_.contains(sight.volume) ? unmounted_.end() : unmounted_.find(sight.device);
  const bool isSame = known != unmounted_.end() && known->second.size == sight.space.size &&
                      difference(known->second.available, sight.space.available) < leastGain;
  return isSame ? std::move(unmounted_.extract(known).mapped()) : Volume();
}

void ReliefPolicy::judgeRuns(Time now) {
  for (auto entry = runs_.begin(); entry != runs_.end();) {
    const auto& [run, times] = *entry;
    if (!times.ended || *times.ended > now) {
      ++entry;
      continue;
    }
    if (run == ownRun_) {
      ownRun_ = noRun;
    }
    bool isJudged = true;
    for (auto& [name, volume] : volumes_) {
      if (volume.run == run && volume.seen >= *times.ended) {
        judge(volume, times);
      }
      isJudged = isJudged && volume.run != run;
    }
    entry = isJudged ? runs_.erase(entry) : std::next(entry);
  }
}

void ReliefPolicy::see(Volume& volume, Time now, const Sight& sight) {
  const std::uint64_t available = sight.space.available;
  if (volume.device != sight.device) {
    volume.device = sight.device;
    volume.seen = volume.changed = volume.changedMuch = now;
    volume.available = volume.availableThen = available;
  }
  if (available != volume.available) {
    volume.changed = now;
  }
  if (now > volume.seen) {
    const double filled = static_cast<double>(volume.available) - static_cast<double>(available);
    // A burst is not over with the first quiet moment.
    volume.bytesPerSecond = std::max(filled / inSeconds(now - volume.seen), volume.bytesPerSecond / 2);
  }
  if (difference(available, volume.availableThen) >= leastGain) {
    volume.changedMuch = now;
    volume.availableThen = available;
  }
  volume.seen = now;
  volume.writesAreTold = sight.writesAreTold;
  volume.size = sight.space.size;
  volume.available = available;
  volume.marks = sight.marks;
  volume.level = sight.level();
  if (volume.level != SpaceLevel::Ample) {
    volume.lastLow = now;
  }
  // Also while the run is under way: by its end a writer may have used the gain up again.
  if (volume.isTaken && volume.availableAtBegin && available >= *volume.availableAtBegin + leastGain) {
    volume.hasGained = true;
  }
}

void ReliefPolicy::judge(Volume& volume, const RunTimes& times) {
  volume.run = noRun;
  if (!std::exchange(volume.isTaken, false)) {
    if (times.isOwn) {
      // By the time it was to be relieved it was no longer low; it may be to and fro about its mark.
      volume.pausedUntil = std::max(volume.pausedUntil, *times.ended + shortestPause);
    }
    return;
  }
  volume.ended = *times.ended;
  volume.took = *times.ended - times.begun;
  if (std::exchange(volume.hasGained, false)) {
    volume.fruitless = {};
    volume.wasVeryLow = volume.level == SpaceLevel::VeryLow;
    if (volume.level == SpaceLevel::Ample) {
      volume.pausedUntil = volume.ended;
      return;
    }
  } else {
    volume.fruitless = std::clamp(std::max(2 * volume.fruitless, volume.took), shortestPause, longestPause);
  }
  volume.pausedUntil = volume.ended + std::max({volume.took, volume.fruitless, shortestPause});
}

void ReliefPolicy::considerRecovery(Volume& volume) {
  if (volume.level != SpaceLevel::Ample || volume.run != noRun || !volume.lastLow) {
    return;
  }
  if (volume.seen - *volume.lastLow >= std::max({volume.fruitless, volume.took, pauseAfterRecovery})) {
    volume.lastLow.reset();
    volume.fruitless = {};
    volume.took = {};
    volume.wasVeryLow = false;
    volume.pausedUntil = volume.seen;
  } else if (volume.available >= volume.marks.highest() + volume.marks.highest() / 4) {
    // Not merely to and fro about the mark. Yet neither may files that come and go cause a storm of events.
    volume.pausedUntil = std::min(volume.pausedUntil, volume.ended + std::max(volume.took, pauseAfterRecovery));
  }
}

bool ReliefPolicy::isDue(const Volume& volume, Time now) {
  return !volume.isUnasked && volume.level != SpaceLevel::Ample && volume.run == noRun && now >= dueTime(volume);
}

ReliefPolicy::Time ReliefPolicy::dueTime(const Volume& volume) {
  return volume.level == SpaceLevel::VeryLow && !volume.wasVeryLow ? Time::min() : volume.pausedUntil;
}

bool ReliefPolicy::isPromising(const Volume& volume, Time now) {
  // One that has had to stand back for so long is given the chance, too.
  return volume.fruitless == Duration::zero() || now - longestPause >= dueTime(volume);
}

std::optional<ReliefPolicy::Event> ReliefPolicy::nextEvent(Time now) {
  if (ownRun_ != noRun) {
    return std::nullopt;
  }
  std::vector<Volume*> chosen;
  Volume* fruitless = nullptr;
  for (auto& [name, volume] : volumes_) {
    if (!isDue(volume, now)) {
      continue;
    }
    if (isPromising(volume, now)) {
      chosen.push_back(&volume);
    } else if (fruitless == nullptr || dueTime(volume) < dueTime(*fruitless)) {
      fruitless = &volume;
    }
  }
  if (chosen.empty() && fruitless != nullptr) {
    chosen.push_back(fruitless);
  }
  if (chosen.empty()) {
    return std::nullopt;
  }
  Event event{++lastRun_, SpaceLevel::Low};
  ownRun_ = event.run;
  runs_[event.run] = {now, std::nullopt, true};
  for (Volume* volume : chosen) {
    volume->run = event.run;
    if (volume->level == SpaceLevel::VeryLow) {
      volume->wasVeryLow = true;
      event.level = SpaceLevel::VeryLow;
    }
  }
  return event;
}

ReliefPolicy::Run ReliefPolicy::beginOutside(Time now) {
  const Run run = ++lastRun_;
  runs_[run] = {now, std::nullopt, false};
  unmounted_.clear();
  for (auto& [name, volume] : volumes_) {
    volume.pausedUntil = std::min(volume.pausedUntil, now);
    if (volume.level != SpaceLevel::Ample && volume.run == noRun) {
      volume.run = run;
    }
  }
  return run;
}

bool ReliefPolicy::isFor(Run run, Time now, const Sight& sight) const {
  const auto known = volumes_.find(sight.volume);
  const bool isKnown = known != volumes_.end() && known->second.device == sight.device;
  const bool pauses = isKnown && now < dueTime(known->second);
  if (run == noRun) {
    return !pauses;
  }
  // One that nobody has seen low yet may join.
  const bool isFree = !isKnown || (known->second.run == noRun && !pauses && isPromising(known->second, now));
  return run != ownRun_ || isFree || known->second.run == run;
}

void ReliefPolicy::take(Run run, Time now, const Sight& sight) {
  if (run == noRun) {
    return;
  }
  Volume& volume = volumes_[sight.volume];
  if (volume.device != sight.device) {
    volume = {};
  }
  see(volume, now, sight);
  volume.run = run;
  volume.isTaken = true;
  volume.hasGained = false;
  volume.availableAtBegin = sight.space.available;
  volume.wasVeryLow = volume.wasVeryLow || volume.level == SpaceLevel::VeryLow;
}

void ReliefPolicy::takeUnseen(Run run, const std::string& name) {
  const auto known = volumes_.find(name);
  if (run == noRun || known == volumes_.end()) {
    return;
  }
  Volume& volume = known->second;
  volume.run = run;
  volume.isTaken = true;
  volume.hasGained = false;
  volume.availableAtBegin.reset();
}

void ReliefPolicy::end(Run run, Time now) {
  const auto entry = runs_.find(run);
  if (entry != runs_.end()) {
    entry->second.ended = now;
  }
}

ReliefPolicy::Duration ReliefPolicy::interval(const Volume& volume) {
  // What a run gains may be used up again before its end.
  return volume.writesAreTold && volume.run == noRun ? longestInterval : intervalOfLooks(volume);
}

ReliefPolicy::Duration ReliefPolicy::intervalOfLooks(const Volume& volume) {
  const SpaceMarks& marks = volume.marks;
  std::uint64_t next = 0;
  if (volume.level == SpaceLevel::Ample) {
    next = marks.highest();
    if (next == 0) {
      return longestInterval;
    }
  } else if (volume.level == SpaceLevel::Low && !volume.wasVeryLow) {
    next = marks.veryLow;
  }
  if (next == 0) {
    // There is no crossing to be missed, only a recovery to be noticed.
    constexpr Duration shortest = std::chrono::seconds(1);
    constexpr Duration longestPollOfLow = std::chrono::seconds(30);
    return std::clamp(volume.seen - volume.changedMuch, shortest, longestPollOfLow);
  }
  const double above = static_cast<double>(volume.available) - static_cast<double>(next);
  // It may still be getting faster.
  const double rate = std::max(expectedBytesPerSecond, 2 * volume.bytesPerSecond);
  const Duration byRate = std::min<Duration>(seconds(std::min(above / rate, 1e6)) + tolerance, longestInterval);
  return above > farBytes ? std::max(byRate, farInterval) : byRate;
}

ReliefPolicy::Time ReliefPolicy::nextLook() const {
  Time next = lastLook_ + longestInterval;
  for (const auto& [name, volume] : volumes_) {
    if (volume.isUnasked) {
      continue;
    }
    next = std::min(next, volume.seen + interval(volume));
    if (volume.level != SpaceLevel::Ample && volume.run == noRun && ownRun_ == noRun) {
      next = std::min(next, dueTime(volume));
    }
  }
  return next;
}

bool ReliefPolicy::mayRest(Time now, const std::string& name) const {
  const auto known = volumes_.find(name);
  if (known == volumes_.end()) {
    return false;
  }
  const Volume& volume = known->second;
  return volume.run == noRun && now - volume.changed >= quietTime && volume.seen > volume.changed &&
         intervalOfLooks(volume) < longestInterval;
}

/// Also where it takes no more space: whoever writes in the same place all the time would have it told of all the time.
void ReliefPolicy::noteWrite(Time now, dev_t device) {
  for (auto& [name, volume] : volumes_) {
    if (volume.device == device) {
      volume.writesAreTold = false;
      volume.changed = now;
    }
  }
}

}  // namespace kelvane
