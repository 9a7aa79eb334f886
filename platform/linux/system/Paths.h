// SPDX-License-Identifier: Apache-2.0
// Where on a Linux system the daemon's files are.
#pragma once

namespace kelvane::paths {

inline constexpr char runtimeDirectory[] = "/run/kelvane";
inline constexpr char notificationDirectory[] = "/run/kelvane/notify";
inline constexpr char controlSocket[] = "/run/kelvane/control";
inline constexpr char metricsFile[] = "/run/kelvane/metrics.prom";

inline constexpr char journalSocket[] = "/run/systemd/journal/socket";

}  // namespace kelvane::paths
