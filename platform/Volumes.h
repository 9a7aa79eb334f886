// SPDX-License-Identifier: Apache-2.0
// Mounted volumes. A volume is named by its mount point, an absolute path.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace kelvane::volumes {

/// Whether path is the mount point of a writable, local file system.
[[nodiscard]] bool isUsable(const std::string& path);
/// Block-backed and tmpfs mounts, one per file system; no pseudo, network, read-only or duplicate ones.
[[nodiscard]] std::vector<std::string> local();
/// Those of local() that are low on space now, the emptiest first.
[[nodiscard]] std::vector<std::string> lowOnSpace();
/// Bytes available to unprivileged users; 0 when there is no such volume, or it cannot be asked.
[[nodiscard]] std::uint64_t availableBytes(const std::string& path);

}  // namespace kelvane::volumes
