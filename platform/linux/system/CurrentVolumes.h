// SPDX-License-Identifier: Apache-2.0
// The volumes there are, kept up to date.
#pragma once

#include <chrono>
#include <vector>

#include "platform/linux/system/MountTable.h"

struct libmnt_monitor;

namespace kelvane {

/// Reads the mount table when it has changed. Belongs to one thread.
class CurrentVolumes {
 public:
  CurrentVolumes();
  ~CurrentVolumes();
  CurrentVolumes(const CurrentVolumes&) = delete;
  CurrentVolumes& operator=(const CurrentVolumes&) = delete;

  /// Readable when something has been mounted or unmounted since the table was read; -1 when the system does not tell.
  int descriptor() const { return descriptor_; }
  /// To be called when the descriptor is readable.
  void noteChange() { isOutdated_ = true; }
  /// Valid until the next call.
  const std::vector<VolumeMount>& list();

 private:
  libmnt_monitor* const monitor_;
  int descriptor_ = -1;
  bool isOutdated_ = true;
  std::chrono::steady_clock::time_point read_;
  std::vector<VolumeMount> volumes_;
};

}  // namespace kelvane
