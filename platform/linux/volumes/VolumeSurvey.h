// SPDX-License-Identifier: Apache-2.0
// Questions about all volumes at once.
#pragma once

#include <vector>

#include "platform/Result.h"
#include "platform/Volumes.h"
#include "platform/linux/volumes/MountTable.h"
#include "platform/linux/volumes/VolumeLevels.h"

namespace kelvane {

/// What came of asking a mount.
struct SpaceAnswer {
  VolumeMount mount;
  Result<volumes::Space> space;
};
/// Asks the file systems of all these mounts: in one question to the probe where they answer at once, and in more and
/// more at the same time where they do not, so that several slow ones take little longer than the slowest. Of the
/// mounts of one file system, those up to the first that answers.
[[nodiscard]] std::vector<SpaceAnswer> askEachSpace(const std::vector<VolumeMount>& mounts);

struct VolumeSurvey {
  /// As configured at this moment.
  VolumeLevels levels;
  std::vector<SpaceAnswer> spaces;
};
/// Asks for the levels in the same question, after the spaces.
[[nodiscard]] VolumeSurvey surveyVolumes(const std::vector<VolumeMount>& mounts);

}  // namespace kelvane
