// SPDX-License-Identifier: Apache-2.0
// What kelvanectl's commands do.
#pragma once

#include "tools/kelvanectl/CommandLine.h"
#include "tools/kelvanectl/ExitStatus.h"

namespace kelvane::ctl {

class Interruption;

/// Each writes what there is to say to standard output and errors to standard error.
ExitStatus run(const PurgeCommand& command, const Interruption& interruption);
ExitStatus run(const CancelCommand& command);
ExitStatus run(const DailyCommand& command, const Interruption& interruption);
ExitStatus run(const QueryCommand& command, const Interruption& interruption);
ExitStatus run(const StateCommand& command, const Interruption& interruption);
ExitStatus run(const Message& message);

}  // namespace kelvane::ctl
