// SPDX-License-Identifier: Apache-2.0
// How a command ended, and why a request got no answer.
#pragma once

#include <string>
#include <string_view>

namespace kelvane::ctl {

enum class Ending {
  Freed,           ///< at least what was asked
  Short,           ///< less, after the last request
  Interrupted,     ///< by a signal
  Refused,         ///< the daemon answered with nothing
  NotAdmitted,     ///< the daemon is there and does not talk to this user
  NoDaemon,        ///< nobody listens
  ConnectionLost,  ///< in mid request
  Failed,          ///< the daemon answered with an error
  NoVolume,        ///< nothing was asked: the daemon would refuse the volume
  NoServices,      ///< less, as there was no service to ask
  Declined,        ///< less, as the person at the terminal did not want what was to come next
};

struct RequestFailure {
  Ending ending;
  /// Why, in words, where the ending alone does not tell.
  std::string detail;
};

/// Who has the entitlement, and how to come by it.
std::string lacksEntitlement(std::string_view name);

/// What went wrong, for standard error.
std::string failureText(const RequestFailure& failure);

}  // namespace kelvane::ctl
