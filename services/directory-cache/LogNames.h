// SPDX-License-Identifier: Apache-2.0
// How this service's log messages are marked.
#pragma once

#include <cstdint>

namespace kelvane::directoryCache {

inline constexpr char logCategory[] = "KelvaneDirectoryCache";

namespace logLevels {
inline constexpr std::int32_t warning = 3;
inline constexpr std::int32_t notice = 4;
}  // namespace logLevels

}  // namespace kelvane::directoryCache
