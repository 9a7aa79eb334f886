// SPDX-License-Identifier: Apache-2.0
// Where on a Linux system the files about volumes are.
#pragma once

namespace kelvane::paths {

inline constexpr char volumeLevelsFile[] = "/etc/kelvane/volumes.plist";
inline constexpr char mountInfo[] = "/proc/self/mountinfo";

}  // namespace kelvane::paths
