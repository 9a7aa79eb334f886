// SPDX-License-Identifier: Apache-2.0
// What the daemon asks about volumes.
#include "support/Volumes.h"

#include "platform/Volumes.h"
#include "protocols/Keys.h"

namespace kelvane {

namespace {

Result<volumes::Space> spaceOf(const Value& volume) {
  return volume.isString() ? volumes::space(*volume.string())
                           : Failure{.number = 0, .tried = "asking what is no volume"};
}

std::optional<std::uint64_t> availableOf(const Result<volumes::Space>& space) {
  return space ? std::optional(space->available) : std::nullopt;
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
  return availableOf(spaceOf(volume));
}

std::optional<volumes::Space> volumeSpace(const Value& volume) {
  const auto space = spaceOf(volume);
  return space ? std::optional(*space) : std::nullopt;
}

std::vector<std::optional<std::uint64_t>> recentVolumeFreespaces(const std::vector<std::string>& volumes) {
  std::vector<std::optional<std::uint64_t>> freespaces;
  for (const auto& space : volumes::recentSpaces(volumes)) {
    freespaces.push_back(availableOf(space));
  }
  return freespaces;
}

std::optional<std::uint64_t> volumeFreeBytes(const Value& volume) {
  const auto space = spaceOf(volume);
  return space ? std::optional(space->free) : std::nullopt;
}

std::uint64_t amountPurged(const Value& info, std::uint64_t freespace) {
  const Value begin = info[keys::freespaceBegin];
  return begin.isNumber() && freespace > begin.uint64Value() ? freespace - begin.uint64Value() : 0;
}

}  // namespace kelvane
