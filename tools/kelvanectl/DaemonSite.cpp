// SPDX-License-Identifier: Apache-2.0
// The real daemon and a mounted volume.
#include "tools/kelvanectl/DaemonSite.h"

#include <memory>
#include <optional>
#include <utility>

#include "platform/Control.h"
#include "platform/Volumes.h"
#include "protocols/Keys.h"
#include "protocols/Names.h"
#include "tools/kelvanectl/AnswerSlot.h"
#include "tools/kelvanectl/Interruption.h"

namespace kelvane::ctl {
namespace {

using namespace std::chrono_literals;
using Status = KelvaneClientResult::Status;

constexpr auto progressInterval = 100ms;
/// A cancel is answered at once; a daemon that is too busy for that gets no more of a person's time.
constexpr auto cancelPatience = 2s;

}  // namespace

DaemonSite::DaemonSite(std::string volume, const Interruption& interruption, std::function<void()> progress)
    : volume_(std::move(volume)), interruption_(interruption), progress_(std::move(progress)) {}

Outcome DaemonSite::purge(const Value& info) {
  const auto slot = std::make_shared<AnswerSlot>();
  client_.purge(info, [slot](const KelvaneClientResult& result) { slot->put(result); });

  std::optional<KelvaneClientResult> result;
  while (!result) {
    result = slot->wait(interruption_.descriptor(),
                        progress_ ? std::optional<std::chrono::milliseconds>(progressInterval) : std::nullopt);
    if (!result && interruption_.comesWithin(0ms)) {
      sendCancel(info[keys::token]);
      return RequestFailure{Ending::Interrupted, ""};
    }
    if (progress_) {
      progress_();
    }
  }
  return result->status == Status::Refused ? result->value : outcomeOf(*result);
}

std::optional<std::uint64_t> DaemonSite::available() {
  const auto space = volumes::space(volume_);
  if (!space || space->fileSystem != fileSystem_.value_or(space->fileSystem)) {
    return std::nullopt;
  }
  fileSystem_ = space->fileSystem;
  return space->available;
}

Outcome sendCancel(const Value& token) {
  // A connection of its own: requests of one connection are worked on in turn.
  const KelvaneClient client;
  const auto slot = std::make_shared<AnswerSlot>();
  client.cancelPurge(Value(Value::Dictionary{{keys::token, token}}),
                     [slot](const KelvaneClientResult& result) { slot->put(result); });
  const auto result = slot->wait(-1, cancelPatience);
  if (!result) {
    return RequestFailure{Ending::ConnectionLost, "no answer"};
  }
  return outcomeOf(*result);
}

Outcome runDaily(const Interruption& interruption) {
  const auto send = [](const KelvaneClient::Handler& handler) {
    control::requestActivity(names::dailyActivity, [handler](const std::optional<ipc::CallError>& error) {
      handler(error ? KelvaneClientResult::of(*error) : KelvaneClientResult{Status::Answered, {}, {}});
    });
  };
  return await(send, interruption);
}

}  // namespace kelvane::ctl
