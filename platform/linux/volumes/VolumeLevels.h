// SPDX-License-Identifier: Apache-2.0
// When a volume counts as low on space.
#pragma once

#include <cstdint>
#include <map>
#include <set>
#include <string>

#include "platform/Value.h"
#include "platform/Volumes.h"

namespace kelvane {

enum class SpaceLevel { Ample, Low, VeryLow };

/// The bytes below which a volume enters a level; 0 for a level that it never enters.
struct SpaceMarks {
  std::uint64_t low = 0;
  std::uint64_t veryLow = 0;

  std::uint64_t highest() const { return low > veryLow ? low : veryLow; }
  SpaceLevel levelAt(std::uint64_t available) const {
    return available < veryLow ? SpaceLevel::VeryLow : available < low ? SpaceLevel::Low : SpaceLevel::Ample;
  }
};

/// The bounds of the levels for each volume: the defaults, with what an administrator has changed.
class VolumeLevels {
 public:
  /// A level is entered below both a share of the volume's size and an amount of bytes.
  struct Bounds {
    double lowPercent = 10;
    std::uint64_t lowBytes = std::uint64_t{1} << 30;
    double veryLowPercent = 3;
    std::uint64_t veryLowBytes = std::uint64_t{256} << 20;
    bool isRelieved = true;
    volumes::Relief relief;
  };
  /// Smaller file systems are not watched: what they hold is seldom anything that can be purged.
  static constexpr std::uint64_t smallestWatchedBytes = std::uint64_t{64} << 20;

  /// The defaults.
  VolumeLevels() = default;
  /// From a dictionary with "LowPercent", "LowBytes", "VeryLowPercent", "VeryLowBytes", "Relief", "ReliefBytes" and
  /// "ReliefUrgencyLimit", for all volumes, and the same keys for single ones beneath "Volumes" and the mount point.
  /// Whatever is of another type or no sensible range is left at the default.
  explicit VolumeLevels(const Value& configuration);

  /// Those that have entries of their own.
  [[nodiscard]] std::set<std::string> volumes() const;
  [[nodiscard]] volumes::Relief relief(const std::string& volume) const;
  /// Of a volume of this size; 0 for one that is not to be relieved.
  [[nodiscard]] SpaceMarks marks(const std::string& volume, std::uint64_t size) const;

 private:
  [[nodiscard]] const Bounds& of(const std::string& volume) const;

  Bounds general_;
  std::map<std::string, Bounds, std::less<>> single_;
};

}  // namespace kelvane
