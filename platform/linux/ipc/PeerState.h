// SPDX-License-Identifier: Apache-2.0
// Who is at the other end of a socket, as the kernel recorded it when the socket was connected.
#pragma once

#include <sys/types.h>

#include <mutex>
#include <string>
#include <vector>

#include "platform/Ipc.h"
#include "platform/linux/runtime/FileDescriptor.h"

namespace kelvane::ipc {

/// The credentials of one connection's peer; of nobody until a socket was read. The socket is borrowed
/// while the connection is open, because the kernel pins the peer's process to it: so a descriptor for the
/// process costs nothing until it is asked for. Any thread may call any function.
struct Peer::State {
 public:
  static constexpr uid_t nobody = static_cast<uid_t>(-1);

  /// Reads the peer of a connected socket, and borrows the socket until release().
  void read(int socket);
  /// Before the socket is closed. Nothing that needs the process itself matches any more.
  void release();

  uid_t user() const;
  bool isInGroup(gid_t group) const;
  std::string label() const;
  std::string description() const;

  /// The process's number and a descriptor that pins it; none without SO_PEERPIDFD, once the connection has
  /// ended, and for a process that cannot be seen from here.
  struct Pinned {
    pid_t pid = 0;
    FileDescriptor descriptor;
    /// Whether the process is still there, so that what was read under its number was its own.
    bool isAlive() const;
  };
  Pinned pinned() const;

 private:
  mutable std::mutex mutex_;
  // Guarded by mutex_:
  int socket_ = -1;
  pid_t pid_ = 0;
  uid_t user_ = nobody;
  gid_t group_ = static_cast<gid_t>(-1);
  std::vector<gid_t> groups_;
  std::string label_;
};

}  // namespace kelvane::ipc
