// SPDX-License-Identifier: Apache-2.0
// The address of an AF_UNIX socket at a path.
#pragma once

#include <sys/socket.h>
#include <sys/un.h>

#include <cstring>
#include <optional>
#include <string_view>

namespace kelvane::ipc {

class SocketAddress {
 public:
  /// None for a path that is empty, holds NUL or is too long.
  [[nodiscard]] static std::optional<SocketAddress> at(std::string_view path) {
    SocketAddress result;
    if (path.empty() || path.size() >= sizeof result.address_.sun_path || path.find('\0') != path.npos) {
      return std::nullopt;
    }
    std::memcpy(result.address_.sun_path, path.data(), path.size());
    return result;
  }

  const sockaddr* get() const { return reinterpret_cast<const sockaddr*>(&address_); }
  socklen_t size() const { return sizeof address_; }

 private:
  sockaddr_un address_{.sun_family = AF_UNIX, .sun_path = {}};
};

}  // namespace kelvane::ipc
