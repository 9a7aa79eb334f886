// SPDX-License-Identifier: Apache-2.0
// What an endpoint is on Linux: a descriptor of a connected socket.
#pragma once

#include <sys/types.h>

#include <memory>
#include <mutex>
#include <optional>
#include <string>

#include "platform/Ipc.h"
#include "platform/linux/runtime/FileDescriptor.h"

namespace kelvane::ipc {

/// One of the places for descriptors that peers may have this process hold, and whose it is. Freed with the last
/// reference.
using EndpointPlace = std::shared_ptr<const uid_t>;

/// A place on behalf of this user; null when the user, or all users together, have too many. Any thread.
[[nodiscard]] EndpointPlace takeEndpointPlace(uid_t user);

/// Why the descriptor is no end that a connection can be made of, in words; none when it is one: a connected
/// AF_UNIX stream socket whose other end is still open.
[[nodiscard]] std::optional<std::string> faultOfEndpoint(int fd);

/// Owns the descriptor until a connection takes it. Any thread may call any function.
struct Endpoint::State {
 public:
  explicit State(FileDescriptor socket, EndpointPlace place = nullptr)
      : socket_(std::move(socket)), place_(std::move(place)) {}

  struct Taken {
    FileDescriptor socket;
    EndpointPlace place;
  };
  /// The descriptor and its place; no descriptor when a connection has taken it before.
  Taken take();
  /// Another descriptor for the same end, for sending it on; none when it was taken.
  FileDescriptor duplicated() const;

 private:
  mutable std::mutex mutex_;
  FileDescriptor socket_;  // guarded by mutex_
  EndpointPlace place_;    // guarded by mutex_
};

}  // namespace kelvane::ipc
