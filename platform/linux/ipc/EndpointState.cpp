// SPDX-License-Identifier: Apache-2.0
// What an endpoint is on Linux: a descriptor of a connected socket.
#include "platform/linux/ipc/EndpointState.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>

#include <unordered_map>

#include "platform/Limits.h"

namespace kelvane::ipc {

namespace {

/// Counts the places in use, over all users and of each.
class EndpointPlaces {
 public:
  static EndpointPlaces& shared() {
    static EndpointPlaces& places = *new EndpointPlaces;
    return places;
  }

  bool take(uid_t user) {
    const std::lock_guard lock(mutex_);
    if (all_ >= limits::endpointsOfAllUsers || ofUser_[user] >= limits::endpoints) {
      return false;
    }
    ++all_;
    ++ofUser_[user];
    return true;
  }

  void free(uid_t user) {
    const std::lock_guard lock(mutex_);
    --all_;
    if (--ofUser_[user] == 0) {
      ofUser_.erase(user);
    }
  }

 private:
  std::mutex mutex_;
  int all_ = 0;                            // guarded by mutex_
  std::unordered_map<uid_t, int> ofUser_;  // guarded by mutex_
};

int socketOption(int fd, int option) {
  int value = -1;
  socklen_t size = sizeof value;
  return getsockopt(fd, SOL_SOCKET, option, &value, &size) == 0 ? value : -1;
}

}  // namespace

EndpointPlace takeEndpointPlace(uid_t user) {
  if (!EndpointPlaces::shared().take(user)) {
    return nullptr;
  }
  return {new uid_t(user), [](const uid_t* place) {
            EndpointPlaces::shared().free(*place);
            delete place;
          }};
}

std::optional<std::string> faultOfEndpoint(int fd) {
  const int domain = socketOption(fd, SO_DOMAIN);
  if (domain < 0) {
    return "is no socket";
  }
  if (domain != AF_UNIX || socketOption(fd, SO_TYPE) != SOCK_STREAM) {
    return "is no AF_UNIX stream socket";
  }
  sockaddr_storage address;
  socklen_t size = sizeof address;
  if (getpeername(fd, reinterpret_cast<sockaddr*>(&address), &size) < 0) {
    return "is not connected";
  }
  pollfd state{.fd = fd, .events = POLLRDHUP, .revents = 0};
  if (poll(&state, 1, 0) != 0) {
    return "has hung up";
  }
  return std::nullopt;
}

Endpoint::State::Taken Endpoint::State::take() {
  const std::lock_guard lock(mutex_);
  return {FileDescriptor(socket_.release()), std::move(place_)};
}

FileDescriptor Endpoint::State::duplicated() const {
  const std::lock_guard lock(mutex_);
  return FileDescriptor(socket_ ? fcntl(socket_.get(), F_DUPFD_CLOEXEC, 3) : -1);
}

}  // namespace kelvane::ipc
