// SPDX-License-Identifier: Apache-2.0
// Calls from one connection of this system to another, and their answers.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "platform/Limits.h"
#include "platform/linux/ipc/PrivateSockets.h"
#include "tests/linux/ipc/IpcTesting.h"
#include "tests/linux/ipc/RawClient.h"

namespace kelvane {
namespace {

using test::SampleCaller;
using test::SampleListener;
namespace sample = test::sample;

void echo(ipc::Request request) {
  request.reply.send(request.arguments.empty() ? Value() : request.value(0));
}

TEST(ACall, IsAnsweredWithTheReplysValue) {
  SampleListener listener(echo);
  listener.resume();
  SampleCaller caller(ipc::connectAt(listener.path()));
  caller.connection().resume();
  EXPECT_EQ(caller.ask(sample::echo, {Value("text")}), Value("text"));
}

TEST(ACall, ReachesAServiceThroughItsEndpoint) {
  const auto anonymous = ipc::Listener::anonymous(sample::interface, echo);
  EXPECT_FALSE(anonymous.resume());
  const auto endpoint = anonymous.endpoint();
  ASSERT_TRUE(endpoint);
  SampleCaller caller(ipc::Connection::toEndpoint(*endpoint));
  caller.connection().resume();
  EXPECT_EQ(caller.ask(sample::work, {Value(7), Value(Value::Dictionary{})}), Value(7));
  EXPECT_EQ(caller.ask(sample::ping, {}), Value());
}

TEST(ACall, ThatIsTooLongIsAnsweredWithNothing) {
  SampleListener listener(echo);
  listener.resume();
  SampleCaller caller(ipc::connectAt(listener.path()));
  caller.connection().resume();
  EXPECT_EQ(caller.ask(sample::echo, {Value(1)}), Value(1));
  EXPECT_EQ(caller.ask(sample::echo, {Value(std::string(limits::unsentBytesPerConnection, 'x'))}), Value());
  EXPECT_EQ(caller.ask(sample::echo, {Value(2)}), Value(2));
}

TEST(ACall, WithOtherArgumentsThanItsOperationsIsAnsweredWithNothing) {
  SampleListener listener(echo);
  listener.resume();
  SampleCaller caller(ipc::connectAt(listener.path()));
  caller.connection().resume();
  EXPECT_EQ(caller.ask(sample::echo, {}), Value());
  EXPECT_EQ(caller.ask(sample::attach, {Value("name"), Value(1), Value(Value::Dictionary{})}), Value());
  EXPECT_EQ(caller.ask(sample::echo, {Value(2)}), Value(2));
}

TEST(AReply, ThatIsTooLongIsAnError) {
  SampleListener listener(
      [](const ipc::Request& request) { request.reply.send(Value(std::string(request.value(0).uint64Value(), 'x'))); });
  listener.resume();
  test::RawClient client(listener.path());
  const auto answer = client.call("echo", [](sd_bus_message* message) {
    return sd_bus_message_append(message, "v", "t", std::uint64_t{limits::unsentBytesPerConnection});
  });
  EXPECT_EQ(answer.error, SD_BUS_ERROR_LIMITS_EXCEEDED);
  EXPECT_EQ(client.call("other").error, SD_BUS_ERROR_UNKNOWN_METHOD);
}

}  // namespace
}  // namespace kelvane
