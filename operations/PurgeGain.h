// SPDX-License-Identifier: Apache-2.0
// What a purge has gained, by the volume's own figures.
#pragma once

#include <atomic>
#include <cstdint>
#include <optional>

#include "platform/Value.h"
#include "platform/Volumes.h"

namespace kelvane {

/// Bytes that the volume of one purge has gained since it began. While the volume cannot be asked, or another
/// one is mounted in its place, the last figure since then holds: nothing is gained that nobody saw. A purge owns it;
/// any thread may ask.
class PurgeGain {
 public:
  /// The free space to begin with; none when it is not known.
  [[nodiscard]] std::optional<std::uint64_t> begin(const Value& volume);
  [[nodiscard]] std::uint64_t freespace(const Value& volume);

  struct Sight {
    std::uint64_t amount = 0;
    /// All bytes that are free, those kept for the superuser among them; none when that is not known.
    std::optional<std::uint64_t> freeBytes;
  };
  /// Of the purge's working result.
  [[nodiscard]] Sight look(const Value& info);
  [[nodiscard]] std::uint64_t amount(const Value& info) { return look(info).amount; }

 private:
  [[nodiscard]] std::optional<volumes::Space> ask(const Value& volume);

  /// Stays as it was at the beginning.
  std::uint64_t fileSystem_ = 0;
  std::atomic<std::uint64_t> freespace_ = 0;
};

}  // namespace kelvane
