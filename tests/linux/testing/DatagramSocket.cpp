// SPDX-License-Identifier: Apache-2.0
// The receiving end of what the process sends its service manager and the journal.
#include "tests/linux/testing/DatagramSocket.h"

#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <array>
#include <cstring>
#include <filesystem>

namespace kelvane::test {

DatagramSocket::DatagramSocket(std::string path)
    : path_(std::move(path)), socket_(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0)) {
  std::filesystem::create_directories(std::filesystem::path(path_).parent_path());
  sockaddr_un address = {};
  address.sun_family = AF_UNIX;
  path_.copy(address.sun_path, sizeof address.sun_path - 1);
  EXPECT_EQ(bind(socket_.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address), 0)
      << std::strerror(errno);
}

DatagramSocket::~DatagramSocket() {
  unlink(path_.c_str());
}

std::string DatagramSocket::receive(int milliseconds) const {
  pollfd ready = {socket_.get(), POLLIN, 0};
  if (poll(&ready, 1, milliseconds) != 1) {
    return {};
  }
  std::array<char, 100'000> buffer;
  const ssize_t length = recv(socket_.get(), buffer.data(), buffer.size(), 0);
  return {buffer.data(), static_cast<std::size_t>(length < 0 ? 0 : length)};
}

std::string DatagramSocket::receiveBeginningWith(const std::string& prefix) const {
  while (true) {
    std::string datagram = receive();
    if (datagram.empty() || datagram.starts_with(prefix)) {
      return datagram;
    }
  }
}

}  // namespace kelvane::test
