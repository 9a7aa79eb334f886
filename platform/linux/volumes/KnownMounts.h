// SPDX-License-Identifier: Apache-2.0
// This process's mount table, read no more often than it changes.
#pragma once

#include <chrono>
#include <memory>
#include <mutex>
#include <vector>

#include "platform/linux/runtime/FileDescriptor.h"
#include "platform/linux/volumes/MountTable.h"

namespace kelvane {

/// Keeps what volumeMounts() says of this process, because reading the table again would cost each purge as much as
/// sending eight services their requests. The kernel tells of every mount and unmount, but not of mounts and file
/// systems that become read-only or writable; these are known within a minute. One per process, never destroyed. Any
/// thread.
class KnownMounts {
 public:
  using Mounts = std::shared_ptr<const std::vector<VolumeMount>>;
  static constexpr std::chrono::minutes longestAge{1};

  static KnownMounts& shared();
  KnownMounts(const KnownMounts&) = delete;
  KnownMounts& operator=(const KnownMounts&) = delete;

  [[nodiscard]] Mounts current();
  /// The table as it is now.
  [[nodiscard]] Mounts readAgain();

 private:
  using Clock = std::chrono::steady_clock;

  KnownMounts() = default;
  bool haveChanged();
  void read();

  std::mutex mutex_;
  // Guarded by mutex_:
  FileDescriptor table_;
  Mounts mounts_;
  Clock::time_point read_;
};

}  // namespace kelvane
