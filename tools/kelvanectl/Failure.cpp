// SPDX-License-Identifier: Apache-2.0
// Why a request got no answer, in words.
#include "tools/kelvanectl/Failure.h"

namespace kelvane::ctl {

std::string failureText(const RequestFailure& failure) {
  switch (failure.ending) {
    case Ending::Interrupted:
      return "interrupted";
    case Ending::NotAdmitted:
      return "the daemon closed the connection: this user does not hold CLIENT_ENTITLEMENT";
    case Ending::NoDaemon:
      return "no daemon: " + failure.detail;
    case Ending::ConnectionLost:
      return "connection to the daemon lost: " + failure.detail;
    case Ending::Failed:
      return "the daemon answered with an error: " + failure.detail;
    case Ending::Freed:
    case Ending::Short:
    case Ending::Refused:
    case Ending::NoVolume:
      break;
  }
  return failure.detail;
}

}  // namespace kelvane::ctl
