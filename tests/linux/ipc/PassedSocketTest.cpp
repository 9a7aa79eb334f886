// SPDX-License-Identifier: Apache-2.0
// Listeners on sockets that the service manager passed to the process.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <vector>

#include "platform/linux/runtime/FileDescriptor.h"
#include "platform/linux/system/Paths.h"
#include "tests/linux/ipc/IpcTesting.h"
#include "tests/linux/ipc/RawClient.h"

namespace kelvane {
namespace {

using test::RawClient;

FileDescriptor listeningSocket(const std::string& path) {
  sockaddr_un address{.sun_family = AF_UNIX, .sun_path = {}};
  path.copy(address.sun_path, sizeof address.sun_path - 1);
  FileDescriptor socket(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  EXPECT_EQ(bind(socket.get(), reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
  EXPECT_EQ(listen(socket.get(), 16), 0);
  return socket;
}

/// A process that is started as the service manager does it, with sockets, and serves the sample interface
/// until it is told to end.
class ActivatedServer {
 public:
  ActivatedServer(const std::vector<int>& sockets, const std::string& names, const std::string& arguments) {
    int ends[2];
    EXPECT_EQ(pipe(ends), 0);
    // The shell knows the number that the program will have.
    const std::string command = "export LISTEN_PID=$$ LISTEN_FDS=" + std::to_string(sockets.size()) +
                                " LISTEN_FDNAMES=" + names + "; exec " KELVANE_ACTIVATED_SERVER " " + arguments;
    pid_ = fork();
    if (pid_ == 0) {
      // Out of the way of the numbers that are passed.
      const int input = dup2(ends[0], 60);
      std::vector<int> copies;
      for (const int socket : sockets) {
        copies.push_back(dup2(socket, 61 + static_cast<int>(copies.size())));
      }
      dup2(input, STDIN_FILENO);
      int passed = 3;
      for (const int copy : copies) {
        dup2(copy, passed++);
      }
      for (; passed < 100; ++passed) {
        ::close(passed);
      }
      execl("/bin/sh", "sh", "-c", command.c_str(), nullptr);
      _exit(127);
    }
    ::close(ends[0]);
    input_ = FileDescriptor(ends[1]);
  }
  ~ActivatedServer() {
    input_ = FileDescriptor();
    waitpid(pid_, nullptr, 0);
  }
  ActivatedServer(const ActivatedServer&) = delete;
  ActivatedServer& operator=(const ActivatedServer&) = delete;

 private:
  pid_t pid_ = -1;
  FileDescriptor input_;
};

std::string servedName(const std::string& path) {
  RawClient client(path);
  return client.call("echo", [](sd_bus_message* message) { return sd_bus_message_append(message, "v", "s", ""); }).text;
}

TEST(APassedSocket, IsServedForItsPath) {
  const test::TemporaryDirectory directory;
  const FileDescriptor first = listeningSocket(directory.path("first"));
  const FileDescriptor second = listeningSocket(directory.path("second"));
  const ActivatedServer server({first.get(), second.get()}, "a:b",
                               "at " + directory.path("second") + " at " + directory.path("first"));
  EXPECT_EQ(servedName(directory.path("first")), directory.path("first"));
  EXPECT_EQ(servedName(directory.path("second")), directory.path("second"));
}

TEST(APassedSocket, IsServedForTheServiceWhoseNameItHas) {
  const test::TemporaryDirectory directory;
  const FileDescriptor first = listeningSocket(directory.path("first"));
  const FileDescriptor second = listeningSocket(directory.path("second"));
  const ActivatedServer server({first.get(), second.get()}, "com.example.one:com.example.two",
                               "named com.example.two named com.example.one");
  EXPECT_EQ(servedName(directory.path("first")), "com.example.one");
  EXPECT_EQ(servedName(directory.path("second")), "com.example.two");
}

TEST(APassedSocket, IsServedForAnyServiceWhenItIsAlone) {
  const test::TemporaryDirectory directory;
  const FileDescriptor socket = listeningSocket(directory.path("socket"));
  const ActivatedServer server({socket.get()}, "any", "named com.example.one");
  EXPECT_EQ(servedName(directory.path("socket")), "com.example.one");
}

TEST(APassedSocket, IsNoServicesWhenItIsTheControlSocket) {
  std::filesystem::create_directories(paths::runtimeDirectory);
  const FileDescriptor socket = listeningSocket(paths::controlSocket);
  const ActivatedServer server({socket.get()}, "any", std::string("named com.example.one at ") + paths::controlSocket);
  EXPECT_EQ(servedName(paths::controlSocket), paths::controlSocket);
  EXPECT_EQ(servedName("/run/kelvane/ipc/com.example.one"), "com.example.one");
}

}  // namespace
}  // namespace kelvane
