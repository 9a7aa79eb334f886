// SPDX-License-Identifier: Apache-2.0
// Calls that are made on many connections, as one message each.
#pragma once

#include <systemd/sd-bus.h>

#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "platform/linux/ipc/MessageCodec.h"

namespace kelvane::ipc {

class SharedCalls;

/// The message of one call, however many connections it waits on or is being written to. Owned by the calls that wait
/// with it; lives on the event loop's thread.
class SharedCall {
 public:
  using Key = std::weak_ptr<const Value::Dictionary>;

  /// Takes the message.
  SharedCall(SharedCalls& calls, Key key, const Operation& operation, std::vector<std::string> names,
             const OutgoingMessage& message);
  ~SharedCall();
  SharedCall(const SharedCall&) = delete;
  SharedCall& operator=(const SharedCall&) = delete;

  const Operation& operation() const { return operation_; }
  const std::vector<std::string>& names() const { return names_; }
  /// Not to be freed with it.
  const OutgoingMessage& message() const { return message_; }

 private:
  SharedCalls& calls_;
  const Key key_;
  const Operation& operation_;
  const std::vector<std::string> names_;
  const OutgoingMessage message_;
};

/// Knows the shared calls there are by the dictionary that they were made with. Owned by the hub, never destroyed; for
/// the event loop's thread.
class SharedCalls {
 public:
  SharedCalls();
  SharedCalls(const SharedCalls&) = delete;
  SharedCalls& operator=(const SharedCalls&) = delete;

  /// The call of this one operation, whose argument is a dictionary: the one that was made before with the very same
  /// dictionary, if anyone has it still. Null when it cannot be encoded.
  [[nodiscard]] std::shared_ptr<const SharedCall> of(const Interface& interface, const Operation& operation,
                                                     const Arguments& arguments);

 private:
  friend class SharedCall;

  /// Belongs to no connection, and so lasts: the library makes no message without a bus object.
  sd_bus* mold_ = nullptr;
  std::map<SharedCall::Key, std::weak_ptr<const SharedCall>, std::owner_less<SharedCall::Key>> calls_;
};

}  // namespace kelvane::ipc
