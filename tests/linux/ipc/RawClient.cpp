// SPDX-License-Identifier: Apache-2.0
// A client that speaks D-Bus without this system's own code.
#include "tests/linux/ipc/RawClient.h"

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "tests/linux/ipc/IpcTesting.h"

namespace kelvane::test {

namespace {

constexpr std::uint64_t patienceMicroseconds = 60'000'000;

}  // namespace

int connectedSocket(const std::string& path) {
  sockaddr_un address{.sun_family = AF_UNIX, .sun_path = {}};
  path.copy(address.sun_path, sizeof address.sun_path - 1);
  const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) < 0) {
    ::close(fd);
    return -1;
  }
  return fd;
}

RawClient::RawClient(const std::string& path) {
  start(connectedSocket(path));
}

RawClient::RawClient(int socket) {
  start(socket);
}

void RawClient::start(int socket) {
  EXPECT_GE(sd_bus_new(&bus_), 0);
  EXPECT_GE(sd_bus_negotiate_fds(bus_, 1), 0);
  EXPECT_GE(sd_bus_set_fd(bus_, socket, socket), 0);
  // A listener that refuses may have hung up already.
  isRefused_ = sd_bus_start(bus_) < 0;
}

sd_bus_message* RawClient::make(const std::string& path, const std::string& interface, const std::string& member,
                                const Append& append) {
  sd_bus_message* message = nullptr;
  EXPECT_GE(sd_bus_message_new_method_call(bus_, &message, nullptr, path.c_str(),
                                           interface.empty() ? nullptr : interface.c_str(), member.c_str()),
            0);
  EXPECT_GE(append(message), 0);
  return message;
}

RawClient::Answer RawClient::call(const std::string& member, const Append& append) {
  return callAt(std::string(sample::interface.objectPath), std::string(sample::interface.name), member, append);
}

RawClient::Answer RawClient::callAt(const std::string& path, const std::string& interface, const std::string& member,
                                    const Append& append) {
  if (isRefused_) {
    return {"", "", "refused"};
  }
  sd_bus_message* message = make(path, interface, member, append);
  sd_bus_message* reply = nullptr;
  sd_bus_error error = SD_BUS_ERROR_NULL;
  Answer answer;
  if (sd_bus_call(bus_, message, patienceMicroseconds, &error, &reply) < 0) {
    answer.error = error.name == nullptr ? "?" : error.name;
    answer.text = error.message == nullptr ? "" : error.message;
  } else {
    answer.signature = sd_bus_message_get_signature(reply, 1);
    const char* text = nullptr;
    const char* type = answer.signature == "v" ? "v" : "s";
    if (answer.signature == "s" ? sd_bus_message_read(reply, type, &text) > 0
                                : (answer.signature == "v" && sd_bus_message_read(reply, type, "s", &text) > 0)) {
      answer.text = text;
    }
  }
  sd_bus_error_free(&error);
  sd_bus_message_unref(reply);
  sd_bus_message_unref(message);
  return answer;
}

bool RawClient::send(const std::string& member, const Append& append, bool expectReply) {
  sd_bus_message* message =
      make(std::string(sample::interface.objectPath), std::string(sample::interface.name), member, append);
  const bool sent = sd_bus_send(bus_, message, expectReply ? &lastCookie_ : nullptr) >= 0;
  sd_bus_message_unref(message);
  return sent && sd_bus_flush(bus_) >= 0;
}

std::uint64_t RawClient::nextReply() {
  for (;;) {
    sd_bus_message* message = nullptr;
    const int result = sd_bus_process(bus_, &message);
    std::uint64_t cookie = 0;
    const bool isReply = message != nullptr && sd_bus_message_get_reply_cookie(message, &cookie) >= 0;
    sd_bus_message_unref(message);
    if (isReply) {
      return cookie;
    }
    if (result < 0 || sd_bus_is_open(bus_) <= 0 || (result == 0 && sd_bus_wait(bus_, patienceMicroseconds) <= 0)) {
      return 0;
    }
  }
}

void RawClient::close() {
  sd_bus_close_unref(bus_);
  bus_ = nullptr;
}

}  // namespace kelvane::test
