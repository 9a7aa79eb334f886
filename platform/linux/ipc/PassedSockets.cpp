// SPDX-License-Identifier: Apache-2.0
// The listening sockets that the service manager passed to the process.
#include "platform/linux/ipc/PassedSockets.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <systemd/sd-daemon.h>

#include <cstdlib>
#include <mutex>
#include <vector>

#include "platform/linux/system/Paths.h"

namespace kelvane::ipc {

namespace {

struct PassedSocket {
  FileDescriptor socket;
  std::string name;
};

std::vector<PassedSocket> readPassedSockets() {
  char** names = nullptr;
  const int count = sd_listen_fds_with_names(0, &names);
  std::vector<PassedSocket> sockets;
  for (int index = 0; index < count; ++index) {
    const int fd = SD_LISTEN_FDS_START + index;
    if (sd_is_socket_unix(fd, SOCK_STREAM, 1, nullptr, 0) > 0) {
      sockets.push_back({FileDescriptor(fd), names[index]});
    }
    std::free(names[index]);
  }
  std::free(names);
  return sockets;
}

bool listensAt(const PassedSocket& passed, const char* path) {
  return sd_is_socket_unix(passed.socket.get(), SOCK_STREAM, 1, path, 0) > 0;
}

}  // namespace

FileDescriptor takePassedSocket(const std::string& path, const std::string& serviceName) {
  static std::mutex& mutex = *new std::mutex;
  static std::vector<PassedSocket>& sockets = *new std::vector(readPassedSockets());
  static const bool isAlone = sockets.size() == 1 && !listensAt(sockets.front(), paths::controlSocket);
  const std::lock_guard lock(mutex);
  for (PassedSocket& passed : sockets) {
    const int fd = passed.socket.get();
    if (fd < 0) {
      continue;
    }
    const bool isForService = !serviceName.empty() && (isAlone || passed.name == serviceName);
    if (isForService || listensAt(passed, path.c_str())) {
      fcntl(fd, F_SETFL, fcntl(fd, F_GETFL) | O_NONBLOCK);
      return std::move(passed.socket);
    }
  }
  return FileDescriptor();
}

}  // namespace kelvane::ipc
