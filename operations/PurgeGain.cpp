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
  static_cast<void>(ask(volume));
  return freespace_;
}

PurgeGain::Sight PurgeGain::look(const Value& info) {
  const auto known = ask(info[keys::volume]);
  return {amountPurged(info, freespace_), known ? std::optional(known->free) : std::nullopt};
}

std::optional<volumes::Space> PurgeGain::ask(const Value& volume) {
  const auto known = volumeSpace(volume);
  if (known && known->fileSystem == fileSystem_) {
    freespace_ = known->available;
  }
  return known;
}

}  // namespace kelvane
