// SPDX-License-Identifier: Apache-2.0
// A listening AF_UNIX socket at a path.
#pragma once

#include <sys/types.h>

#include <string>
#include <variant>

#include "platform/linux/runtime/FileDescriptor.h"

namespace kelvane::ipc {

/// Whether descriptors may be sent to this socket. Closing one that nobody asked for takes as long as its sender likes,
/// and it is the reader of the socket who closes it. Kernels before 6.16 know no such refusal.
void letDescriptorsThrough(int socket, bool isAllowed);

/// No descriptors can be sent to what is accepted from it before they are let through.
///
/// Either made here, and then removed from its directory when it goes, or passed by the service manager.
class ListeningSocket {
 public:
  struct Error {
    std::string text;
  };

  /// The socket that the service manager passed for this path, else a new one with this mode. A socket that
  /// nobody listens at any more is replaced; where somebody listens, that is an error. Missing directories
  /// are made, with mode 0755. Any thread.
  ///
  /// A service's name is given for sockets that may also have been passed under that name, or alone, and
  /// lie elsewhere.
  [[nodiscard]] static std::variant<ListeningSocket, Error> at(const std::string& path, mode_t mode,
                                                               const std::string& serviceName = {});

  ListeningSocket(ListeningSocket&&) noexcept = default;
  ListeningSocket& operator=(ListeningSocket&&) = delete;
  ~ListeningSocket();

  int get() const { return socket_.get(); }

 private:
  explicit ListeningSocket(FileDescriptor socket);

  FileDescriptor socket_;
  /// Where the socket, with this identity, is to be removed; empty for one that was passed.
  std::string path_;
  dev_t device_ = 0;
  ino_t inode_ = 0;
};

}  // namespace kelvane::ipc
