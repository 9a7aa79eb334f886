// SPDX-License-Identifier: Apache-2.0
// A service that reads and answers when the test has it do so.
#include "tests/linux/ipc/IdleService.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/ioctl.h>
#include <sys/socket.h>

#include <future>

#include "platform/linux/ipc/Channel.h"
#include "platform/linux/ipc/ConnectionState.h"
#include "platform/linux/ipc/EndpointState.h"

namespace kelvane::test {

Value notification(const std::string& name, const Value& value) {
  return Value::Dictionary{{name, value}};
}

IdleService::IdleService(const ipc::Interface& interface) : mostOwed_(interface.maximumOutstandingCalls) {
  int ends[2];
  EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0, ends), 0);
  server_.emplace(ends[1]);
  caller_.emplace(
      ipc::Connection::toEndpoint(ipc::Endpoint(std::make_shared<ipc::Endpoint::State>(FileDescriptor(ends[0])))),
      interface);
  caller_->connection().resume();
  EXPECT_TRUE(server_->shakeHands());
}

void IdleService::oweAllItMay() {
  for (int call = 0; call < mostOwed_; ++call) {
    ping();
    owed_.push_back(bus().nextCall());
    ASSERT_TRUE(owed_.back());
  }
}

void IdleService::answerOne() {
  ASSERT_FALSE(owed_.empty());
  EXPECT_TRUE(bus().answer(owed_.front()));
  owed_.pop_front();
}

std::string IdleService::takeNotification() {
  const Message call = bus().nextCall();
  const char* name = nullptr;
  std::int64_t number = 0;
  if (!call || sd_bus_message_read(call.get(), "a{sv}", 1, &name, "x", &number) <= 0) {
    return "";
  }
  const std::string result = std::string(name) + " " + std::to_string(number);
  EXPECT_TRUE(bus().answer(call));
  return result;
}

int IdleService::takeNumber() {
  const std::string text = takeNotification();
  return text.empty() ? -1 : std::stoi(text.substr(text.find(' ')));
}

int IdleService::unreadBytes() const {
  int bytes = 0;
  EXPECT_EQ(ioctl(server_->socket(), FIONREAD, &bytes), 0);
  return bytes;
}

void IdleService::lookAfter(std::chrono::seconds time) {
  std::promise<void> done;
  ipc::EventLoop::shared().post([&] {
    caller().connection().state()->channel()->lookForStall(ipc::EventLoop::Clock::now() + time);
    done.set_value();
  });
  done.get_future().wait();
}

std::string IdleService::nextError() {
  const auto outcome = caller().outcomes().take();
  return outcome ? outcome->error : "none in time";
}

}  // namespace kelvane::test
