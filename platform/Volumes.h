// SPDX-License-Identifier: Apache-2.0
// Mounted volumes. A volume is named by its mount point, an absolute path.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "platform/Result.h"

namespace kelvane::volumes {

/// How much of a volume there is, in bytes.
struct Space {
  std::uint64_t size = 0;
  /// What unprivileged users can still write.
  std::uint64_t available = 0;
  /// What is not used at all: with what is kept for root, and what a quota keeps from users.
  std::uint64_t free = 0;
  /// Tells the file system from one that is mounted in its place.
  std::uint64_t fileSystem = 0;

  friend bool operator==(const Space&, const Space&) = default;
};

/// How a volume is relieved when it runs low, where somebody has said so.
struct Relief {
  std::optional<std::uint64_t> amountBytes = {};
  /// The highest urgency, 1 to 4.
  std::optional<std::int32_t> urgencyLimit = {};

  friend bool operator==(const Relief&, const Relief&) = default;
};

/// Whether path is the mount point of a writable, local file system.
[[nodiscard]] bool isUsable(const std::string& path);
/// Block-backed and tmpfs mounts, one per file system; no pseudo, network, read-only or duplicate ones.
[[nodiscard]] std::vector<std::string> local();
/// Those of local() that are low on space now and to be relieved, the emptiest first. Whoever handles a low-disk event
/// is told what is to be relieved for that event; others, what is in no pause.
[[nodiscard]] std::vector<std::string> lowOnSpace();
/// The handler of a low-disk event turns to one of these: what the volume gains from now on until the handler returns
/// is its doing. How it is to go about it.
Relief beginRelief(const std::string& path);
/// Not known when there is no such volume, or it cannot be asked.
[[nodiscard]] Result<Space> space(const std::string& path);
/// As space() of each, asked at the same time, but perhaps as it was when it was asked last, if that is no longer ago
/// than its answer took, or than a millisecond: for what is judged many times in a row.
[[nodiscard]] std::vector<Result<Space>> recentSpaces(const std::vector<std::string>& paths);

}  // namespace kelvane::volumes
