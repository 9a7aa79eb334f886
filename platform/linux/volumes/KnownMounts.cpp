// SPDX-License-Identifier: Apache-2.0
// This process's mount table, read no more often than it changes.
#include "platform/linux/volumes/KnownMounts.h"

#include <fcntl.h>
#include <poll.h>

#include "platform/linux/volumes/Paths.h"

namespace kelvane {

KnownMounts& KnownMounts::shared() {
  static KnownMounts& mounts = *new KnownMounts;
  return mounts;
}

KnownMounts::Mounts KnownMounts::current() {
  const std::lock_guard lock(mutex_);
  if (haveChanged() || Clock::now() - read_ >= longestAge) {
    read();
  }
  return mounts_;
}

KnownMounts::Mounts KnownMounts::readAgain() {
  const std::lock_guard lock(mutex_);
  read();
  return mounts_;
}

void KnownMounts::read() {
  mounts_ = std::make_shared<const std::vector<VolumeMount>>(volumeMounts(paths::mountInfo));
  // A table without a single volume is more likely one that could not be read.
  read_ = mounts_->empty() ? Clock::time_point() : Clock::now();
}

/// Asked before the table is read, so that a change while it is being read shows the next time. A table that cannot
/// be watched may always have changed.
bool KnownMounts::haveChanged() {
  if (!table_) {
    table_ = FileDescriptor(open(paths::mountInfo, O_RDONLY | O_CLOEXEC));
    return true;
  }
  pollfd state{.fd = table_.get(), .events = POLLPRI, .revents = 0};
  return poll(&state, 1, 0) != 0;
}

}  // namespace kelvane
