// SPDX-License-Identifier: Apache-2.0
// Ways to mounts, through others that may never answer.
#pragma once

#include <optional>

#include "platform/Result.h"
#include "platform/linux/runtime/FileDescriptor.h"
#include "platform/linux/volumes/FileSystemProbe.h"
#include "platform/linux/volumes/MountTable.h"

namespace kelvane {

/// A mount whose file system has been entered.
struct EnteredMount {
  /// At a path that leads to it without another walk through what may hang.
  VolumeMount mount;
  /// Keeps that path valid.
  FileDescriptor place;
};

/// Enters a mount's file system, to ask about its space, by way of those that its path leads through: each is entered
/// before anything is walked in it, so that the one that hangs is blamed. ETIMEDOUT when one may not be entered.
[[nodiscard]] Result<EnteredMount> enterMount(FileSystemProbe::Visit& visit, const VolumeMount& mount);

/// Until when nothing may be asked of the mount, be it for those on its way: Time::max() while one of them is silent,
/// none if it may be asked.
[[nodiscard]] std::optional<FileSystemProbe::Time> closedUntil(const VolumeMount& mount);

}  // namespace kelvane
