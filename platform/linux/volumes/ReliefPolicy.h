// SPDX-License-Identifier: Apache-2.0
// When volumes are looked at, and when a shortage of theirs is announced.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "platform/Volumes.h"
#include "platform/linux/volumes/MountTable.h"
#include "platform/linux/volumes/VolumeLevels.h"

namespace kelvane {

/// Decides about looks, events and pauses; knows neither a clock nor a file system. Guarded by its owner.
///
/// A volume is announced by an event when it enters a level, and again while it stays low. Each event is handled
/// by a run, which takes the low volumes into its hands one by one. When a run is over, a volume that it had in
/// its hands pauses, unless it gained enough to be ample; the pause is at least as long as the run took, and
/// doubles as long as runs gain nothing. So a volume that has nothing to give costs ever less, and as it is
/// announced alone, after those that may have something to give, it holds none of them up.
class ReliefPolicy {
 public:
  using Time = std::chrono::steady_clock::time_point;
  using Duration = std::chrono::steady_clock::duration;
  /// Names the handling of one event.
  using Run = std::uint64_t;
  static constexpr Run noRun = 0;

  /// No two looks are further apart, so that changed levels take effect, and writers are seen that nobody tells of.
  static constexpr Duration longestInterval = std::chrono::minutes(2);
  /// A volume whose space has not changed for so long rests, if somebody will tell when it is written to.
  static constexpr Duration quietTime = std::chrono::seconds(5);
  /// How long a crossing may go unseen, leaving some of a second for the rest of the way to the handler.
  static constexpr Duration tolerance = std::chrono::milliseconds(750);
  /// The rate at which any volume may begin to fill at any moment.
  static constexpr double expectedBytesPerSecond = 500e6;
  /// Volumes that are further above their mark do not shorten the interval below farInterval.
  static constexpr double farBytes = 15e9;
  static constexpr Duration farInterval = std::chrono::milliseconds(30500);
  /// For what is low at the first look: gives services the time to check in, as without any a purge is as long as it is
  /// futile.
  static constexpr Duration pauseAtStart = std::chrono::seconds(10);
  static constexpr Duration shortestPause = std::chrono::seconds(5);
  static constexpr Duration longestPause = std::chrono::hours(1);
  /// What a volume that recovered without help keeps of a longer pause.
  static constexpr Duration pauseAfterRecovery = std::chrono::minutes(1);
  /// Less is no gain, but what comes and goes on any volume.
  static constexpr std::uint64_t leastGain = std::uint64_t{1} << 20;

  /// What there was to see of a volume.
  struct Sight {
    Sight(const VolumeMount& mount, const volumes::Space& volumeSpace, const VolumeLevels& levels,
          bool writesAreTold = false);
    SpaceLevel level() const { return marks.levelAt(space.available); }

    std::string volume;
    dev_t device;
    volumes::Space space;
    SpaceMarks marks;
    /// Whether somebody tells of writes to it that come after this sight.
    bool writesAreTold;
  };

  /// All volumes there are: those seen at this time or later, and those that could not be asked, which stay as they
  /// were last seen. Judges the runs that had ended by then, each volume once it has been seen after the end.
  void look(Time now, const std::vector<Sight>& sights, const std::vector<VolumeMount>& unasked = {});
  struct Event {
    Run run;
    /// The worst of the volumes that it announces.
    SpaceLevel level;
  };
  /// The event to be posted now, if there is one, which begins its run. One such run at a time.
  [[nodiscard]] std::optional<Event> nextEvent(Time now);
  /// Begins the run of an event that somebody else has posted: all pauses are over, and the low volumes in its hands.
  [[nodiscard]] Run beginOutside(Time now);
  /// Whether the run is to relieve this low volume. Without a run: whether the volume is in no pause.
  [[nodiscard]] bool isFor(Run run, Time now, const Sight& sight) const;
  /// The run relieves this volume from now on, which is in its hands until it ends.
  void take(Run run, Time now, const Sight& sight);
  /// As take(), but nothing is known of the volume, nor ever of what it has gained.
  void takeUnseen(Run run, const std::string& volume);
  void end(Run run, Time now);

  /// When to look next, at the latest.
  [[nodiscard]] Time nextLook() const;
  /// Whether it would save looks if somebody told of writes to this volume: it has been quiet for some time.
  [[nodiscard]] bool mayRest(Time now, const std::string& volume) const;
  /// The volume has been written to, and nobody tells of the next time.
  void noteWrite(Time now, dev_t device);

 private:
  struct Volume {
    dev_t device = 0;
    std::uint64_t size = 0;
    std::uint64_t available = 0;
    SpaceMarks marks;
    SpaceLevel level = SpaceLevel::Ample;
    Time seen;
    /// Whether the last look was without it: it is not announced, and when it is seen next is not decided here.
    bool isUnasked = false;
    bool writesAreTold = false;
    /// When the available bytes last changed at all, or might have.
    Time changed;
    /// When they last changed by more than trifles.
    Time changedMuch;
    std::uint64_t availableThen = 0;
    double bytesPerSecond = 0;
    std::optional<Time> lastLow;

    Run run = noRun;
    /// Whether that run relieves it; else it is only kept from other runs.
    bool isTaken = false;
    /// None when nobody knows.
    std::optional<std::uint64_t> availableAtBegin;
    bool hasGained = false;

    /// The end of the last run that had it, and how long that took.
    Time ended;
    Duration took{};
    /// Not zero while runs gained nothing: what the last pause came to.
    Duration fruitless{};
    Time pausedUntil = Time::min();
    /// Entering the very low level ends a pause, once.
    bool wasVeryLow = false;
  };
  struct RunTimes {
    Time begun;
    std::optional<Time> ended;
    /// Whether its event was posted here.
    bool isOwn = false;
  };

  void keepOnly(const std::vector<Sight>& sights, const std::vector<VolumeMount>& unasked, Time now);
  [[nodiscard]] Volume takeUnmounted(const Sight& sight);
  void see(Volume& volume, Time now, const Sight& sight);
  static void judge(Volume& volume, const RunTimes& times);
  void judgeRuns(Time now);
  static void considerRecovery(Volume& volume);
  static bool isDue(const Volume& volume, Time now);
  static Time dueTime(const Volume& volume);
  static bool isPromising(const Volume& volume, Time now);
  static Duration interval(const Volume& volume);
  static Duration intervalOfLooks(const Volume& volume);

  std::map<std::string, Volume> volumes_;
  /// Those in a pause.
  std::map<dev_t, Volume> unmounted_;
  std::map<Run, RunTimes> runs_;
  Run lastRun_ = noRun;
  /// The run of the event that was posted here, until a look after its end.
  Run ownRun_ = noRun;
  Time lastLook_ = Time::min();
};

}  // namespace kelvane
