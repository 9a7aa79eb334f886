// SPDX-License-Identifier: Apache-2.0
// Mounts of this process's namespace, read no more often than they change.
#pragma once

#include <chrono>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "platform/linux/runtime/FileDescriptor.h"
#include "platform/linux/runtime/Mutex.h"
#include "platform/linux/volumes/MountTable.h"

namespace kelvane {

/// Keeps what volumeMounts() says of this process, because reading the table again would cost each purge as much as
/// sending eight services their requests. The kernel tells of every change to a mount, but not of file systems that
/// become read-only by themselves; these are known within a minute. What cannot be read again, for lack of descriptors,
/// say, is as it was, which the log says once: volumes do not go away by that. One per process, never destroyed. Any
/// thread.
class Mounts {
 public:
  using Table = std::shared_ptr<const std::vector<VolumeMount>>;
  static constexpr std::chrono::minutes longestAge{1};

  static Mounts& shared();
  Mounts(const Mounts&) = delete;
  Mounts& operator=(const Mounts&) = delete;

  [[nodiscard]] Table current();
  /// The table as it is now.
  [[nodiscard]] Table readAgain();

  /// Has POLLPRI once after every change, for one thread that waits for it; -1 when the system does not tell.
  int listener() const { return listener_.get(); }

 private:
  using Clock = std::chrono::steady_clock;

  Mounts();
  bool haveChanged();
  std::string read() KELVANE_REQUIRES(mutex_);
  /// The table, once people know.
  Table told(const std::string& news);

  /// Each remembers for itself what it has told of.
  const FileDescriptor watch_;
  const FileDescriptor listener_;
  runtime::Mutex mutex_;
  Table table_ KELVANE_GUARDED_BY(mutex_) = std::make_shared<const std::vector<VolumeMount>>();
  /// When, unless it is to be read again in any case.
  std::optional<Clock::time_point> read_ KELVANE_GUARDED_BY(mutex_);
  bool isReadable_ KELVANE_GUARDED_BY(mutex_) = true;
};

/// The mount at this path; null when there is none. The table holds each path in its one canonical form, so comparing
/// the text is enough to refuse every other spelling.
[[nodiscard]] const VolumeMount* findMount(const std::vector<VolumeMount>& mounts, const std::string& path);

}  // namespace kelvane
