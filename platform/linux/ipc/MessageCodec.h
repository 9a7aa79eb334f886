// SPDX-License-Identifier: Apache-2.0
// The arguments and answers of an interface's operations, as D-Bus messages.
#pragma once

#include <sys/types.h>
#include <systemd/sd-bus.h>

#include <cstddef>
#include <optional>
#include <string>
#include <variant>

#include "platform/Ipc.h"
#include "platform/linux/runtime/FileDescriptor.h"

namespace kelvane::ipc {

/// What a call that is not delivered is answered with.
struct CallFault {
  std::string name;
  std::string text;
};

/// A message that was made and the length it has, about. Freed by whoever sends it.
struct OutgoingMessage {
  sd_bus_message* message = nullptr;
  std::size_t bytes = 0;
};

struct DecodedArguments {
  Arguments arguments;
  /// About how many bytes of memory they take.
  std::size_t cost = 0;
};

struct DecodedReply {
  std::variant<Value, CallError> outcome;
  /// About how many bytes of memory it takes.
  std::size_t cost = 0;
};

// All for the event loop's thread.

/// Reads a call's arguments. The one endpoint among them is of the descriptor that came with the call, on behalf of
/// this user, and the values may take as much memory as the budget.
[[nodiscard]] std::variant<DecodedArguments, CallFault> decodeArguments(sd_bus_message* call,
                                                                        const Operation& operation,
                                                                        FileDescriptor descriptor, uid_t user,
                                                                        std::size_t budget);

/// The value that a reply brings, or the error: a D-Bus error, what is no reply of the operation, and a value that
/// takes more memory than the budget.
[[nodiscard]] DecodedReply decodeReply(sd_bus_message* reply, const Operation& operation, std::size_t budget);

/// None when the arguments do not fit the operation, an endpoint among them is gone or the library refuses. Its cookie
/// is that of no other call of this process, as far as 32 bits go, so that any connection can send it.
[[nodiscard]] std::optional<OutgoingMessage> makeCall(sd_bus* bus, const Interface& interface,
                                                      const Operation& operation, const Arguments& arguments);
/// The same call, without endpoints, with a cookie of its own.
[[nodiscard]] std::optional<OutgoingMessage> makeCopy(sd_bus* bus, const OutgoingMessage& call);
[[nodiscard]] std::uint64_t cookieOf(const OutgoingMessage& message);

/// Answers to the call that had this cookie; the call itself is not needed any more.
[[nodiscard]] std::optional<OutgoingMessage> makeReply(sd_bus* bus, std::uint64_t cookie, const Operation& operation,
                                                       const Value& value);
[[nodiscard]] std::optional<OutgoingMessage> makeError(sd_bus* bus, std::uint64_t cookie, const CallFault& fault);

}  // namespace kelvane::ipc
