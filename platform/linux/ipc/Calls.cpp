// SPDX-License-Identifier: Apache-2.0
// The calls of one connection that have no answer yet.
#include "platform/linux/ipc/Calls.h"

#include "platform/Queues.h"
#include "platform/linux/ipc/Hub.h"

namespace kelvane::ipc {

namespace {

/// The room comes first, so that it goes last: whatever is counted in it is gone by then.
struct Answer {
  HeldReplies::Room room;
  Call call;
  std::variant<Value, CallError> outcome;
};

/// Whatever the call and the outcome hold goes on a thread that may block.
void answerCall(Call call, std::variant<Value, CallError> outcome, HeldReplies::Room room = nullptr) {
  globalQueue::async([answer = std::make_shared<Answer>(Answer{std::move(room), std::move(call), std::move(outcome)})] {
    const Answer given = std::move(*answer);
    if (given.call.outcome) {
      given.call.outcome(given.outcome);
    }
  });
}

/// Room for a reply of this user's; null when there is none.
HeldReplies::Room hold(DecodedReply& decoded, uid_t user) {
  HeldReplies::Room room = Hub::shared().heldReplies.hold(user, decoded.cost);
  if (room == nullptr) {
    decoded.outcome =
        CallError{std::string(SD_BUS_ERROR_LIMITS_EXCEEDED) + ": The replies of this user take too much memory",
                  CallError::Cause::Answered};
  }
  return room;
}

/// For a call that cannot be made a message.
void refuse(Call call) {
  answerCall(std::move(call), CallError{std::string(SD_BUS_ERROR_INVALID_ARGS) + ": The call cannot be encoded",
                                        CallError::Cause::Answered});
}

}  // namespace

void failCall(Call call, const CallError& error) {
  // Whoever learns that the connection has failed finds done what was to be done at its end.
  Hub::shared().endHandlers.runAfter([call = std::make_shared<Call>(std::move(call)), error] {
    const Call failed = std::move(*call);
    if (*failed.error) {
      (*failed.error)(error);
    }
  });
}

void Calls::add(Call call) {
  maximumReplyBytes_ = std::max(maximumReplyBytes_, call.interface->maximumReplyBytes);
  waiting_.push_back(std::move(call));
  sendWaiting();
}

void Calls::sendWaiting() {
  // Sending may tell at once that the peer has read it.
  if (std::exchange(isSending_, true)) {
    return;
  }
  while (!waiting_.empty() && maySend()) {
    Call call = std::move(waiting_.front());
    waiting_.pop_front();
    if (!send(std::move(call))) {
      break;
    }
  }
  isSending_ = false;
}

/// False when the link is about to end; the call then fails with it.
bool Calls::send(Call call) {
  const auto message = makeCall(link_.bus(), *call.interface, *call.operation, call.arguments);
  if (!message) {
    refuse(std::move(call));
    return true;
  }
  if (const auto cookie = link_.send(message->message, message->bytes)) {
    // The endpoints among the arguments are the other end's now.
    call.arguments.clear();
    sent_.emplace(*cookie, std::move(call));
    return true;
  }
  if (link_.isEnding()) {
    waiting_.push_back(std::move(call));
    return false;
  }
  refuse(std::move(call));
  return true;
}

void Calls::answer(sd_bus_message* reply, uid_t user) {
  std::uint64_t cookie = 0;
  if (sd_bus_message_get_reply_cookie(reply, &cookie) < 0) {
    return;
  }
  auto sent = sent_.extract(cookie);
  if (sent.empty()) {
    return;
  }
  Call call = std::move(sent.mapped());
  // Whoever may answer at any length is trusted with this process's memory.
  const bool isLimited = call.interface->maximumReplyBytes != 0;
  DecodedReply decoded =
      decodeReply(reply, *call.operation, isLimited ? Hub::shared().heldReplies.holdable(user) : SIZE_MAX);
  HeldReplies::Room room = isLimited ? hold(decoded, user) : nullptr;
  answerCall(std::move(call), std::move(decoded.outcome), std::move(room));
}

void Calls::fail(const CallError& error) {
  for (auto& [cookie, call] : std::exchange(sent_, {})) {
    failCall(std::move(call), error);
  }
  for (Call& call : std::exchange(waiting_, {})) {
    failCall(std::move(call), error);
  }
}

}  // namespace kelvane::ipc
