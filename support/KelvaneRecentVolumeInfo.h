// SPDX-License-Identifier: Apache-2.0
// What is known of one volume.
#pragma once

#include <map>
#include <optional>
#include <string>
#include <utility>

#include "platform/Value.h"
#include "support/KelvaneRecentServiceInfo.h"

namespace kelvane {

/// The last answers of the services about one volume, and how the volume was when they came.
class KelvaneRecentVolumeInfo {
 public:
  /// By service identifier.
  using Services = std::map<std::string, KelvaneRecentServiceInfo, std::less<>>;

  static KelvaneRecentVolumeInfo kelvaneRecentVolumeInfo(std::optional<Services> services, Value freespace,
                                                         Value timestamp, Value volumeName) {
    KelvaneRecentVolumeInfo info;
    info.services_ = std::move(services);
    info.freespace_ = std::move(freespace);
    info.timestamp_ = std::move(timestamp);
    info.volumeName_ = std::move(volumeName);
    return info;
  }

  /// Null when there are none, not even an empty dictionary.
  const Services* services() const { return services_ ? &*services_ : nullptr; }
  void setServices(Services services) { services_ = std::move(services); }
  /// The services, to be changed and set again; empty when there are none. Until then there are none here.
  Services takeServices() { return std::exchange(services_, std::nullopt).value_or(Services()); }

  /// Bytes that were available on the volume at the time stamp.
  const Value& freespace() const { return freespace_; }
  void setFreespace(Value freespace) { freespace_ = std::move(freespace); }
  /// The date of the last answer.
  const Value& timestamp() const { return timestamp_; }
  void setTimestamp(Value timestamp) { timestamp_ = std::move(timestamp); }
  const Value& volumeName() const { return volumeName_; }

  friend bool operator==(const KelvaneRecentVolumeInfo&, const KelvaneRecentVolumeInfo&) = default;

 private:
  KelvaneRecentVolumeInfo() = default;

  std::optional<Services> services_;
  Value freespace_;
  Value timestamp_;
  Value volumeName_;
};

}  // namespace kelvane
