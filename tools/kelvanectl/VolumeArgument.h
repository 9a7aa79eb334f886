// SPDX-License-Identifier: Apache-2.0
// The volume that a person named on the command line.
#pragma once

#include <string>
#include <variant>

namespace kelvane::ctl {

struct VolumeError {
  std::string text;
};

/// The mount point that path leads to, as the daemon knows it: absolute, without links. An error for whatever the
/// daemon would refuse; for a directory inside a volume it names the volume.
[[nodiscard]] std::variant<std::string, VolumeError> resolveVolume(const std::string& path);

}  // namespace kelvane::ctl
