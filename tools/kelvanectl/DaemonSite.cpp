// SPDX-License-Identifier: Apache-2.0
// The real daemon and a mounted volume.
#include "tools/kelvanectl/DaemonSite.h"

#include <poll.h>

#include <memory>
#include <optional>
#include <utility>

#include "platform/Volumes.h"
#include "protocols/Keys.h"
#include "tools/kelvanectl/AnswerSlot.h"
#include "tools/kelvanectl/Interruption.h"

namespace kelvane::ctl {
namespace {

using namespace std::chrono_literals;
using Status = KelvaneClientResult::Status;

constexpr auto progressInterval = 100ms;
/// A cancel is answered at once; a daemon that is too busy for that gets no more of a person's time.
constexpr auto cancelPatience = 2s;

bool isReadable(int descriptor) {
  pollfd event{descriptor, POLLIN, 0};
  return poll(&event, 1, 0) == 1;
}

Ending endingFor(Status status) {
  switch (status) {
    case Status::NoDaemon:
      return Ending::NoDaemon;
    case Status::NotAdmitted:
      return Ending::NotAdmitted;
    case Status::ConnectionLost:
      return Ending::ConnectionLost;
    case Status::Answered:
    case Status::Refused:
    case Status::Failed:
      break;
  }
  return Ending::Failed;
}

}  // namespace

DaemonSite::DaemonSite(std::string volume, const Interruption& interruption, std::function<void()> progress)
    : volume_(std::move(volume)), interruption_(interruption), progress_(std::move(progress)) {}

std::variant<Value, RequestFailure> DaemonSite::purge(const Value& info) {
  const auto slot = std::make_shared<AnswerSlot>();
  client_.purge(info, [slot](const KelvaneClientResult& result) { slot->put(result); });

  std::optional<KelvaneClientResult> result;
  while (!result) {
    result = slot->wait(interruption_.descriptor(),
                        progress_ ? std::optional<std::chrono::milliseconds>(progressInterval) : std::nullopt);
    if (!result && isReadable(interruption_.descriptor())) {
      sendCancel(info[keys::token]);
      return RequestFailure{Ending::Interrupted, ""};
    }
    if (progress_) {
      progress_();
    }
  }
  if (result->status == Status::Answered || result->status == Status::Refused) {
    return result->value;
  }
  return RequestFailure{endingFor(result->status), result->text};
}

std::uint64_t DaemonSite::available() {
  return volumes::availableBytes(volume_);
}

std::variant<Value, RequestFailure> sendCancel(const Value& token) {
  // A connection of its own: requests of one connection are worked on in turn.
  const KelvaneClient client;
  const auto slot = std::make_shared<AnswerSlot>();
  client.cancelPurge(Value(Value::Dictionary{{keys::token, token}}),
                     [slot](const KelvaneClientResult& result) { slot->put(result); });
  const auto result = slot->wait(-1, cancelPatience);
  if (!result) {
    return RequestFailure{Ending::ConnectionLost, "no answer"};
  }
  if (result->status != Status::Answered) {
    return RequestFailure{endingFor(result->status), result->text};
  }
  return result->value;
}

}  // namespace kelvane::ctl
