// SPDX-License-Identifier: Apache-2.0
// What an IPC interface is made of: plain tables that both ends share.
#pragma once

#include <chrono>
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

/// What becomes of a call when as many are outstanding on its connection as the interface allows.
enum class BeyondLimit : char {
  Fails,  ///< its error handler runs
  Waits,  ///< it is sent in its turn, when calls before it were answered
};

/// Operations are told apart by their addresses: each exists once, as a constant.
struct Operation {
  std::string_view name;    ///< the full name, "servicePurge:info:replyBlock:"
  std::string_view member;  ///< the D-Bus member that stands for it, "servicePurge"
  std::span<const Argument> arguments;
  ReplyKind reply;
  /// Calls that wait hold no copy of their arguments each, however many connections they are made on with the same
  /// values. The keys of their dictionaries are their names.
  BeyondLimit beyondLimit = BeyondLimit::Fails;
};

struct Interface {
  std::string_view objectPath;
  std::string_view name;
  std::span<const Operation* const> operations;

  // Of a connection that calls this interface; 0 is no limit.
  /// Calls outstanding at once: made and not answered.
  int maximumOutstandingCalls = 0;
  /// Bytes of one reply. A longer one invalidates the connection.
  std::size_t maximumReplyBytes = 0;
  /// Calls that wait beyond those outstanding, and about how many bytes of them. When one more would be too many, the
  /// earliest of its operation and its names that was not sent yet gives way: it fails, and those that remain keep
  /// their order. If there is none, it waits all the same.
  int maximumWaitingCalls = 0;
  std::size_t maximumWaitingBytes = 0;
  /// For so long the other end may take nothing of what is there for it while something more waits to be sent. Then
  /// the connection is invalidated.
  std::chrono::seconds maximumStall{0};

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
