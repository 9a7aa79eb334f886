// SPDX-License-Identifier: Apache-2.0
// What has arrived on a connection and was not made a message yet.
#include "platform/linux/ipc/PeerInput.h"

#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>

namespace kelvane::ipc {

namespace {

/// For the event loop's thread alone, so that idle connections need no room.
std::array<std::uint8_t, std::size_t{64} * 1024> buffer;

FileDescriptor descriptorOf(msghdr& message) {
  for (cmsghdr* header = CMSG_FIRSTHDR(&message); header != nullptr; header = CMSG_NXTHDR(&message, header)) {
    if (header->cmsg_level == SOL_SOCKET && header->cmsg_type == SCM_RIGHTS) {
      int descriptor = -1;
      std::memcpy(&descriptor, CMSG_DATA(header), sizeof descriptor);
      return FileDescriptor(descriptor);
    }
  }
  return FileDescriptor();
}

}  // namespace

void PeerInput::start(int socket, bool takesDescriptors) {
  socket_ = socket;
  takesDescriptors_ = takesDescriptors;
}

PeerInput::Arrival PeerInput::read(std::size_t most) {
  const std::size_t wanted = std::min(most, buffer.size());
  iovec data{.iov_base = buffer.data(), .iov_len = wanted};
  alignas(cmsghdr) std::array<char, CMSG_SPACE(sizeof(int))> control{};
  msghdr message{};
  message.msg_iov = &data;
  message.msg_iovlen = 1;
  // Room for one; the kernel tells that there were more, and closes them.
  message.msg_control = takesDescriptors_ ? control.data() : nullptr;
  message.msg_controllen = takesDescriptors_ ? CMSG_LEN(sizeof(int)) : 0;
  const ssize_t size = recvmsg(socket_, &message, MSG_DONTWAIT | MSG_CMSG_CLOEXEC);
  if (size <= 0) {
    isExhausted_ = true;
    return size < 0 && (errno == EAGAIN || errno == EINTR) ? Arrival::Nothing : Arrival::End;
  }
  FileDescriptor descriptor = descriptorOf(message);
  if ((message.msg_flags & MSG_CTRUNC) != 0 || (descriptor && descriptor_)) {
    return Arrival::Forbidden;
  }
  isExhausted_ = static_cast<std::size_t>(size) < wanted && !descriptor;
  bytes_.insert(bytes_.end(), buffer.begin(), buffer.begin() + size);
  if (descriptor) {
    descriptor_ = std::move(descriptor);
    descriptorIndex_ = bytes_.size() - 1;
  }
  return Arrival::Bytes;
}

FileDescriptor PeerInput::takeDescriptor(std::size_t bytes) {
  return descriptor_ && descriptorIndex_ < start_ + bytes ? std::move(descriptor_) : FileDescriptor();
}

void PeerInput::drop(std::size_t bytes) {
  start_ += bytes;
  if (start_ == bytes_.size()) {
    bytes_ = {};
    start_ = 0;
  } else if (start_ >= bytes_.size() / 2) {
    bytes_.erase(bytes_.begin(), bytes_.begin() + static_cast<std::ptrdiff_t>(start_));
    descriptorIndex_ -= std::min(descriptorIndex_, start_);
    start_ = 0;
  }
}

}  // namespace kelvane::ipc
