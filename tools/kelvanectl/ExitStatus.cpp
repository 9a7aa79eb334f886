// SPDX-License-Identifier: Apache-2.0
// What the process tells the script that ran it.
#include "tools/kelvanectl/ExitStatus.h"

namespace kelvane::ctl {

ExitStatus exitStatusOf(Ending ending) {
  switch (ending) {
    case Ending::Freed:
      return ExitStatus::Done;
    case Ending::Short:
    case Ending::NoServices:
    case Ending::Declined:
      return ExitStatus::Short;
    case Ending::Interrupted:
      return ExitStatus::Interrupted;
    case Ending::Refused:
    case Ending::NotAdmitted:
      return ExitStatus::NotEntitled;
    case Ending::NoDaemon:
    case Ending::ConnectionLost:
      return ExitStatus::NoDaemon;
    case Ending::Failed:
      return ExitStatus::Failed;
    case Ending::NoVolume:
      return ExitStatus::NoVolume;
  }
  return ExitStatus::Failed;
}

}  // namespace kelvane::ctl
