// SPDX-License-Identifier: Apache-2.0
// The record of recent answers, as queries read and write it.
#include "operations/KelvanePurgeableOperation.h"
#include "operations/SharedRegistry.h"
#include "platform/Clock.h"
#include "protocols/Keys.h"
#include "support/KelvaneLog.h"
#include "support/Volumes.h"

namespace kelvane {

namespace {

constexpr char readName[] = "-[KelvanePurgeableOperation cachedInfo:]_block";
constexpr char writeName[] = "-[KelvanePurgeableOperation updateServiceStats:withInfo:]_block";

/// The stored record; null when there is none, or something else in its place.
std::shared_ptr<KelvaneRecentInfo> storedRecord(SharedRegistry& registry) {
  const StateObject stored = registry.clientGetStateSync(keys::recentServiceStats);
  const auto* record = std::get_if<std::shared_ptr<KelvaneRecentInfo>>(&stored);
  return record != nullptr ? *record : nullptr;
}

int validate(KelvaneRecentInfo& record, const std::string& volume) {
  record.setAskedVolume(volume);
  return record.validate(KelvanePurgeableOperation::recentFreespaceChange, KelvanePurgeableOperation::recentSeconds);
}

/// What the record says about a volume, whatever became of its validation.
Value::Dictionary amountsIn(const KelvaneRecentInfo& record, const std::string& volume) {
  const KelvaneRecentInfo::Volumes* volumes = record.volumes();
  if (volumes == nullptr) {
    return {};
  }
  const auto found = volumes->find(volume);
  if (found == volumes->end() || found->second.services() == nullptr) {
    return {};
  }
  Value::Dictionary amounts;
  for (const auto& [identifier, service] : *found->second.services()) {
    amounts.emplace_hint(amounts.end(), identifier, service.amount());
  }
  return amounts;
}

void storeWhatBecameOf(const std::shared_ptr<KelvaneRecentInfo>& record, int code, SharedRegistry& registry) {
  if (code == KelvaneRecentInfo::isInvalid) {
    KELVANE_TRACE("%s Recent Info is invalid, deleting...", readName);
    registry.clientSetStateSync(Value(), keys::recentServiceStats);
  } else if (code == KelvaneRecentInfo::needsSyncing) {
    KELVANE_TRACE("%s Recent Info need syncing. New values: %@", readName, record->description());
    registry.clientSetStateSync(record, keys::recentServiceStats);
  }
}

void noteAnswer(KelvaneRecentInfo::Volumes& volumes, const std::string& identifier, const Value& amount,
                const std::string& volume, const Value& freespace) {
  const Value now = clock::now();
  const auto service = KelvaneRecentServiceInfo::kelvaneRecentServiceInfo(amount, now);
  const auto found = volumes.find(volume);
  if (found == volumes.end()) {
    volumes.emplace(volume, KelvaneRecentVolumeInfo::kelvaneRecentVolumeInfo(
                                KelvaneRecentVolumeInfo::Services{{identifier, service}}, freespace, now, volume));
    return;
  }
  KelvaneRecentVolumeInfo::Services services = found->second.takeServices();
  services.insert_or_assign(identifier, service);
  found->second.setServices(std::move(services));
  found->second.setFreespace(freespace);
  found->second.setTimestamp(now);
}

}  // namespace

Value KelvanePurgeableOperation::cachedInfo(const Value& info) const {
  SharedRegistry& registry = SharedRegistry::sharedKelvane();
  Value::Dictionary result;
  registry.defaults_queue().sync([&] {
    const Value volume = info[keys::volume];
    const auto record = volume.isString() ? storedRecord(registry) : nullptr;
    const int code = record ? validate(*record, *volume.string()) : KelvaneRecentInfo::nothingToDo;
    const Value servicesToCount = record ? amountsIn(*record, *volume.string()) : Value::Dictionary();
    KELVANE_TRACE("%s servicesToCount: %@", readName, servicesToCount);
    Value::Array servicesToQuery;
    for (const auto& [identifier, service] : services()) {
      if (!servicesToCount.dictionary()->contains(identifier)) {
        servicesToQuery.emplace_back(identifier);
      }
    }
    result[keys::servicesToQuery] = servicesToQuery;
    result[keys::servicesToCount] = servicesToCount;
    storeWhatBecameOf(record, code, registry);
    if (!servicesToQuery.empty()) {
      KELVANE_TRACE("%s servicesToQuery: %@", readName, result[keys::servicesToQuery]);
    } else {
      KELVANE_TRACE("%s using all cached info", readName);
    }
  });
  return result;
}

void KelvanePurgeableOperation::updateServiceStats(const std::string& identifier, const Value& statistics) {
  SharedRegistry& registry = SharedRegistry::sharedKelvane();
  registry.defaults_queue().async([&registry, identifier, statistics] {
    std::shared_ptr<KelvaneRecentInfo> record = storedRecord(registry);
    KELVANE_TRACE("%s ^^^ENTRY, serviceID: %@ : %@, recentInfo: %@", writeName, identifier, statistics,
                  record ? record->description() : Value());
    const std::string volume = *statistics[keys::volume].string();
    const auto freespace = volumeFreespace(volume);
    if (!freespace) {
      // Nobody could tell later whether the answer still holds.
      KELVANE_ERROR("%s free space of %@ is not known, forgetting the answer of %@", writeName, volume, identifier);
      return;
    }
    KelvaneRecentInfo::Volumes volumes = record ? record->takeVolumes() : KelvaneRecentInfo::Volumes();
    noteAnswer(volumes, identifier, statistics[keys::amount], volume, *freespace);
    if (record) {
      record->setVolumes(std::move(volumes));
    } else {
      record = KelvaneRecentInfo::kelvaneRecentInfo(std::move(volumes));
    }
    // Other volumes' entries, and this one's older ones, may have had their time.
    validate(*record, volume);
    registry.clientSetStateSync(record, keys::recentServiceStats);
  });
}

}  // namespace kelvane
