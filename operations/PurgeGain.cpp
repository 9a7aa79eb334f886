// SPDX-License-Identifier: Apache-2.0
// What a purge has gained, by the volume's own figures.
#include "operations/PurgeGain.h"

#include "protocols/Keys.h"
#include "support/Volumes.h"

namespace kelvane {

std::optional<std::uint64_t> PurgeGain::begin(const Value& volume) {
  const auto known = volumeSpace(volume);
  if (!known) {
    return std::nullopt;
  }
  fileSystem_ = known->fileSystem;
  freespace_ = known->available;
  return known->available;
}

std::uint64_t PurgeGain::freespace(const Value& volume) {
  const auto known = volumeSpace(volume);
  if (known && known->fileSystem == fileSystem_) {
    freespace_ = known->available;
  }
  return freespace_;
}

std::uint64_t PurgeGain::amount(const Value& info) {
  return amountPurged(info, freespace(info[keys::volume]));
}

}  // namespace kelvane
