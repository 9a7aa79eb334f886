// SPDX-License-Identifier: Apache-2.0
// What an IPC interface is made of: plain tables that both ends share.
#pragma once

#include <cstddef>
#include <span>
#include <string_view>

namespace kelvane::ipc {

/// The kind of one argument, with its D-Bus type.
enum class ArgumentKind : char {
  Integer,     ///< i, a signed 32-bit integer
  String,      ///< s
  Dictionary,  ///< a{sv}
  Any,         ///< v, any value of the mapping, or absent
  Endpoint,    ///< h, one end of a connected socket pair
};

struct Argument {
  std::string_view name;
  ArgumentKind kind;
};

/// What an operation is answered with.
enum class ReplyKind : char {
  Nothing,  ///< an empty reply
  Any,      ///< v, a value or absent
};

/// Operations are told apart by their addresses: each exists once, as a constant.
struct Operation {
  std::string_view name;    ///< the full name, "servicePurge:info:replyBlock:"
  std::string_view member;  ///< the D-Bus member that stands for it, "servicePurge"
  std::span<const Argument> arguments;
  ReplyKind reply;
};

struct Interface {
  std::string_view objectPath;
  std::string_view name;
  std::span<const Operation* const> operations;
  /// Of a connection that calls this interface: calls outstanding at once and bytes of one reply, beyond
  /// either of which the connection is invalidated. 0 is no limit.
  int maximumOutstandingCalls = 0;
  std::size_t maximumReplyBytes = 0;

  /// The operation with this D-Bus member; null when there is none.
  constexpr const Operation* operationForMember(std::string_view member) const {
    for (const Operation* operation : operations) {
      if (operation->member == member) {
        return operation;
      }
    }
    return nullptr;
  }
};

}  // namespace kelvane::ipc
