// SPDX-License-Identifier: Apache-2.0
// What the daemon asks about volumes.
#include "support/Volumes.h"

#include "platform/Volumes.h"
#include "protocols/Keys.h"

namespace kelvane {

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

std::uint64_t volumeFreespace(const Value& volume) {
  return volume.isString() ? volumes::availableBytes(*volume.string()) : 0;
}

std::optional<std::uint64_t> volumeFreeBytes(const Value& volume) {
  if (!volume.isString()) {
    return std::nullopt;
  }
  const auto space = volumes::space(*volume.string());
  return space ? std::optional(space->free) : std::nullopt;
}

std::uint64_t amountPurged(const Value& info) {
  const Value begin = info[keys::freespaceBegin];
  if (!begin.isNumber()) {
    return 0;
  }
  const std::uint64_t before = begin.uint64Value();
  const std::uint64_t now = volumeFreespace(info[keys::volume]);
  return now > before ? now - before : 0;
}

}  // namespace kelvane
