// SPDX-License-Identifier: Apache-2.0
// What is said on a connection before its first message.
#pragma once

#include <sys/types.h>
#include <systemd/sd-bus.h>

#include <string>
#include <string_view>

#include "platform/linux/ipc/PeerInput.h"
#include "platform/linux/runtime/FileDescriptor.h"

namespace kelvane::ipc {

/// What the message library, which takes everybody at their word, is to be given for a line of this user's: the line,
/// or one that it rejects when the line names another user or none. With its end, and with the zero byte that
/// precedes the first.
[[nodiscard]] std::string vouchedLine(std::string_view line, uid_t user);

/// One side of a handshake: the library talks, and is given what the peer says line by line. Owned by a link while the
/// handshake lasts; lives on the event loop's thread.
class Handshake {
 public:
  enum class Role { Client, Server };

  /// The peer's user, as the kernel knows it, for the server's side.
  Handshake(Role role, uid_t peer) : role_(role), peer_(peer) {}

  /// A bus object that has begun to talk. It reads the input, and owns both; null when something is refused.
  [[nodiscard]] sd_bus* begin(FileDescriptor input, FileDescriptor socket, bool takesDescriptors) const;

  enum class Arrival {
    Line,
    Incomplete,
    Forbidden  ///< a line too many, or what cannot be one
  };
  /// Takes the next line out of what has arrived, in the form that the library is to be given.
  [[nodiscard]] Arrival takeLine(PeerInput& input, std::string& line);

 private:
  const Role role_;
  const uid_t peer_;
  std::size_t bytes_ = 0;
};

}  // namespace kelvane::ipc
