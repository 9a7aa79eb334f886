// SPDX-License-Identifier: Apache-2.0
// Calls from one connection of this system to another, and their answers.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "platform/linux/ipc/PrivateSockets.h"
#include "tests/linux/ipc/IpcTesting.h"

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

}  // namespace
}  // namespace kelvane
