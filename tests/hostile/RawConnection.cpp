// SPDX-License-Identifier: Apache-2.0
// A connection on which any bytes can be sent.
#include "tests/hostile/RawConnection.h"

#include <poll.h>
#include <sys/socket.h>

#include <array>
#include <cerrno>
#include <cstdint>
#include <cstring>

#include "tests/hostile/Places.h"
#include "tests/linux/testing/BusClient.h"

namespace kelvane::test {

namespace {

constexpr int patienceMilliseconds = 60'000;
constexpr std::size_t fixedHeaderBytes = 16;

std::uint32_t numberAt(std::string_view bytes, std::size_t offset) {
  std::uint32_t number = 0;
  std::memcpy(&number, bytes.data() + offset, sizeof number);
  return number;
}

}  // namespace

RawConnection::RawConnection() : socket_(connectedSocket(daemonSocket)) {}

bool RawConnection::waitFor(short events) const {
  pollfd state{.fd = socket_.get(), .events = events, .revents = 0};
  return poll(&state, 1, patienceMilliseconds) == 1;
}

bool RawConnection::shakeHands() {
  // An empty identity stands for that of the socket.
  constexpr char words[] = "\0AUTH EXTERNAL\r\nDATA\r\nNEGOTIATE_UNIX_FD\r\nBEGIN\r\n";
  std::string answer;
  if (!send({words, sizeof words - 1})) {
    return false;
  }
  while (!answer.ends_with("AGREE_UNIX_FD\r\n")) {
    const std::string more = receive();
    if (more.empty()) {
      return false;
    }
    answer += more;
  }
  return true;
}

std::optional<std::size_t> RawConnection::trySend(std::string_view bytes) {
  const ssize_t sent = ::send(socket_.get(), bytes.data(), bytes.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
  if (sent >= 0) {
    return static_cast<std::size_t>(sent);
  }
  return errno == EAGAIN ? std::optional<std::size_t>(0) : std::nullopt;
}

bool RawConnection::send(std::string_view bytes) {
  while (!bytes.empty()) {
    const auto sent = waitFor(POLLOUT) ? trySend(bytes) : std::nullopt;
    if (!sent) {
      return false;
    }
    bytes.remove_prefix(*sent);
  }
  return true;
}

std::string RawConnection::receive() {
  std::array<char, 64 * 1024> buffer;
  const ssize_t size = waitFor(POLLIN) ? recv(socket_.get(), buffer.data(), buffer.size(), 0) : -1;
  return {buffer.data(), static_cast<std::size_t>(size < 0 ? 0 : size)};
}

bool RawConnection::ends() {
  std::array<char, 64 * 1024> buffer;
  while (waitFor(POLLIN)) {
    if (recv(socket_.get(), buffer.data(), buffer.size(), 0) <= 0) {
      return true;
    }
  }
  return false;
}

void MessageCounter::take(std::string_view bytes) {
  incomplete_ += bytes;
  std::size_t begin = 0;
  while (incomplete_.size() - begin >= fixedHeaderBytes) {
    const std::string_view rest = std::string_view(incomplete_).substr(begin);
    const std::size_t fieldBytes = (numberAt(rest, 12) + 7U) / 8U * 8U;
    const std::size_t size = fixedHeaderBytes + fieldBytes + numberAt(rest, 4);
    if (rest.size() < size) {
      break;
    }
    begin += size;
    ++count_;
  }
  incomplete_.erase(0, begin);
}

}  // namespace kelvane::test
