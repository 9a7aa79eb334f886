// SPDX-License-Identifier: Apache-2.0
// One request to the daemon and the wait for its answer.
#pragma once

#include <functional>
#include <variant>

#include "support/KelvaneClient.h"
#include "tools/kelvanectl/Failure.h"

namespace kelvane::ctl {

class Interruption;

/// The daemon's answer, or why there is none.
using Outcome = std::variant<Value, RequestFailure>;

Outcome outcomeOf(const KelvaneClientResult& result);

/// Sends a request, by a function that is given where its result is to go, and waits for that without limit, or until
/// the process is interrupted.
Outcome await(const std::function<void(KelvaneClient::Handler)>& send, const Interruption& interruption);

}  // namespace kelvane::ctl
