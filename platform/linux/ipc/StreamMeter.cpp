// SPDX-License-Identifier: Apache-2.0
// Counts what is read from a socket by somebody else.
#include "platform/linux/ipc/StreamMeter.h"

#include <sys/socket.h>

namespace kelvane::ipc {

namespace {

/// The offset stops at 0, so it begins far above it, and is put back there in good time.
constexpr int startOffset = 1 << 30;
constexpr int rewindOffset = startOffset / 2;

}  // namespace

void StreamMeter::start(int socket) {
  socket_ = socket;
  rewind();
}

std::size_t StreamMeter::sinceMark() const {
  return static_cast<std::size_t>(marked_ - position());
}

void StreamMeter::mark() {
  marked_ = position();
  if (marked_ < rewindOffset) {
    rewind();
  }
}

int StreamMeter::position() const {
  int offset = 0;
  socklen_t size = sizeof offset;
  const bool known = getsockopt(socket_, SOL_SOCKET, SO_PEEK_OFF, &offset, &size) == 0;
  return known && offset >= 0 && offset <= marked_ ? offset : marked_;
}

void StreamMeter::rewind() {
  marked_ = startOffset;
  setsockopt(socket_, SOL_SOCKET, SO_PEEK_OFF, &startOffset, sizeof startOffset);
}

}  // namespace kelvane::ipc
