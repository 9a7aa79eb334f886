// SPDX-License-Identifier: Apache-2.0
// What the process tells the script that ran it.
#pragma once

#include "tools/kelvanectl/Failure.h"

namespace kelvane::ctl {

enum class ExitStatus : int {
  Done = 0,          ///< freed what was asked, or did it
  Short = 1,         ///< freed less than was asked, or there is no such value
  Usage = 2,         ///< the command line is wrong
  NoDaemon = 3,      ///< kelvaned is not there, or the connection to it was lost
  NotEntitled = 4,   ///< the daemon refused the request
  NoVolume = 5,      ///< not the mount point of a writable, local file system
  Failed = 6,        ///< the daemon answered with an error, as when a limit is passed
  Unwritten = 7,     ///< all went well, but standard output did not take what there was to say
  Interrupted = 130  ///< by SIGINT or SIGTERM
};

ExitStatus exitStatusOf(Ending ending);

}  // namespace kelvane::ctl
