// SPDX-License-Identifier: Apache-2.0
// The record of recent answers, and what of it still holds.
#include "support/KelvaneRecentInfo.h"

#include <vector>

#include "platform/Clock.h"
#include "platform/Limits.h"
#include "protocols/Keys.h"
#include "support/Volumes.h"

namespace kelvane {

namespace {

/// A date is good from its own moment until threshold seconds later.
class Age {
 public:
  explicit Age(double threshold) : now_(clock::now().secondsSince1970), threshold_(threshold) {}
  bool isOver(const Value& timestamp) const {
    const double age = now_ - timestamp.date()->secondsSince1970;
    return !(age >= 0 && age <= threshold_);
  }

 private:
  const double now_;
  const double threshold_;
};

bool differByMore(std::uint64_t left, std::uint64_t right, std::uint64_t limit) {
  return (left > right ? left - right : right - left) > limit;
}

/// What a look at a volume's entry tells.
struct Look {
  bool isWellFormed;
  /// One of its services' answers is too old.
  bool hasOld;
  /// What it takes in an archive.
  archive::Size size;
};

Look lookAt(const std::string& name, const KelvaneRecentVolumeInfo& volume, const Age& age) {
  Look look = {volume.freespace().isNumber() && volume.timestamp().isDate() && volume.volumeName() == Value(name),
               false, archiveSizeOf(name, volume)};
  if (volume.services() != nullptr) {
    for (const auto& [identifier, service] : *volume.services()) {
      look.isWellFormed = look.isWellFormed && service.timestamp().isDate();
      look.hasOld = look.hasOld || !look.isWellFormed || age.isOver(service.timestamp());
      look.size += archiveSizeOf(identifier, service);
    }
  }
  return look;
}

bool hasServices(const KelvaneRecentVolumeInfo& volume) {
  return volume.services() != nullptr && !volume.services()->empty();
}

/// Whether anything was dropped.
bool dropServices(KelvaneRecentVolumeInfo& volume, const Look& look, std::optional<std::uint64_t> freespace,
                  std::uint64_t freespaceChange, const Age& age) {
  // What is not known has not changed.
  const bool hasChanged = freespace && differByMore(*freespace, volume.freespace().uint64Value(), freespaceChange);
  if (!hasChanged && !look.hasOld) {
    return false;
  }
  KelvaneRecentVolumeInfo::Services services = volume.takeServices();
  std::erase_if(services, [&](const auto& entry) { return hasChanged || age.isOver(entry.second.timestamp()); });
  volume.setServices(std::move(services));
  return true;
}

}  // namespace

std::shared_ptr<KelvaneRecentInfo> KelvaneRecentInfo::kelvaneRecentInfo(std::optional<Volumes> volumes) {
  auto info = std::make_shared<KelvaneRecentInfo>();
  info->volumes_ = std::move(volumes);
  return info;
}

void KelvaneRecentInfo::setVolumes(Volumes volumes) {
  volumes_ = std::move(volumes);
  ++changes_;
}

KelvaneRecentInfo::Volumes KelvaneRecentInfo::takeVolumes() {
  ++changes_;
  return std::exchange(volumes_, std::nullopt).value_or(Volumes());
}

int KelvaneRecentInfo::validate(const Value& freespaceChange, double threshold) {
  if (!volumes_ || volumes_->size() > limits::recentVolumes) {
    return isInvalid;
  }
  // First all is looked at: a record of another shape stays as it is, and most of the time nothing is to be done.
  const Age age(threshold);
  std::vector<Look> looks;
  archive::Size size = archiveSizeOfRecord();
  for (const auto& [name, volume] : *volumes_) {
    looks.push_back(lookAt(name, volume, age));
    if (!looks.back().isWellFormed) {
      return isInvalid;
    }
    size += looks.back().size;
  }
  bool hasDropped = false;
  std::vector<std::string> names;
  std::vector<std::pair<KelvaneRecentVolumeInfo*, const Look*>> judged;
  auto volume = volumes_->begin();
  for (const Look& look : looks) {
    if (age.isOver(volume->second.timestamp()) || !mayBeAsked(volume->first)) {
      volume = volumes_->erase(volume);
      hasDropped = true;
      continue;
    }
    if (hasServices(volume->second)) {
      names.push_back(volume->first);
      judged.emplace_back(&volume->second, &look);
    }
    ++volume;
  }
  // All at the same time: some may be slow, or hang.
  const auto freespaces = recentVolumeFreespaces(names);
  for (std::size_t index = 0; index < judged.size(); ++index) {
    const auto& [entry, look] = judged[index];
    hasDropped = dropServices(*entry, *look, freespaces[index], freespaceChange.uint64Value(), age) || hasDropped;
  }
  isFromArchive_ = false;
  if (!size.fits()) {
    hasDropped = dropWhatDoesNotFit() || hasDropped;
  }
  changes_ += hasDropped ? 1 : 0;
  return hasDropped ? needsSyncing : nothingToDo;
}

archive::Size KelvaneRecentInfo::archiveSize() const {
  archive::Size size = archiveSizeOfRecord();
  for (const auto& [name, volume] : *volumes_) {
    size += archiveSizeOf(name, volume);
    if (volume.services() != nullptr) {
      for (const auto& [identifier, service] : *volume.services()) {
        size += archiveSizeOf(identifier, service);
      }
    }
  }
  return size;
}

/// Whether anything was dropped.
bool KelvaneRecentInfo::dropWhatDoesNotFit() {
  bool hasDropped = false;
  while (!archiveSize().fits()) {
    auto oldest = volumes_->end();
    for (auto volume = volumes_->begin(); volume != volumes_->end(); ++volume) {
      if (volume->first != askedVolume_ &&
          (oldest == volumes_->end() ||
           volume->second.timestamp().date()->secondsSince1970 < oldest->second.timestamp().date()->secondsSince1970)) {
        oldest = volume;
      }
    }
    if (oldest == volumes_->end()) {
      break;
    }
    volumes_->erase(oldest);
    hasDropped = true;
  }
  return hasDropped;
}

/// What an archive names may be anything, such as the mount point of a server that does not answer.
bool KelvaneRecentInfo::mayBeAsked(const std::string& volume) const {
  return !isFromArchive_ || validateVolume(Value::Dictionary{{keys::volume, volume}});
}

Value KelvaneRecentInfo::description() const {
  Value::Dictionary described;
  for (const auto& [name, volume] : volumes_.value_or(Volumes())) {
    Value::Dictionary services;
    if (volume.services() != nullptr) {
      for (const auto& [identifier, service] : *volume.services()) {
        services[identifier] = Value::Dictionary{{"amount", service.amount()}, {"timestamp", service.timestamp()}};
      }
    }
    described[name] = Value::Dictionary{
        {"freespace", volume.freespace()}, {"services", std::move(services)}, {"timestamp", volume.timestamp()}};
  }
  return described;
}

}  // namespace kelvane
