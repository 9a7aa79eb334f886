// SPDX-License-Identifier: Apache-2.0
// The volumes there are, kept up to date.
#include "platform/linux/system/CurrentVolumes.h"

#include <libmount/libmount.h>

#include <thread>

#include "platform/linux/system/LocalVolumes.h"

namespace kelvane {

namespace {

/// Reading the table takes milliseconds where there are thousands of mounts, which come in bursts.
constexpr std::chrono::milliseconds shortestInterval{100};
/// Not everything counts as a change, such as a mount that turns read-only.
constexpr std::chrono::seconds longestInterval{60};

}  // namespace

CurrentVolumes::CurrentVolumes() : monitor_(mnt_new_monitor()) {
  if (monitor_ != nullptr && mnt_monitor_enable_kernel(monitor_, 1) == 0) {
    descriptor_ = mnt_monitor_get_fd(monitor_);
  }
}

CurrentVolumes::~CurrentVolumes() {
  mnt_unref_monitor(monitor_);
}

const std::vector<VolumeMount>& CurrentVolumes::list() {
  using Clock = std::chrono::steady_clock;
  if (isOutdated_ || descriptor_ < 0 || Clock::now() - read_ >= longestInterval) {
    std::this_thread::sleep_until(read_ + shortestInterval);
    // Cleared first: a change that comes too late for this reading asks for another.
    mnt_monitor_event_cleanup(monitor_);
    volumes_ = localVolumes();
    read_ = Clock::now();
    isOutdated_ = false;
  }
  return volumes_;
}

}  // namespace kelvane
