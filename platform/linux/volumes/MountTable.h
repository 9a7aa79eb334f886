// SPDX-License-Identifier: Apache-2.0
// The mounts that a path can lead to, and which of them hold data that can be freed.
#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

#include "platform/Result.h"

namespace kelvane {

/// A mount that the path to another leads through.
struct PassedMount {
  std::string path;
  dev_t device;
};

/// One mount of a writable, local file system: block-backed, or tmpfs.
struct VolumeMount {
  std::string path;
  dev_t device;
  /// Whether the file system's root is mounted, not a directory or file within it (a bind mount).
  bool isWhole;
  /// Of those on its way, the ones in which every step may take for ever, as a server or a process is asked about it;
  /// the topmost first.
  std::vector<PassedMount> way = {};
};

/// The mounts of such file systems, duplicates of one file system included; read from a file in the format of
/// /proc/self/mountinfo. Those with the shortest ways come first, then whole file systems, as their mount points are
/// the better names, otherwise the order is that of mounting. Mounts that no path leads to, because a later one covers
/// them, are left out. Decided by the table alone: asking the file systems could wait for a dead server. Fails when the
/// table cannot be read, for lack of descriptors, say.
[[nodiscard]] Result<std::vector<VolumeMount>> volumeMounts(const char* mountInfoFile);

}  // namespace kelvane
