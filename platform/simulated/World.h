// SPDX-License-Identifier: Apache-2.0
// Everything that one simulation holds.
#pragma once

#include <cstdint>

#include "platform/simulated/Random.h"
#include "platform/simulated/Scheduler.h"
#include "platform/simulated/SimulatedClock.h"
#include "platform/simulated/SimulatedFiles.h"
#include "platform/simulated/SimulatedIpc.h"
#include "platform/simulated/SimulatedLog.h"
#include "platform/simulated/SimulatedPreferences.h"
#include "platform/simulated/SimulatedProcess.h"
#include "platform/simulated/SimulatedStatistics.h"
#include "platform/simulated/SimulatedVolumes.h"

namespace kelvane::simulated {

/// What a simulation is made of. It is never destroyed: abandoned threads and what they hold go on referring to it.
struct World {
  explicit World(std::uint64_t seed)
      : scheduler(seed),
        faults(seed, Random::Stream::Faults),
        load(seed, Random::Stream::Load),
        identifiers(seed, Random::Stream::Identifiers) {}

  Scheduler scheduler;
  Random faults;
  Random load;
  Random identifiers;
  Clock clock;
  Files files;
  Ipc ipc;
  Log log;
  Preferences preferences;
  Process process;
  Statistics statistics;
  Volumes volumes;
};

}  // namespace kelvane::simulated
