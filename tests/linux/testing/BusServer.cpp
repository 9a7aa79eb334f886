// SPDX-License-Identifier: Apache-2.0
// A server that speaks D-Bus without this system's own code, and need not behave.
#include "tests/linux/testing/BusServer.h"

#include <gtest/gtest.h>
#include <poll.h>

#include <utility>

namespace kelvane::test {

namespace {

constexpr int patienceMilliseconds = 60'000;
constexpr std::uint64_t patienceMicroseconds = 60'000'000;

bool send(sd_bus_message* reply) {
  const Message owned(reply);
  sd_bus* const bus = sd_bus_message_get_bus(reply);
  return sd_bus_send(bus, reply, nullptr) >= 0 && sd_bus_flush(bus) >= 0;
}

}  // namespace

BusServer::BusServer(int socket) {
  EXPECT_GE(sd_bus_new(&bus_), 0);
  EXPECT_GE(sd_bus_set_server(bus_, 1, sd_id128_t{}), 0);
  EXPECT_GE(sd_bus_negotiate_fds(bus_, 1), 0);
  EXPECT_GE(sd_bus_set_fd(bus_, socket, socket), 0);
  EXPECT_GE(sd_bus_start(bus_), 0);
}

bool BusServer::shakeHands() {
  while (sd_bus_is_ready(bus_) == 0) {
    const int result = sd_bus_process(bus_, nullptr);
    if (result < 0 || (result == 0 && sd_bus_wait(bus_, patienceMicroseconds) <= 0)) {
      return false;
    }
  }
  return sd_bus_is_ready(bus_) > 0;
}

bool BusServer::hasArrival() const {
  pollfd state{.fd = socket(), .events = POLLIN, .revents = 0};
  return poll(&state, 1, patienceMilliseconds) == 1 && (state.revents & POLLIN) != 0;
}

Message BusServer::pendingCall() {
  for (;;) {
    sd_bus_message* received = nullptr;
    const int result = sd_bus_process(bus_, &received);
    Message message(received);
    if (message && sd_bus_message_is_method_call(received, nullptr, nullptr) > 0) {
      return message;
    }
    if (result <= 0) {
      return nullptr;
    }
  }
}

Message BusServer::nextCall() {
  for (;;) {
    if (Message call = pendingCall()) {
      return call;
    }
    if (sd_bus_is_open(bus_) <= 0 || sd_bus_wait(bus_, patienceMicroseconds) <= 0) {
      return nullptr;
    }
  }
}

bool BusServer::answer(const Message& call, const Append& append) {
  sd_bus_message* reply = nullptr;
  if (!call) {
    ADD_FAILURE() << "there is no call to answer";
    return false;
  }
  EXPECT_GE(sd_bus_message_new_method_return(call.get(), &reply), 0);
  EXPECT_GE(append(reply), 0);
  return send(reply);
}

bool BusServer::answerWithError(const Message& call, const std::string& name, const std::string& text) {
  const sd_bus_error error{.name = name.c_str(), .message = text.c_str(), ._need_free = 0};
  sd_bus_message* reply = nullptr;
  EXPECT_GE(sd_bus_message_new_method_error(call.get(), &reply, &error), 0);
  return send(reply);
}

void BusServer::close() {
  sd_bus_close_unref(std::exchange(bus_, nullptr));
}

}  // namespace kelvane::test
