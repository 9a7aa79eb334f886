// SPDX-License-Identifier: Apache-2.0
// A listening AF_UNIX socket at a path.
#include "platform/linux/ipc/ListeningSocket.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/stat.h>

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <optional>

#include "platform/linux/ipc/PassedSockets.h"
#include "platform/linux/ipc/SocketAddress.h"
#include "platform/linux/runtime/FileAccess.h"

namespace kelvane::ipc {

namespace {

constexpr char listensText[] = ": another process listens there, or it cannot be told whether one does";
/// How often another process may come in between before this one gives up.
constexpr int attempts = 8;

std::string errorText(const std::string& what) {
  return what + ": " + std::strerror(errno);
}

/// A new name beside path, too short to pass the limit on addresses where path does not.
std::string temporaryPath(const std::string& path) {
  static std::atomic<unsigned> last = 0;
  return path.substr(0, path.rfind('/') + 1) + "." + std::to_string(getpid()) + "-" + std::to_string(++last);
}

/// Nothing may appear at a path before somebody listens at it; so sockets are made under another name.
FileDescriptor makeListening(const std::string& path, mode_t mode) {
  const auto address = SocketAddress::at(path);
  if (!address) {
    errno = ENAMETOOLONG;
    return FileDescriptor();
  }
  FileDescriptor socket(::socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
  if (socket && bind(socket.get(), address->get(), address->size()) == 0 && chmod(path.c_str(), mode) == 0 &&
      listen(socket.get(), SOMAXCONN) == 0) {
    return socket;
  }
  return FileDescriptor();
}

/// Also when that cannot be found out: a socket that is taken from under a listener makes it unreachable.
bool isListenedAt(const std::string& path) {
  const auto address = SocketAddress::at(path);
  const FileDescriptor socket(::socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
  return !address || !socket || connect(socket.get(), address->get(), address->size()) == 0 ||
         (errno != ECONNREFUSED && errno != ENOENT);
}

bool renameIfFree(const std::string& from, const std::string& to) {
  return renameat2(AT_FDCWD, from.c_str(), AT_FDCWD, to.c_str(), RENAME_NOREPLACE) == 0;
}

/// Moves what is at path aside if nobody listens at it; an error's text if somebody does. Another process
/// may put its own socket there at any time: what was moved is looked at once more and moved back.
std::optional<std::string> removeStale(const std::string& path) {
  if (isListenedAt(path)) {
    return path + listensText;
  }
  const std::string aside = temporaryPath(path);
  if (!renameIfFree(path, aside)) {
    return errno == ENOENT ? std::nullopt : std::optional(errorText(path));
  }
  if (isListenedAt(aside) && renameIfFree(aside, path)) {
    return path + listensText;
  }
  unlink(aside.c_str());
  return std::nullopt;
}

std::optional<std::string> putInPlace(const std::string& from, const std::string& path) {
  for (int attempt = 0; attempt < attempts; ++attempt) {
    if (renameIfFree(from, path)) {
      return std::nullopt;
    }
    if (errno != EEXIST) {
      return errorText(path);
    }
    struct stat status {};
    if (lstat(path.c_str(), &status) == 0 && !S_ISSOCK(status.st_mode)) {
      return path + ": is there and is no socket";
    }
    if (auto error = removeStale(path)) {
      return error;
    }
  }
  return path + ": other processes keep making it";
}

}  // namespace

void letDescriptorsThrough(int socket, bool isAllowed) {
  constexpr int passRights = 83;  // SO_PASSRIGHTS
  const int value = isAllowed ? 1 : 0;
  setsockopt(socket, SOL_SOCKET, passRights, &value, sizeof value);
}

ListeningSocket::ListeningSocket(FileDescriptor socket) : socket_(std::move(socket)) {
  letDescriptorsThrough(socket_.get(), false);
}

std::variant<ListeningSocket, ListeningSocket::Error> ListeningSocket::at(const std::string& path, mode_t mode,
                                                                          const std::string& serviceName) {
  if (FileDescriptor passed = takePassedSocket(path, serviceName)) {
    return ListeningSocket(std::move(passed));
  }
  if (!SocketAddress::at(path)) {
    return Error{path + ": is too long for a socket's path"};
  }
  if (const auto made = makeDirectories(std::filesystem::path(path).parent_path()); !made) {
    return Error{made.failure().text()};
  }
  const std::string temporary = temporaryPath(path);
  FileDescriptor socket = makeListening(temporary, mode);
  if (!socket) {
    const Error error{errorText(path)};
    unlink(temporary.c_str());
    return error;
  }
  ListeningSocket made(std::move(socket));
  struct stat status {};
  if (lstat(temporary.c_str(), &status) < 0) {
    return Error{errorText(path)};
  }
  if (auto error = putInPlace(temporary, path)) {
    unlink(temporary.c_str());
    return Error{*std::move(error)};
  }
  made.path_ = path;
  made.device_ = status.st_dev;
  made.inode_ = status.st_ino;
  return made;
}

ListeningSocket::~ListeningSocket() {
  struct stat status {};
  if (socket_ && !path_.empty() && lstat(path_.c_str(), &status) == 0 && status.st_dev == device_ &&
      status.st_ino == inode_) {
    unlink(path_.c_str());
  }
}

}  // namespace kelvane::ipc
