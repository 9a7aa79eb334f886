// SPDX-License-Identifier: Apache-2.0
// Counts what is read from a socket by somebody else.
#pragma once

#include <cstddef>

namespace kelvane::ipc {

/// The message library neither tells how long a message is nor can be kept from reading a long one bit by
/// bit. The kernel can tell what it has taken from an AF_UNIX socket: the peek offset, which nothing else
/// here uses, falls with every byte read.
class StreamMeter {
 public:
  /// Starts at the socket's present position.
  void start(int socket);
  /// Bytes read since the last mark; 0 when the kernel does not tell.
  std::size_t sinceMark() const;
  void mark();

 private:
  int position() const;
  void rewind();

  int socket_ = -1;
  int marked_ = 0;
};

}  // namespace kelvane::ipc
