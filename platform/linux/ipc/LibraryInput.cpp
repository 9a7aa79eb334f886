// SPDX-License-Identifier: Apache-2.0
// What the message library reads in place of the peers' sockets.
#include "platform/linux/ipc/LibraryInput.h"

#include <fcntl.h>
#include <sys/ioctl.h>
#include <sys/socket.h>

#include <array>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace kelvane::ipc {

LibraryInput::LibraryInput() {
  int ends[2];
  if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0, ends) < 0) {
    std::fprintf(stderr, "kelvane: IPC needs descriptors: %s\n", std::strerror(errno));
    std::abort();
  }
  near_ = FileDescriptor(ends[0]);
  far_ = FileDescriptor(ends[1]);
}

FileDescriptor LibraryInput::end() const {
  return FileDescriptor(fcntl(far_.get(), F_DUPFD_CLOEXEC, 3));
}

std::size_t LibraryInput::put(std::span<const std::uint8_t> bytes) {
  const ssize_t size = send(near_.get(), bytes.data(), bytes.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
  return size < 0 ? 0 : static_cast<std::size_t>(size);
}

bool LibraryInput::isEmpty() const {
  int unread = 0;
  return ioctl(far_.get(), FIONREAD, &unread) == 0 && unread == 0;
}

void LibraryInput::drain() {
  std::array<char, 4096> buffer;
  while (recv(far_.get(), buffer.data(), buffer.size(), MSG_DONTWAIT) > 0) {
  }
}

}  // namespace kelvane::ipc
