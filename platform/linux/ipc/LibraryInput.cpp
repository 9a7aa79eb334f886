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

LibraryInput& LibraryInput::shared() {
  static LibraryInput& input = *new LibraryInput;
  return input;
}

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

std::size_t LibraryInput::put(std::span<const std::uint8_t> bytes, int descriptor) {
  ssize_t size = -1;
  if (descriptor < 0) {
    size = send(near_.get(), bytes.data(), bytes.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
  } else {
    iovec data{.iov_base = const_cast<std::uint8_t*>(bytes.data()), .iov_len = bytes.size()};
    alignas(cmsghdr) std::array<char, CMSG_SPACE(sizeof descriptor)> control{};
    msghdr message{};
    message.msg_iov = &data;
    message.msg_iovlen = 1;
    message.msg_control = control.data();
    message.msg_controllen = control.size();
    cmsghdr* const header = CMSG_FIRSTHDR(&message);
    header->cmsg_level = SOL_SOCKET;
    header->cmsg_type = SCM_RIGHTS;
    header->cmsg_len = CMSG_LEN(sizeof descriptor);
    std::memcpy(CMSG_DATA(header), &descriptor, sizeof descriptor);
    size = sendmsg(near_.get(), &message, MSG_DONTWAIT | MSG_NOSIGNAL);
  }
  return size < 0 ? 0 : static_cast<std::size_t>(size);
}

bool LibraryInput::isEmpty() const {
  int unread = 0;
  return ioctl(far_.get(), FIONREAD, &unread) == 0 && unread == 0;
}

void LibraryInput::drain() {
  std::array<char, 4096> buffer;
  // Descriptors that nobody asks for are closed.
  while (recv(far_.get(), buffer.data(), buffer.size(), MSG_DONTWAIT) > 0) {
  }
}

}  // namespace kelvane::ipc
