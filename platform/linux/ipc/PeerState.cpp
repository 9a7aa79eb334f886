// SPDX-License-Identifier: Apache-2.0
// Who is at the other end of a socket, as the kernel recorded it when the socket was connected.
#include "platform/linux/ipc/PeerState.h"

#include <poll.h>
#include <sys/socket.h>

#include <algorithm>

#ifndef SO_PEERPIDFD
#define SO_PEERPIDFD 77
#endif

namespace kelvane::ipc {

namespace {

std::vector<gid_t> groupsOf(int socket) {
  std::vector<gid_t> groups(16);
  for (;;) {
    auto size = static_cast<socklen_t>(groups.size() * sizeof(gid_t));
    const int result = getsockopt(socket, SOL_SOCKET, SO_PEERGROUPS, groups.data(), &size);
    if (result == 0 || errno != ERANGE) {
      groups.resize(result == 0 ? size / sizeof(gid_t) : 0);
      groups.shrink_to_fit();
      return groups;
    }
    groups.resize(std::max<std::size_t>(size / sizeof(gid_t), groups.size() * 2));
  }
}

std::string labelOf(int socket) {
  std::string label(256, '\0');
  for (;;) {
    auto size = static_cast<socklen_t>(label.size());
    const int result = getsockopt(socket, SOL_SOCKET, SO_PEERSEC, label.data(), &size);
    if (result == 0 || errno != ERANGE) {
      label.resize(result == 0 ? size : 0);
      label.erase(std::find(label.begin(), label.end(), '\0'), label.end());
      label.shrink_to_fit();
      return label;
    }
    label.resize(std::max<std::size_t>(size, label.size() * 2));
  }
}

}  // namespace

void Peer::State::read(int socket) {
  ucred credentials{};
  socklen_t size = sizeof credentials;
  const bool known = getsockopt(socket, SOL_SOCKET, SO_PEERCRED, &credentials, &size) == 0;
  const std::lock_guard lock(mutex_);
  socket_ = socket;
  if (known) {
    pid_ = credentials.pid;
    user_ = credentials.uid;
    group_ = credentials.gid;
    groups_ = groupsOf(socket);
    label_ = labelOf(socket);
  }
}

void Peer::State::release() {
  const std::lock_guard lock(mutex_);
  socket_ = -1;
}

uid_t Peer::State::user() const {
  const std::lock_guard lock(mutex_);
  return user_;
}

bool Peer::State::isInGroup(gid_t group) const {
  const std::lock_guard lock(mutex_);
  return user_ != nobody && (group == group_ || std::find(groups_.begin(), groups_.end(), group) != groups_.end());
}

std::string Peer::State::label() const {
  const std::lock_guard lock(mutex_);
  return label_;
}

std::string Peer::State::description() const {
  const std::lock_guard lock(mutex_);
  if (user_ == nobody) {
    return "nobody";
  }
  return "pid " + std::to_string(pid_) + ", uid " + std::to_string(user_);
}

Peer::State::Pinned Peer::State::pinned() const {
  const std::lock_guard lock(mutex_);
  int descriptor = -1;
  socklen_t size = sizeof descriptor;
  if (socket_ < 0 || pid_ <= 0 || getsockopt(socket_, SOL_SOCKET, SO_PEERPIDFD, &descriptor, &size) < 0) {
    return {};
  }
  return {pid_, FileDescriptor(descriptor)};
}

bool Peer::State::Pinned::isAlive() const {
  pollfd state{.fd = descriptor.get(), .events = POLLIN, .revents = 0};
  return descriptor && poll(&state, 1, 0) == 0;
}

}  // namespace kelvane::ipc
