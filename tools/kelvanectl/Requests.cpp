// SPDX-License-Identifier: Apache-2.0
// One request to the daemon and the wait for its answer.
#include "tools/kelvanectl/Requests.h"

#include <memory>
#include <optional>

#include "tools/kelvanectl/AnswerSlot.h"
#include "tools/kelvanectl/Interruption.h"

namespace kelvane::ctl {

Outcome outcomeOf(const KelvaneClientResult& result) {
  using Status = KelvaneClientResult::Status;
  switch (result.status) {
    case Status::Answered:
      return result.value;
    case Status::Refused:
      return RequestFailure{Ending::Refused, result.text};
    case Status::NoDaemon:
      return RequestFailure{Ending::NoDaemon, result.text};
    case Status::NotAdmitted:
      return RequestFailure{Ending::NotAdmitted, result.text};
    case Status::ConnectionLost:
      return RequestFailure{Ending::ConnectionLost, result.text};
    case Status::Failed:
      break;
  }
  return RequestFailure{Ending::Failed, result.text};
}

Outcome await(const std::function<void(KelvaneClient::Handler)>& send, const Interruption& interruption) {
  const auto slot = std::make_shared<AnswerSlot>();
  send([slot](const KelvaneClientResult& result) { slot->put(result); });
  const std::optional<KelvaneClientResult> result = slot->wait(interruption.descriptor(), std::nullopt);
  return result ? outcomeOf(*result) : RequestFailure{Ending::Interrupted, ""};
}

}  // namespace kelvane::ctl
