// SPDX-License-Identifier: Apache-2.0
// The vocabulary that peers, files and statistics share with the daemon: each word against its spelling.
#include <gtest/gtest.h>

#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "protocols/KelvaneClientProtocol.h"
#include "protocols/KelvaneServiceProtocol.h"
#include "protocols/Keys.h"
#include "protocols/Names.h"

namespace kelvane {
namespace {

using Spelling = std::pair<std::string_view, std::string_view>;

TEST(TheVocabulary, SpellsTheKeysOfDictionaries) {
  const Spelling spellings[] = {
      {keys::id, "KELVANE_ID"},
      {keys::services, "KELVANE_SERVICES"},
      {keys::doNotQuery, "KELVANE_DO_NOT_QUERY"},
      {keys::notifications, "KELVANE_NOTIFICATIONS"},
      {keys::purge, "PURGE"},
      {keys::periodic, "PERIODIC"},
      {keys::anonymous, "ANON"},
      {keys::volume, "KELVANE_VOLUME"},
      {keys::amount, "KELVANE_AMOUNT"},
      {keys::async, "KELVANE_ASYNC"},
      {keys::purgeTimeout, "KELVANE_PURGE_TIMEOUT"},
      {keys::token, "KELVANE_TOKEN"},
      {keys::urgency, "KELVANE_URGENCY"},
      {keys::urgencyLimit, "KELVANE_URGENCY_LIMIT"},
      {keys::error, "KELVANE_ERROR"},
      {keys::freespaceBegin, "KELVANE_FREESPACE_BEGIN"},
      {keys::freespaceEnd, "KELVANE_FREESPACE_END"},
      {keys::amountReported, "KELVANE_AMOUNT_REPORTED"},
      {keys::elapsedTime, "KELVANE_ELAPSED_TIME"},
      {keys::operationCancelled, "KELVANE_OPERATION_CANCELLED"},
      {keys::servicesInFlight, "KELVANE_SERVICES_INFLIGHT"},
      {keys::reportingServices, "KELVANE_REPORTING_SERVICES"},
      {keys::urgencyTimeoutSecondsFormat, "KELVANE_URGENCY_%d_TIMEOUT_SECONDS"},
      {keys::urgencyOperationInfoFormat, "KELVANE_URGENCY_%d_OPERATION_INFO"},
      {keys::operationStatsUrgencyFormat, "KELVANE_OPERATION_STATS_URGENCY_%d"},
      {keys::servicesToQuery, "KELVANE_SERVICES_TO_QUERY"},
      {keys::servicesToCount, "KELVANE_SERVICES_TO_COUNT"},
      {keys::totalAvailable, "KELVANE_TOTAL_AVAILABLE"},
      {keys::optOut, "KELVANE_OPT_OUT"},
      {keys::recentServiceStats, "KELVANE_RECENT_SERVICE_STATS"},
      {keys::userDefaults, "KELVANE_USER_DEFAULTS"},
      {keys::cacheEnabled, "KELVANE_CACHE_ENABLED"},
      {keys::flags, "_Flags"},
  };
  for (const auto& [word, spelling] : spellings) {
    EXPECT_EQ(word, spelling);
  }
}

TEST(TheVocabulary, SpellsTheNamesThatAreKnownOutside) {
  const Spelling spellings[] = {
      {names::daemon, "com.tessaly.kelvane"},
      {names::dailyActivity, "com.tessaly.Kelvane.daily"},
      {names::fileSystemEvents, "com.tessaly.dispatch.vfs"},
      {names::launchedNotification, "com.tessaly.kelvane.launched"},
      {names::systemDescriptions, "/System/Library/Kelvane/"},
      {names::internalDescriptions, "/TessalyInternal/Library/Kelvane/"},
      {entitlements::client, "CLIENT_ENTITLEMENT"},
      {entitlements::service, "SERVICE_ENTITLEMENT"},
      {entitlements::purgeable, "PURGEABLE_ENTITLEMENT"},
      {entitlements::itemizedPurgeable, "ITEMIZED_PURGEABLE_ENTITLEMENT"},
      {entitlements::purge, "PURGE_ENTITLEMENT"},
      {statistics::lowDiskEvent, "KL_LOWDISK_EVENT"},
      {statistics::veryLowDiskEvent, "KL_VERYLOWDISK_EVENT"},
      {statistics::purgeAmountRequested, "KelvanePurgeAmountRequested"},
      {statistics::purgeAmountPurged, "KelvanePurgeAmountPurged"},
      {statistics::purgeElapsedNanoseconds, "KelvanePurgeElapsedNanoseconds"},
      {statistics::purgeFailed, "KelvanePurgeFailed"},
      {statistics::purgeDeficit, "KelvanePurgeDeficit"},
      {statistics::total, "total"},
      {statistics::servicePurgeElapsedFormat, "%@_purgeElapsedNanoseconds"},
      {statistics::servicePurgeableElapsedFormat, "%@_purgeableElapsedNanoseconds"},
      {statistics::purgedFormat, "%@.purged"},
      {statistics::purgedPercentFormat, "%@.purged.%d.percent"},
  };
  for (const auto& [word, spelling] : spellings) {
    EXPECT_EQ(word, spelling);
  }
}

std::string_view typeOf(ipc::ArgumentKind kind) {
  switch (kind) {
    case ipc::ArgumentKind::Integer:
      return "i";
    case ipc::ArgumentKind::String:
      return "s";
    case ipc::ArgumentKind::Dictionary:
      return "a{sv}";
    case ipc::ArgumentKind::Any:
      return "v";
    case ipc::ArgumentKind::Endpoint:
      return "h";
  }
  return "?";
}

/// The interface's full names, each with its D-Bus member and what that takes and gives.
std::vector<std::string> operationsOf(const ipc::Interface& interface) {
  std::vector<std::string> lines;
  for (const ipc::Operation* operation : interface.operations) {
    std::string line = std::string(operation->name) + " = " + std::string(operation->member) + "(";
    for (const ipc::Argument& argument : operation->arguments) {
      line += line.back() == '(' ? "" : ", ";
      line += std::string(typeOf(argument.kind)) + " " + std::string(argument.name);
    }
    lines.push_back(line + (operation->reply == ipc::ReplyKind::Any ? ") -> v" : ")"));
  }
  return lines;
}

TEST(TheVocabulary, SpellsTheInterfaceToClients) {
  EXPECT_EQ(KelvaneClientProtocol::interface.objectPath, "/com/tessaly/Kelvane");
  EXPECT_EQ(KelvaneClientProtocol::interface.name, "com.tessaly.KelvaneClientProtocol");
  EXPECT_EQ(operationsOf(KelvaneClientProtocol::interface),
            (std::vector<std::string>{
                "clientCheckin:endpoint:info:reply: = clientCheckin(s identifier, h endpoint, a{sv} info) -> v",
                "clientPurgeableSpace:replyBlock: = clientPurgeableSpace(a{sv} info) -> v",
                "clientItemizedPurgeableSpace:replyBlock: = clientItemizedPurgeableSpace(a{sv} info) -> v",
                "clientPurge:replyBlock: = clientPurge(a{sv} info) -> v",
                "clientCancelPurge:replyBlock: = clientCancelPurge(a{sv} info)",
                "clientSetState:key:replyBlock: = clientSetState(v value, s key)",
                "clientGetState:replyBlock: = clientGetState(s key) -> v",
            }));
}

TEST(TheVocabulary, SpellsTheInterfaceToServices) {
  EXPECT_EQ(KelvaneServiceProtocol::interface.objectPath, "/com/tessaly/KelvaneService");
  EXPECT_EQ(KelvaneServiceProtocol::interface.name, "com.tessaly.KelvaneServiceProtocol");
  EXPECT_EQ(operationsOf(KelvaneServiceProtocol::interface),
            (std::vector<std::string>{
                "servicePurgeable:info:replyBlock: = servicePurgeable(i urgency, a{sv} info) -> v",
                "servicePurge:info:replyBlock: = servicePurge(i urgency, a{sv} info) -> v",
                "servicePeriodic:info:replyBlock: = servicePeriodic(i urgency, a{sv} info) -> v",
                "serviceCancelPurge: = serviceCancelPurge()",
                "servicePing: = servicePing()",
                "serviceNotify:replyBlock: = serviceNotify(a{sv} notification)",
                "serviceCallback:replyBlock: = serviceCallback(a{sv} info) -> v",
            }));
}

}  // namespace
}  // namespace kelvane
