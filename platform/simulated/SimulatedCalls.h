// SPDX-License-Identifier: Apache-2.0
// How the binding's functions reach the simulation they are called in.
#pragma once

#include "platform/simulated/Scheduler.h"
#include "platform/simulated/World.h"

namespace kelvane::simulated {

/// The calling thread's scheduler; stops the process outside a run.
Scheduler& scheduler();
/// Whether a call from outside is to be ignored: objects of a finished run are destroyed after it, and what
/// they do then reaches nobody.
bool dropsCall();
/// The world of the simulation that exists, whether or not it runs; stops the process without one.
World& world();
/// As world(), null without one.
World* worldIfAny();

}  // namespace kelvane::simulated
