// SPDX-License-Identifier: Apache-2.0
// The keys of info, result and description dictionaries, each spelled once.
#pragma once

namespace kelvane::keys {

// Service descriptions and check-in
inline constexpr char id[] = "KELVANE_ID";
inline constexpr char services[] = "KELVANE_SERVICES";
inline constexpr char doNotQuery[] = "KELVANE_DO_NOT_QUERY";
inline constexpr char notifications[] = "KELVANE_NOTIFICATIONS";
/// A member of the services array; in a check-in info, a boolean under this key.
inline constexpr char purge[] = "PURGE";
inline constexpr char periodic[] = "PERIODIC";
/// In the reply to a check-in.
inline constexpr char anonymous[] = "ANON";

// Requests
inline constexpr char volume[] = "KELVANE_VOLUME";
/// Bytes: to purge in a request, purged or purgeable in an answer.
inline constexpr char amount[] = "KELVANE_AMOUNT";
inline constexpr char async[] = "KELVANE_ASYNC";
/// Seconds, of each pass of a purge.
inline constexpr char purgeTimeout[] = "KELVANE_PURGE_TIMEOUT";
inline constexpr char token[] = "KELVANE_TOKEN";
inline constexpr char urgency[] = "KELVANE_URGENCY";
inline constexpr char urgencyLimit[] = "KELVANE_URGENCY_LIMIT";

// Results
inline constexpr char error[] = "KELVANE_ERROR";
/// Bytes available on the volume before and after a purge.
inline constexpr char freespaceBegin[] = "KELVANE_FREESPACE_BEGIN";
inline constexpr char freespaceEnd[] = "KELVANE_FREESPACE_END";
/// Bytes that the services said they purged.
inline constexpr char amountReported[] = "KELVANE_AMOUNT_REPORTED";
/// Seconds in the result of a purge, nanoseconds in the answer of one service.
inline constexpr char elapsedTime[] = "KELVANE_ELAPSED_TIME";
inline constexpr char operationCancelled[] = "KELVANE_OPERATION_CANCELLED";

// The operation info of one pass
inline constexpr char servicesInFlight[] = "KELVANE_SERVICES_INFLIGHT";
inline constexpr char reportingServices[] = "KELVANE_REPORTING_SERVICES";
/// Formats, filled with the urgency of the pass.
inline constexpr char urgencyTimeoutSecondsFormat[] = "KELVANE_URGENCY_%d_TIMEOUT_SECONDS";
inline constexpr char urgencyOperationInfoFormat[] = "KELVANE_URGENCY_%d_OPERATION_INFO";
inline constexpr char operationStatsUrgencyFormat[] = "KELVANE_OPERATION_STATS_URGENCY_%d";

// Purgeable-space queries
inline constexpr char servicesToQuery[] = "KELVANE_SERVICES_TO_QUERY";
inline constexpr char servicesToCount[] = "KELVANE_SERVICES_TO_COUNT";
inline constexpr char totalAvailable[] = "KELVANE_TOTAL_AVAILABLE";
inline constexpr char optOut[] = "KELVANE_OPT_OUT";

// The state store
inline constexpr char recentServiceStats[] = "KELVANE_RECENT_SERVICE_STATS";
/// The one entry of the preferences suite; as a state key, the whole store.
inline constexpr char userDefaults[] = "KELVANE_USER_DEFAULTS";
inline constexpr char cacheEnabled[] = "KELVANE_CACHE_ENABLED";

// File-system events
inline constexpr char flags[] = "_Flags";

}  // namespace kelvane::keys
