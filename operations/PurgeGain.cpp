// SPDX-License-Identifier: Apache-2.0
// What a purge has gained, by the volume's own figures.
#include "operations/PurgeGain.h"

#include "protocols/Keys.h"
#include "support/Volumes.h"

namespace kelvane {

std::optional<std::uint64_t> PurgeGain::begin(const Value& volume) {
  const auto known = volumeFreespace(volume);
  freespace_ = known.value_or(0);
  return known;
}

std::uint64_t PurgeGain::freespace(const Value& volume) {
  if (const auto known = volumeFreespace(volume)) {
    freespace_ = *known;
  }
  return freespace_;
}

std::uint64_t PurgeGain::amount(const Value& info) {
  return amountPurged(info, freespace(info[keys::volume]));
}

}  // namespace kelvane
