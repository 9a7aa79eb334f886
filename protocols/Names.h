// SPDX-License-Identifier: Apache-2.0
// Names that are known outside the daemon: entitlements, statistics, domains, directories.
#pragma once

#include <array>

namespace kelvane {

namespace names {
/// The daemon's IPC service, its preferences suite and the domain of its statistics.
inline constexpr char daemon[] = "com.tessaly.kelvane";
inline constexpr char dailyActivity[] = "com.tessaly.Kelvane.daily";
inline constexpr char fileSystemEvents[] = "com.tessaly.dispatch.vfs";
inline constexpr char launchedNotification[] = "com.tessaly.kelvane.launched";
/// Where service descriptions are found; the second overrides the first.
inline constexpr char systemDescriptions[] = "/System/Library/Kelvane/";
inline constexpr char internalDescriptions[] = "/TessalyInternal/Library/Kelvane/";
}  // namespace names

namespace entitlements {
/// Held by every process that connects to the daemon.
inline constexpr char client[] = "CLIENT_ENTITLEMENT";
/// Held by a service that checks in.
inline constexpr char service[] = "SERVICE_ENTITLEMENT";
inline constexpr char purgeable[] = "PURGEABLE_ENTITLEMENT";
inline constexpr char itemizedPurgeable[] = "ITEMIZED_PURGEABLE_ENTITLEMENT";
inline constexpr char purge[] = "PURGE_ENTITLEMENT";
}  // namespace entitlements

namespace statistics {
inline constexpr char lowDiskEvent[] = "KL_LOWDISK_EVENT";
inline constexpr char veryLowDiskEvent[] = "KL_VERYLOWDISK_EVENT";
inline constexpr char purgeAmountRequested[] = "KelvanePurgeAmountRequested";
inline constexpr char purgeAmountPurged[] = "KelvanePurgeAmountPurged";
inline constexpr char purgeElapsedNanoseconds[] = "KelvanePurgeElapsedNanoseconds";
inline constexpr char purgeFailed[] = "KelvanePurgeFailed";
inline constexpr char purgeDeficit[] = "KelvanePurgeDeficit";
/// Those that no service has a part in.
inline constexpr std::array daemonsOwn = {lowDiskEvent,      veryLowDiskEvent,        purgeAmountRequested,
                                          purgeAmountPurged, purgeElapsedNanoseconds, purgeFailed,
                                          purgeDeficit};
/// Stands in for a service identifier in the counters of a whole purge.
inline constexpr char total[] = "total";
/// Formats, filled with a service identifier or "total", and a percentage.
inline constexpr char servicePurgeElapsedFormat[] = "%@_purgeElapsedNanoseconds";
inline constexpr char servicePurgeableElapsedFormat[] = "%@_purgeableElapsedNanoseconds";
inline constexpr char purgedFormat[] = "%@.purged";
inline constexpr char purgedPercentFormat[] = "%@.purged.%d.percent";
}  // namespace statistics

}  // namespace kelvane
