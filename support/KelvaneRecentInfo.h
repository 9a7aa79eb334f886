// SPDX-License-Identifier: Apache-2.0
// The record of recent answers.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <utility>

#include "platform/Archive.h"
#include "platform/Value.h"
#include "support/KelvaneRecentVolumeInfo.h"

namespace kelvane {

/// What parts of a record take in its archive at most: a service's answer, a volume but for its services, and a record
/// but for its volumes.
[[nodiscard]] inline archive::Size archiveSizeOf(const std::string& identifier,
                                                 const KelvaneRecentServiceInfo& service) {
  archive::Size size = archive::sizeOfObject;
  size += archive::sizeOfKey(identifier);
  size += archive::sizeOf(service.amount());
  size += archive::sizeOf(service.timestamp());
  return size;
}
[[nodiscard]] archive::Size archiveSizeOf(const std::string& name, const KelvaneRecentVolumeInfo& volume);
[[nodiscard]] archive::Size archiveSizeOfRecord();

/// What the services last said about the volumes. The state store keeps it as an archive; whoever reads it
/// there owns what it gets. Not safe for concurrent use.
class KelvaneRecentInfo {
 public:
  /// By volume name.
  using Volumes = std::map<std::string, KelvaneRecentVolumeInfo, std::less<>>;

  /// What came of a validation.
  static constexpr int nothingToDo = 1;
  /// The record is of no use; the stored copy is to be deleted.
  static constexpr int isInvalid = 2;
  /// The record was changed and is to be stored again.
  static constexpr int needsSyncing = 3;

  /// Without volumes, not even an empty dictionary of them, the record is invalid.
  static std::shared_ptr<KelvaneRecentInfo> kelvaneRecentInfo(std::optional<Volumes> volumes);

  /// Null when there are none.
  const Volumes* volumes() const { return volumes_ ? &*volumes_ : nullptr; }
  void setVolumes(Volumes volumes);
  /// The volumes, to be changed and set again; empty when there are none. Until then there are none here.
  Volumes takeVolumes();

  /// The volume whose answers stay, however long the record is.
  void setAskedVolume(std::string volume) { askedVolume_ = std::move(volume); }
  /// Drops what can no longer be relied on: entries of services and of volumes that are more than threshold
  /// seconds old or from the future, all services of a volume that has gained or lost more than so many bytes of
  /// free space since its last answer, and, after an archive was read, what is no volume. A record that is not of
  /// the expected shape, or has more than limits::recentVolumes, is invalid and left as it is. When what is left is
  /// too long to be archived, the volumes whose last answer is the oldest go, but never the one that is asked about.
  int validate(const Value& freespaceChange, double threshold);

  /// Null for an archive of anything else.
  static std::shared_ptr<KelvaneRecentInfo> fromArchive(std::span<const std::uint8_t> bytes);
  /// None when the record is too large (limits::archiveBytes), as it can be with one volume.
  [[nodiscard]] std::optional<Data> archive() const;

  /// A number that rises with every change.
  std::uint64_t changes() const { return changes_; }
  /// For log lines.
  Value description() const;

  friend bool operator==(const KelvaneRecentInfo& left, const KelvaneRecentInfo& right) {
    return left.volumes_ == right.volumes_;
  }

 private:
  bool mayBeAsked(const std::string& volume) const;
  bool dropWhatDoesNotFit();
  archive::Size archiveSize() const;

  std::optional<Volumes> volumes_;
  std::string askedVolume_;
  std::uint64_t changes_ = 0;
  /// Nobody has made sure yet that its volumes are some.
  bool isFromArchive_ = false;
  /// What an archive may come to: the length of the last one.
  mutable std::size_t expectedBytes_ = 0;
};

}  // namespace kelvane
