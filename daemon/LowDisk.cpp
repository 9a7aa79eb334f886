// SPDX-License-Identifier: Apache-2.0
// What happens when volumes run low on space.
#include <optional>

#include "daemon/Kelvane.h"
#include "protocols/Keys.h"
#include "protocols/Names.h"
#include "support/KelvaneLog.h"
#include "support/Statistics.h"
#include "support/Volumes.h"

namespace kelvane {

namespace {

constexpr std::uint64_t lowDiskFlag = 0x4;
constexpr std::uint64_t veryLowDiskFlag = 0x200;
constexpr std::uint64_t lowDiskAmount = 250 * 1024 * 1024;
constexpr std::int32_t lowDiskTimeoutSeconds = 300;

/// The urgency is only named where somebody has chosen one.
Value purgeInfo(const std::string& volume, const volumes::Relief& relief) {
  Value::Dictionary info = {{keys::volume, volume},
                            {keys::amount, relief.amountBytes.value_or(lowDiskAmount)},
                            {keys::async, true},
                            {keys::purgeTimeout, lowDiskTimeoutSeconds}};
  if (relief.urgencyLimit) {
    info[keys::urgencyLimit] = *relief.urgencyLimit;
  }
  return info;
}

}  // namespace

void Kelvane::handleVFSStreamVEXEvent(const Value& event) {
  constexpr char name[] = "-[Kelvane handleVFSStreamVEXEvent:]";
  const std::uint64_t flags = event[keys::flags].uint64Value();
  const std::vector<std::string> volumes = lowSpaceVolumes();
  if (volumes.empty()) {
    KELVANE_TRACE("%s No volumes report low disk space, skipping purge", name);
    return;
  }
  std::optional<std::string> statistic;
  if ((flags & lowDiskFlag) != 0) {
    KELVANE_ERROR("%s caught VQ_LOWDISK", name);
    statistic = statistics::lowDiskEvent;
  } else if ((flags & veryLowDiskFlag) != 0) {
    KELVANE_ERROR("%s caught VQ_VERYLOWDISK", name);
    statistic = statistics::veryLowDiskEvent;
  }
  for (const std::string& volume : volumes) {
    purge(purgeInfo(volume, beginRelief(volume)), nullptr);
  }
  addReportStat(names::daemon, statistic, 1);
}

}  // namespace kelvane
