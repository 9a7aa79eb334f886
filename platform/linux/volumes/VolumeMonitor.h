// SPDX-License-Identifier: Apache-2.0
// The watch over the volumes of this system.
#pragma once

#include <optional>
#include <set>
#include <string>
#include <vector>

#include "platform/linux/runtime/FileDescriptor.h"
#include "platform/linux/runtime/Mutex.h"
#include "platform/linux/volumes/LowDiskEvents.h"
#include "platform/linux/volumes/ReliefPolicy.h"
#include "platform/linux/volumes/VolumeSurvey.h"
#include "platform/linux/volumes/WriteNotices.h"

namespace kelvane {

/// Has a thread that looks at the volumes when a ReliefPolicy wants to know, and posts the events that it decides upon.
/// The thread sleeps until then, or until mounts change, a quiet volume is written to, a handler returns, or a file
/// system answers that did not in time.
///
/// There is one in a process, and it is never destroyed. Any thread may call it.
class VolumeMonitor {
 public:
  static VolumeMonitor& shared();

  LowDiskEvents& events() { return events_; }
  /// Watches from now on, if there is a handler of events. Calls after the first do nothing.
  void start();

  /// Those of the low volumes that the event whose handler this thread runs is to relieve, in the same order;
  /// outside of a handler, those that are in no pause.
  [[nodiscard]] std::vector<std::string> volumesToRelieve(const std::vector<ReliefPolicy::Sight>& low);
  /// The event whose handler this thread runs relieves the volume from now on.
  void beginRelief(const VolumeMount& mount, const Result<volumes::Space>& space, const VolumeLevels& levels);

 private:
  using Time = ReliefPolicy::Time;

  VolumeMonitor();
  static void* watchMain(void* monitor);

  void watch();
  struct Look {
    Time begun;
    std::vector<ReliefPolicy::Sight> sights;
    std::vector<VolumeMount> unasked;
  };
  [[nodiscard]] Look lookAround(const std::vector<VolumeMount>& mounts);
  void askForNotices(const std::vector<VolumeMount>& mounts);
  void tellOfUnknown(const VolumeLevels& levels, const std::vector<VolumeMount>& mounts);
  void tellOfTroubles(const std::vector<SpaceAnswer>& answers);
  Time decide(const Look& look);
  void awaitNews(Time deadline, Time lookBegun);
  void noteWrites();
  ReliefPolicy::Run beginOutside();
  void endRun(ReliefPolicy::Run run);
  void wake() const;

  /// Readable when the thread is to look at once.
  const FileDescriptor wake_;
  LowDiskEvents events_;
  runtime::Mutex mutex_;
  ReliefPolicy policy_ KELVANE_GUARDED_BY(mutex_);
  bool isStarted_ KELVANE_GUARDED_BY(mutex_) = false;

  // The thread's own:
  WriteNotices notices_;
  /// Names in the configuration that it has told of.
  std::set<std::string> unknown_;
  /// And file systems whose volumes cannot be relieved.
  std::set<dev_t> troubled_;
};

}  // namespace kelvane
