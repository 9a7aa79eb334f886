// SPDX-License-Identifier: Apache-2.0
// Volumes and a clock by hand, for tests of when volumes are looked at and announced.
#pragma once

#include <gtest/gtest.h>
#include <sys/sysmacros.h>

#include <map>
#include <optional>
#include <string>
#include <vector>

#include "platform/linux/volumes/ReliefPolicy.h"

namespace kelvane::test {

using namespace std::chrono_literals;

inline constexpr std::uint64_t mebibyte = std::uint64_t{1} << 20;
inline constexpr std::uint64_t gibibyte = std::uint64_t{1} << 30;
/// Of the volumes here, which have a terabyte and the default levels.
inline constexpr std::uint64_t lowMark = gibibyte;
inline constexpr std::uint64_t veryLowMark = 256 * mebibyte;

/// A watch, its clock, and volumes that a test fills and empties.
class WatchedVolumes : public testing::Test {
 protected:
  /// The first look finds nothing.
  WatchedVolumes() { policy_.look(now_ - 1h, {}); }

  using Time = ReliefPolicy::Time;
  using Duration = ReliefPolicy::Duration;
  using Names = std::vector<std::string>;

  void set(const std::string& volume, std::uint64_t available) {
    const auto [entry, isNew] = volumes_.try_emplace(volume, Entry{nextDevice_, 0});
    nextDevice_ += isNew ? 1 : 0;
    entry->second.available = available;
  }
  void unmount(const std::string& volume) { unmounted_ = volumes_.extract(volume); }
  /// The file system that was unmounted last.
  void mountAgain(const std::string& volume) {
    unmounted_.key() = volume;
    volumes_.insert(std::move(unmounted_));
  }
  void setDevice(const std::string& volume, dev_t device) { volumes_.at(volume).device = device; }
  void setSize(const std::string& volume, std::uint64_t size) { volumes_.at(volume).size = size; }
  /// Looks are without it, or with it again.
  void silence(const std::string& volume, bool isSilent = true) { volumes_.at(volume).isSilent = isSilent; }

  void tellWrites(const std::string& volume, bool areTold = true) { volumes_.at(volume).writesAreTold = areTold; }
  bool mayRest(const std::string& volume) const { return policy_.mayRest(now_, volume); }
  dev_t device(const std::string& volume) const { return volumes_.at(volume).device; }

  void pass(Duration time) { now_ += time; }

  void look() {
    std::vector<ReliefPolicy::Sight> sights;
    std::vector<VolumeMount> unasked;
    for (const auto& [name, entry] : volumes_) {
      if (entry.isSilent) {
        unasked.push_back({name, entry.device, true});
      } else {
        sights.push_back(sight(name));
      }
    }
    policy_.look(now_, sights, unasked);
  }
  /// Looks; the level of the event that is posted then.
  std::optional<SpaceLevel> announced() {
    look();
    const auto event = policy_.nextEvent(now_);
    if (!event) {
      return std::nullopt;
    }
    run_ = event->run;
    return event->level;
  }
  /// What a handler of the run is given, the emptiest first.
  Names taken(ReliefPolicy::Run run) {
    std::multimap<std::uint64_t, std::string> low;
    for (const auto& [name, entry] : volumes_) {
      if (sight(name).level() != SpaceLevel::Ample) {
        low.emplace(entry.available, name);
      }
    }
    Names result;
    for (const auto& [available, name] : low) {
      if (policy_.isFor(run, now_, sight(name))) {
        policy_.take(run, now_, sight(name));
        result.push_back(name);
      }
    }
    return result;
  }
  Names taken() { return taken(run_); }
  /// The handler of the last event returns after this time.
  void endAfter(Duration time) {
    pass(time);
    policy_.end(run_, now_);
  }
  /// The whole handling of an event that has been posted.
  void handleInVain(Duration time) {
    taken();
    endAfter(time);
  }
  Duration untilNextLook() { return policy_.nextLook() - now_; }

  /// Looks when the watch wants to, for so long, and handles every event without any gain in no time; how long each
  /// was posted after the beginning.
  std::vector<Duration> eventsWithin(Duration time) {
    std::vector<Duration> events;
    const Time begin = now_;
    while (now_ - begin <= time) {
      if (announced()) {
        events.push_back(now_ - begin);
        handleInVain(0s);
        look();
      }
      now_ = std::max(policy_.nextLook(), now_);
    }
    return events;
  }

  ReliefPolicy policy_;
  Time now_{1000h};
  ReliefPolicy::Run run_ = ReliefPolicy::noRun;

 private:
  struct Entry {
    dev_t device;
    std::uint64_t available;
    std::uint64_t size = 1000 * gibibyte;
    bool isSilent = false;
    bool writesAreTold = false;
  };

  ReliefPolicy::Sight sight(const std::string& name) const {
    const Entry& entry = volumes_.at(name);
    return {VolumeMount{name, entry.device, true}, volumes::Space{.size = entry.size, .available = entry.available},
            VolumeLevels(), entry.writesAreTold};
  }

  std::map<std::string, Entry> volumes_;
  std::map<std::string, Entry>::node_type unmounted_;
  dev_t nextDevice_ = makedev(8, 1);
};

}  // namespace kelvane::test
