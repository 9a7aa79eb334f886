// SPDX-License-Identifier: Apache-2.0
// What the daemon asks about volumes.
#include "support/Volumes.h"

#include "platform/Volumes.h"
#include "protocols/Keys.h"

namespace kelvane {

namespace {

Result<volumes::Space> spaceOf(const Value& volume, Result<volumes::Space> (*ask)(const std::string&)) {
  return volume.isString() ? ask(*volume.string()) : Failure{.number = 0, .tried = "asking what is no volume"};
}

}  // namespace

bool validateVolume(const Value& info) {
  const Value volume = info[keys::volume];
  return volume.isString() && volumes::isUsable(*volume.string());
}

std::vector<std::string> getLocalVolumes() {
  return volumes::local();
}

std::vector<std::string> lowSpaceVolumes() {
  return volumes::lowOnSpace();
}

volumes::Relief beginRelief(const std::string& volume) {
  return volumes::beginRelief(volume);
}

std::optional<std::uint64_t> volumeFreespace(const Value& volume) {
  const auto space = spaceOf(volume, volumes::space);
  return space ? std::optional(space->available) : std::nullopt;
}

std::optional<volumes::Space> volumeSpace(const Value& volume) {
  const auto space = spaceOf(volume, volumes::space);
  return space ? std::optional(*space) : std::nullopt;
}

std::optional<std::uint64_t> recentVolumeFreespace(const Value& volume) {
  const auto space = spaceOf(volume, volumes::recentSpace);
  return space ? std::optional(space->available) : std::nullopt;
}

std::optional<std::uint64_t> volumeFreeBytes(const Value& volume) {
  const auto space = spaceOf(volume, volumes::space);
  return space ? std::optional(space->free) : std::nullopt;
}

std::uint64_t amountPurged(const Value& info, std::uint64_t freespace) {
  const Value begin = info[keys::freespaceBegin];
  return begin.isNumber() && freespace > begin.uint64Value() ? freespace - begin.uint64Value() : 0;
}

}  // namespace kelvane
