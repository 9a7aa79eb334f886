// SPDX-License-Identifier: Apache-2.0
// Calls that are made on many connections, as one message each.
#include "platform/linux/ipc/SharedCalls.h"

#include <sys/socket.h>

#include <utility>

#include "platform/common/CallNames.h"

namespace kelvane::ipc {

SharedCall::SharedCall(SharedCalls& calls, Key key, const Operation& operation, std::vector<std::string> names,
                       const OutgoingMessage& message)
    : calls_(calls), key_(std::move(key)), operation_(operation), names_(std::move(names)), message_(message) {}

SharedCall::~SharedCall() {
  sd_bus_message_unref(message_.message);
  const auto entry = calls_.calls_.find(key_);
  if (entry != calls_.calls_.end() && entry->second.expired()) {
    calls_.calls_.erase(entry);
  }
}

SharedCalls::SharedCalls() {
  int ends[2];
  if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0, ends) < 0) {
    return;
  }
  const FileDescriptor far(ends[1]);
  FileDescriptor near(ends[0]);
  // Messages can be made as soon as it was started, and when it is closed.
  if (sd_bus_new(&mold_) >= 0 && sd_bus_set_fd(mold_, near.get(), near.get()) >= 0) {
    [[maybe_unused]] const int taken = near.release();
    sd_bus_start(mold_);
    sd_bus_close(mold_);
  }
}

std::shared_ptr<const SharedCall> SharedCalls::of(const Interface& interface, const Operation& operation,
                                                  const Arguments& arguments) {
  const Value* const value = arguments.size() == 1 ? std::get_if<Value>(&arguments.front()) : nullptr;
  const auto dictionary = value == nullptr ? nullptr : value->dictionary();
  const SharedCall::Key key = dictionary;
  const auto known = dictionary == nullptr ? calls_.end() : calls_.find(key);
  if (const auto call = known == calls_.end() ? nullptr : known->second.lock();
      call != nullptr && &call->operation() == &operation) {
    return call;
  }
  const auto message = makeCall(mold_, interface, operation, arguments);
  if (!message) {
    return nullptr;
  }
  auto call = std::make_shared<const SharedCall>(*this, key, operation, callNames(arguments), *message);
  if (dictionary != nullptr) {
    calls_.insert_or_assign(key, call);
  }
  return call;
}

}  // namespace kelvane::ipc
