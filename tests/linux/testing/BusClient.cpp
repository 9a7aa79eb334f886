// SPDX-License-Identifier: Apache-2.0
// A client that speaks D-Bus without this system's own code.
#include "tests/linux/testing/BusClient.h"

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

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

BusClient::BusClient(const std::string& path, const ipc::Interface& interface)
    : BusClient(connectedSocket(path), interface) {}

BusClient::BusClient(int socket, const ipc::Interface& interface) : interface_(interface) {
  EXPECT_GE(sd_bus_new(&bus_), 0);
  EXPECT_GE(sd_bus_negotiate_fds(bus_, 1), 0);
  EXPECT_GE(sd_bus_set_fd(bus_, socket, socket), 0) << "there is no connection";
  // A listener that refuses may have hung up already.
  isRefused_ = socket < 0 || sd_bus_start(bus_) < 0;
}

Message BusClient::make(const std::string& path, const std::string& interface, const std::string& member,
                        const Append& append) {
  sd_bus_message* message = nullptr;
  EXPECT_GE(sd_bus_message_new_method_call(bus_, &message, nullptr, path.c_str(),
                                           interface.empty() ? nullptr : interface.c_str(), member.c_str()),
            0);
  EXPECT_GE(append(message), 0);
  return Message(message);
}

BusClient::Answer BusClient::call(const std::string& member, const Append& append) {
  return callAt(std::string(interface_.objectPath), std::string(interface_.name), member, append);
}

BusClient::Answer BusClient::callAt(const std::string& path, const std::string& interface, const std::string& member,
                                    const Append& append) {
  if (isRefused_) {
    return {"", "", "refused"};
  }
  const Message message = make(path, interface, member, append);
  sd_bus_message* reply = nullptr;
  sd_bus_error error = SD_BUS_ERROR_NULL;
  Answer answer;
  if (sd_bus_call(bus_, message.get(), patienceMicroseconds, &error, &reply) < 0) {
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
  return answer;
}

bool BusClient::send(const std::string& member, const Append& append, bool expectReply) {
  if (isRefused_) {
    return false;
  }
  const Message message = make(std::string(interface_.objectPath), std::string(interface_.name), member, append);
  return sd_bus_send(bus_, message.get(), expectReply ? &lastCookie_ : nullptr) >= 0 && sd_bus_flush(bus_) >= 0;
}

Message BusClient::nextAnswer() {
  if (isRefused_) {
    return nullptr;
  }
  for (;;) {
    sd_bus_message* received = nullptr;
    const int result = sd_bus_process(bus_, &received);
    Message message(received);
    std::uint64_t cookie = 0;
    if (message && sd_bus_message_get_reply_cookie(message.get(), &cookie) >= 0) {
      return message;
    }
    if (result < 0 || sd_bus_is_open(bus_) <= 0 || (result == 0 && sd_bus_wait(bus_, patienceMicroseconds) <= 0)) {
      return nullptr;
    }
  }
}

std::uint64_t BusClient::nextReply() {
  const Message answer = nextAnswer();
  std::uint64_t cookie = 0;
  if (answer) {
    sd_bus_message_get_reply_cookie(answer.get(), &cookie);
  }
  return cookie;
}

void BusClient::close() {
  sd_bus_close_unref(bus_);
  bus_ = nullptr;
}

}  // namespace kelvane::test
