// SPDX-License-Identifier: Apache-2.0
// The calls of one end of a simulated connection: which wait, which fail and which are sent.
#include <algorithm>

#include "platform/Archive.h"
#include "platform/common/CallNames.h"
#include "platform/simulated/IpcState.h"
#include "platform/simulated/SimulatedCalls.h"

namespace kelvane::ipc {

using simulated::Message;

namespace {

constexpr char unwanted[] = "The call is not wanted any more";

bool isWanted(const Connection::State::Call& call) {
  return !call.proxy->wanted || call.proxy->wanted();
}

/// What a call counts for among those that wait beyond the limit, in bytes: about what it has on the wire.
std::size_t waitingBytes(const Message& message) {
  std::size_t bytes = 0;
  if (message.operation->beyondLimit == BeyondLimit::Waits) {
    for (const auto& argument : message.arguments) {
      const Value* value = std::get_if<Value>(&argument);
      bytes += value != nullptr ? archive::sizeOf(*value).bytes : 0;
    }
  }
  return bytes;
}

}  // namespace

bool Connection::State::isFull() const {
  const int most = remoteInterface->maximumOutstandingCalls;
  return most != 0 && calls.size() >= static_cast<std::size_t>(most);
}

void Connection::State::take(Message message, Call call) {
  if (call.operation->beyondLimit == BeyondLimit::Waits) {
    makeRoomFor(message);
  } else if (isFull()) {
    dropUnwanted();
    if (isFull()) {
      failCall(std::move(call), {"org.freedesktop.DBus.Error.LimitsExceeded: Too many calls are outstanding",
                                 CallError::Cause::NotSent});
      return;
    }
  }
  calls.emplace(message.serial, std::move(call));
  unsent.push_back(std::move(message));
  sendUnsent();
}

void Connection::State::sendUnsent() {
  const auto most = static_cast<std::size_t>(remoteInterface == nullptr ? 0 : remoteInterface->maximumOutstandingCalls);
  while (phase == Phase::Open && !unsent.empty() && (most == 0 || calls.size() - unsent.size() < most)) {
    if (isWanted(calls.at(unsent.front().serial))) {
      send(std::move(unsent.front()));
      unsent.pop_front();
    } else {
      drop(unsent.front().serial, unwanted);
    }
  }
}

/// Whether more would wait with the message than may.
bool Connection::State::isTooMuch(const Message& message) const {
  const int most = remoteInterface->maximumOutstandingCalls + remoteInterface->maximumWaitingCalls;
  if (remoteInterface->maximumWaitingCalls != 0 && isFull() && calls.size() >= static_cast<std::size_t>(most)) {
    return true;
  }
  std::size_t bytes = waitingBytes(message);
  for (const Message& other : unsent) {
    bytes += waitingBytes(other);
  }
  return remoteInterface->maximumWaitingBytes != 0 && bytes > remoteInterface->maximumWaitingBytes;
}

void Connection::State::makeRoomFor(const Message& message) {
  const auto names = callNames(message.arguments);
  while (isTooMuch(message)) {
    const auto earlier = std::find_if(unsent.begin(), unsent.end(), [&](const Message& other) {
      return other.operation == message.operation && callNames(other.arguments) == names;
    });
    if (earlier == unsent.end()) {
      return;
    }
    drop(earlier->serial, "A later one has taken its place");
  }
}

void Connection::State::dropUnwanted() {
  std::vector<std::uint64_t> serials;
  for (const Message& message : unsent) {
    if (!isWanted(calls.at(message.serial))) {
      serials.push_back(message.serial);
    }
  }
  for (const std::uint64_t serial : serials) {
    drop(serial, unwanted);
  }
}

/// Fails a call that was not sent.
void Connection::State::drop(std::uint64_t serial, const char* why) {
  std::erase_if(unsent, [serial](const Message& message) { return message.serial == serial; });
  auto call = calls.extract(serial);
  simulated::scheduler().wakeAll(waitForAnswers);
  failCall(std::move(call.mapped()),
           {"org.freedesktop.DBus.Error.LimitsExceeded: " + std::string(why), CallError::Cause::NotSent});
}

}  // namespace kelvane::ipc
