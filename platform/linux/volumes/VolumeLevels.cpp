// SPDX-License-Identifier: Apache-2.0
// When a volume counts as low on space.
#include "platform/linux/volumes/VolumeLevels.h"

#include <cmath>

namespace kelvane {

namespace {

double percentOr(const Value& value, double otherwise) {
  const double percent = value.doubleValue();
  return value.isNumber() && percent >= 0 && percent <= 100 ? percent : otherwise;
}

std::uint64_t bytesOr(const Value& value, std::uint64_t otherwise) {
  return value.isNumber() && !(value.doubleValue() < 0) && !std::isnan(value.doubleValue()) ? value.uint64Value()
                                                                                            : otherwise;
}

/// The text format knows no truth values.
bool truthOr(const Value& value, bool otherwise) {
  if (value.isString()) {
    return *value.string() == "NO" ? false : *value.string() == "YES" || otherwise;
  }
  return value.isBoolean() ? value.boolValue() : otherwise;
}

volumes::Relief reliefFrom(const Value& entries, const volumes::Relief& otherwise) {
  volumes::Relief relief = otherwise;
  const Value& bytes = entries["ReliefBytes"];
  if (bytes.isNumber() && bytes.doubleValue() >= 1) {
    relief.amountBytes = bytes.uint64Value();
  }
  const Value& urgency = entries["ReliefUrgencyLimit"];
  if (urgency.isNumber() && urgency.doubleValue() >= 1 && urgency.doubleValue() < 5) {
    relief.urgencyLimit = static_cast<std::int32_t>(urgency.doubleValue());
  }
  return relief;
}

VolumeLevels::Bounds boundsFrom(const Value& entries, const VolumeLevels::Bounds& otherwise) {
  return {.lowPercent = percentOr(entries["LowPercent"], otherwise.lowPercent),
          .lowBytes = bytesOr(entries["LowBytes"], otherwise.lowBytes),
          .veryLowPercent = percentOr(entries["VeryLowPercent"], otherwise.veryLowPercent),
          .veryLowBytes = bytesOr(entries["VeryLowBytes"], otherwise.veryLowBytes),
          .isRelieved = truthOr(entries["Relief"], otherwise.isRelieved),
          .relief = reliefFrom(entries, otherwise.relief)};
}

/// A volume is below both bounds exactly when it is below the lesser one. Where a share is no whole number of
/// bytes, the next above it separates the same amounts.
std::uint64_t markOf(std::uint64_t size, double percent, std::uint64_t bytes) {
  const double share = std::ceil(static_cast<double>(size) * percent / 100);
  return share < static_cast<double>(bytes) ? static_cast<std::uint64_t>(share) : bytes;
}

}  // namespace

VolumeLevels::VolumeLevels(const Value& configuration) : general_(boundsFrom(configuration, Bounds{})) {
  if (const auto volumes = configuration["Volumes"].dictionary()) {
    for (const auto& [volume, entries] : *volumes) {
      single_.emplace(volume, boundsFrom(entries, general_));
    }
  }
}

std::set<std::string> VolumeLevels::volumes() const {
  std::set<std::string> names;
  for (const auto& [name, bounds] : single_) {
    names.insert(name);
  }
  return names;
}

const VolumeLevels::Bounds& VolumeLevels::of(const std::string& volume) const {
  const auto single = single_.find(volume);
  return single == single_.end() ? general_ : single->second;
}

volumes::Relief VolumeLevels::relief(const std::string& volume) const {
  return of(volume).relief;
}

SpaceMarks VolumeLevels::marks(const std::string& volume, std::uint64_t size) const {
  const Bounds& bounds = of(volume);
  if (size < smallestWatchedBytes || !bounds.isRelieved) {
    return {};
  }
  return {.low = markOf(size, bounds.lowPercent, bounds.lowBytes),
          .veryLow = markOf(size, bounds.veryLowPercent, bounds.veryLowBytes)};
}

}  // namespace kelvane
