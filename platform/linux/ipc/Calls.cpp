// SPDX-License-Identifier: Apache-2.0
// The calls of one connection that have no answer yet.
#include "platform/linux/ipc/Calls.h"

#include <algorithm>

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

/// Whatever the call and the outcome hold goes on a thread that may block, but for what is the event loop's.
void answerCall(Call call, std::variant<Value, CallError> outcome, HeldReplies::Room room = nullptr) {
  call.shared = nullptr;
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

CallError notSent(const char* name, const char* why) {
  return {std::string(name) + ": " + why, CallError::Cause::NotSent};
}

CallError unwanted() {
  return notSent(SD_BUS_ERROR_NO_REPLY, "The call is not wanted any more");
}

}  // namespace

void failCall(Call call, const CallError& error) {
  call.shared = nullptr;
  // Whoever learns that the connection has failed finds done what was to be done at its end.
  Hub::shared().endHandlers.runAfter([call = std::make_shared<Call>(std::move(call)), error] {
    const Call failed = std::move(*call);
    if (*failed.error) {
      (*failed.error)(error);
    }
    if (failed.limit != failed.limit.zero() && failed.outcome) {
      failed.outcome(error);
    }
  });
}

bool Calls::isFull() const {
  return maximumOutstanding_ != 0 && waiting_.size() + sent_.size() >= maximumOutstanding_;
}

void Calls::add(Call call) {
  maximumOutstanding_ = static_cast<std::size_t>(call.interface->maximumOutstandingCalls);
  maximumReplyBytes_ = std::max(maximumReplyBytes_, call.interface->maximumReplyBytes);
  maximumStall_ = call.interface->maximumStall;
  if (call.operation->beyondLimit == BeyondLimit::Waits) {
    call.shared = Hub::shared().sharedCalls.of(*call.interface, *call.operation, call.arguments);
    if (call.shared == nullptr) {
      refuse(std::move(call));
      return;
    }
    call.arguments.clear();
    makeRoomFor(call);
  } else if (isFull()) {
    dropUnwanted();
    if (isFull()) {
      failCall(std::move(call), notSent(SD_BUS_ERROR_LIMITS_EXCEEDED, "Too many calls are outstanding"));
      return;
    }
  }
  wait(waiting_.end(), std::move(call));
  sendWaiting();
}

/// What waits and was told of later is the least that its receiver misses.
void Calls::makeRoomFor(const Call& call) {
  const auto mostCalls = static_cast<std::size_t>(call.interface->maximumWaitingCalls);
  const std::size_t mostBytes = call.interface->maximumWaitingBytes;
  const std::size_t bytes = call.shared->message().bytes;
  auto next = waiting_.begin();
  while ((isFull() && mostCalls != 0 && waiting_.size() + sent_.size() >= maximumOutstanding_ + mostCalls) ||
         (mostBytes != 0 && waitingBytes_ + bytes > mostBytes)) {
    next = std::find_if(next, waiting_.end(), [&call](const Call& earlier) {
      return earlier.operation == call.operation && earlier.shared->names() == call.shared->names();
    });
    if (next == waiting_.end()) {
      return;
    }
    failCall(take(next++), notSent(SD_BUS_ERROR_LIMITS_EXCEEDED, "A later one has taken its place"));
  }
}

void Calls::dropUnwanted() {
  for (auto next = waiting_.begin(); next != waiting_.end();) {
    const auto call = next++;
    if (call->wanted && !call->wanted()) {
      failCall(take(call), unwanted());
    }
  }
}

void Calls::wait(Waiting::iterator place, Call call) {
  waitingBytes_ += call.shared != nullptr ? call.shared->message().bytes : 0;
  waiting_.insert(place, std::move(call));
}

Call Calls::take(Waiting::iterator call) {
  Call taken = std::move(*call);
  waiting_.erase(call);
  waitingBytes_ -= taken.shared != nullptr ? taken.shared->message().bytes : 0;
  return taken;
}

std::optional<EventLoop::Clock::time_point> Calls::nextDeadline() const {
  std::optional<EventLoop::Clock::time_point> next;
  const auto consider = [&next](const Call& call) {
    if (call.deadline && (!next || *call.deadline < *next)) {
      next = call.deadline;
    }
  };
  std::ranges::for_each(waiting_, consider);
  for (const auto& [cookie, call] : sent_) {
    consider(call);
  }
  return next;
}

bool Calls::maySend() {
  if (!link_.isReady() || link_.hasUnsent() || (maximumOutstanding_ != 0 && sent_.size() >= maximumOutstanding_)) {
    return false;
  }
  // What the library has been given is sent for certain, even if the socket has taken nothing of it yet.
  if (!link_.hasRoom()) {
    link_.awaitRoom();
    return false;
  }
  return true;
}

void Calls::sendWaiting() {
  // Sending may tell at once that the peer has read it.
  if (std::exchange(isSending_, true)) {
    return;
  }
  while (!waiting_.empty() && maySend()) {
    Call call = take(waiting_.begin());
    if (call.wanted && !call.wanted()) {
      failCall(std::move(call), unwanted());
    } else if (!send(std::move(call))) {
      break;
    }
  }
  if (!link_.hasUnsent()) {
    writing_ = nullptr;
  }
  isSending_ = false;
}

std::optional<OutgoingMessage> Calls::messageOf(const Call& call) {
  if (call.shared == nullptr) {
    return makeCall(link_.bus(), *call.interface, *call.operation, call.arguments);
  }
  const OutgoingMessage& message = call.shared->message();
  // The very same call may be under way here already.
  if (sent_.contains(cookieOf(message))) {
    return makeCopy(link_.bus(), message);
  }
  return OutgoingMessage{sd_bus_message_ref(message.message), message.bytes};
}

/// False when the link is about to end; the call then fails with it.
bool Calls::send(Call call) {
  const auto message = messageOf(call);
  if (!message) {
    refuse(std::move(call));
    return true;
  }
  if (const auto cookie = link_.send(message->message, message->bytes)) {
    // The endpoints among the arguments are the other end's now.
    call.arguments.clear();
    writing_ = std::move(call.shared);
    sent_.emplace(*cookie, std::move(call));
    return true;
  }
  if (link_.isEnding()) {
    wait(waiting_.begin(), std::move(call));
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
  sendWaiting();
}

void Calls::fail(const CallError& error) {
  for (auto& [cookie, call] : std::exchange(sent_, {})) {
    failCall(std::move(call), error);
  }
  while (!waiting_.empty()) {
    failCall(take(waiting_.begin()), error);
  }
  writing_ = nullptr;
}

}  // namespace kelvane::ipc
