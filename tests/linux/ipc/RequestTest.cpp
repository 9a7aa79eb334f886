// SPDX-License-Identifier: Apache-2.0
// Requests as foreign clients make them.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <deque>

#include "platform/Limits.h"
#include "platform/linux/ipc/EndpointState.h"
#include "tests/linux/ipc/IpcTesting.h"
#include "tests/linux/ipc/RawClient.h"

namespace kelvane {
namespace {

using test::RawClient;
using test::SampleListener;
using testing::HasSubstr;
namespace sample = test::sample;

RawClient::Append arguments(const char* types, auto... values) {
  return [=](sd_bus_message* message) { return sd_bus_message_append(message, types, values...); };
}

void echo(const ipc::Request& request) {
  request.reply.send(request.arguments.empty() ? Value() : request.value(0));
}

class ARequest : public testing::Test {
 protected:
  ARequest() { listener.resume(); }

  SampleListener listener;
  SampleListener answering{[](const ipc::Request& request) { echo(request); }};
};

TEST_F(ARequest, HasTheArgumentsThatItsOperationDeclares) {
  RawClient client(listener.path());
  ASSERT_TRUE(client.send("work", arguments("ia{sv}", -2, 1, "key", "s", "text")));
  const auto request = listener.take();
  ASSERT_TRUE(request);
  EXPECT_EQ(&request->operation, &sample::work);
  ASSERT_EQ(request->arguments.size(), 2U);
  EXPECT_EQ(request->value(0), Value(-2));
  EXPECT_EQ(request->value(1)["key"], Value("text"));
}

TEST_F(ARequest, MayLeaveOutItsInterface) {
  answering.resume();
  RawClient client(answering.path());
  EXPECT_EQ(client.callAt("/com/example/Sample", "", "echo", arguments("v", "s", "text")).text, "text");
}

TEST_F(ARequest, MayHaveADictionaryOfStrings) {
  answering.resume();
  RawClient client(answering.path());
  EXPECT_EQ(client.call("tell", arguments("a{ss}", 1, "k", "v")).error, "");
}

TEST_F(ARequest, IsAnsweredAsItsOperationSays) {
  answering.resume();
  RawClient client(answering.path());
  EXPECT_EQ(client.call("ping").signature, "");
  EXPECT_EQ(client.call("tell", arguments("a{sv}", 0)).signature, "");
  EXPECT_EQ(client.call("echo", arguments("v", "s", "text")).signature, "v");
  EXPECT_EQ(client.call("echo", arguments("v", "o", "/")).signature, "v");
}

TEST_F(ARequest, IsRefusedWithOtherArgumentTypes) {
  RawClient client(listener.path());
  const auto wrong = client.call("work", arguments("sa{sv}", "text", 0));
  EXPECT_EQ(wrong.error, SD_BUS_ERROR_INVALID_ARGS);
  EXPECT_EQ(wrong.text, "work takes arguments of the types \"ia{sv}\", not \"sa{sv}\"");
  EXPECT_EQ(client.call("work", arguments("i", 1)).error, SD_BUS_ERROR_INVALID_ARGS);
  EXPECT_EQ(client.call("work").error, SD_BUS_ERROR_INVALID_ARGS);
  EXPECT_EQ(client.call("ping", arguments("s", "text")).error, SD_BUS_ERROR_INVALID_ARGS);
  EXPECT_EQ(client.call("work", arguments("xa{sv}", std::int64_t{1}, 0)).error, SD_BUS_ERROR_INVALID_ARGS);
  EXPECT_EQ(client.call("work", arguments("ias", 1, 0)).error, SD_BUS_ERROR_INVALID_ARGS);
  EXPECT_EQ(client.call("echo", arguments("s", "text")).error, SD_BUS_ERROR_INVALID_ARGS);
  EXPECT_EQ(listener.requests().size(), 0U);
}

TEST_F(ARequest, IsRefusedWithAValueOutsideTheMapping) {
  RawClient client(listener.path());
  const auto answer = client.call("tell", arguments("a{sv}", 1, "key", "g", "s"));
  EXPECT_EQ(answer.error, SD_BUS_ERROR_INVALID_ARGS);
  EXPECT_EQ(answer.text, "tell: argument \"info\": a signature stands for no value (under \"key\")");
  EXPECT_EQ(listener.requests().size(), 0U);
}

TEST_F(ARequest, IsRefusedForWhatDoesNotExist) {
  RawClient client(listener.path());
  EXPECT_EQ(client.callAt("/other", "com.example.Sample", "ping").error, SD_BUS_ERROR_UNKNOWN_OBJECT);
  EXPECT_EQ(client.callAt("/com/example/Sample", "com.example.Other", "ping").error, SD_BUS_ERROR_UNKNOWN_INTERFACE);
  EXPECT_EQ(client.call("other").error, SD_BUS_ERROR_UNKNOWN_METHOD);
  EXPECT_EQ(client.callAt("/other", "", "ping").error, SD_BUS_ERROR_UNKNOWN_OBJECT);
}

TEST_F(ARequest, IsRefusedWhenItIsTooLong) {
  RawClient client(listener.path());
  const std::string longest(limits::requestBytes, 'x');
  const auto answer = client.call("echo", arguments("v", "s", longest.c_str()));
  EXPECT_EQ(answer.error, SD_BUS_ERROR_LIMITS_EXCEEDED);
  EXPECT_THAT(answer.text, HasSubstr("is longer than 2097152"));
  EXPECT_EQ(listener.requests().size(), 0U);
}

TEST_F(ARequest, MayBeAlmostAsLongAsTheLimit) {
  answering.resume();
  RawClient client(answering.path());
  const std::string longest(limits::requestBytes - 1024, 'x');
  EXPECT_EQ(client.call("echo", arguments("v", "s", longest.c_str())).text, longest);
}

TEST_F(ARequest, EndsTheConnectionWhenItIsFarTooLong) {
  RawClient client(listener.path());
  EXPECT_EQ(client.call("ping", arguments("s", "x")).error, SD_BUS_ERROR_INVALID_ARGS);
  const std::string endless(16 * limits::requestBytes, 'x');
  const auto answer = client.call("echo", arguments("v", "s", endless.c_str()));
  EXPECT_NE(answer.error, "");
  EXPECT_LE(sd_bus_is_open(client.bus()), 0);
}

TEST_F(ARequest, SendsNothingBackWhenNoReplyIsExpected) {
  answering.resume();
  RawClient client(answering.path());
  ASSERT_TRUE(client.send("echo", arguments("v", "s", "unheard"), false));
  ASSERT_TRUE(client.send("other", RawClient::nothing, false));
  ASSERT_TRUE(client.send("echo", arguments("v", "s", "heard")));
  EXPECT_EQ(client.nextReply(), client.lastCookie());
}

TEST_F(ARequest, IsNotAnsweredWhenItsReplyIsDropped) {
  RawClient client(listener.path());
  ASSERT_TRUE(client.send("ping"));
  ASSERT_TRUE(client.send("ping"));
  listener.take().reset();
  const auto second = listener.take();
  second->reply.send();
  second->reply.send();
  second->reply.sendError("com.example.Late", "too late");
  EXPECT_EQ(client.nextReply(), client.lastCookie());
  EXPECT_EQ(client.callAt("/com/example/Sample", "org.freedesktop.DBus.Peer", "Ping").error, "");
}

TEST_F(ARequest, MayBeAnsweredWithAnError) {
  SampleListener failing(
      [](const ipc::Request& request) { request.reply.sendError(*request.value(0).string(), "what \xff is wrong"); });
  failing.resume();
  RawClient client(failing.path());
  const auto answer = client.call("echo", arguments("v", "s", "com.example.Error"));
  EXPECT_EQ(answer.error, "com.example.Error");
  EXPECT_EQ(answer.text, "what \uFFFD is wrong");
  EXPECT_EQ(client.call("echo", arguments("v", "s", "no name")).error, SD_BUS_ERROR_FAILED);
}

TEST_F(ARequest, IsDeliveredAfterThoseBeforeIt) {
  test::Mailbox<std::uint64_t> order;
  std::atomic<int> running = 0;
  std::atomic<bool> overlap = false;
  SampleListener counting([&](const ipc::Request& request) {
    overlap = overlap || running.fetch_add(1) != 0;
    order.put(request.value(0).uint64Value());
    --running;
  });
  counting.resume();
  RawClient client(counting.path());
  constexpr std::uint64_t count = 2000;
  for (std::uint64_t number = 0; number < count; ++number) {
    ASSERT_TRUE(client.send("echo", arguments("v", "t", number), false));
  }
  for (std::uint64_t number = 0; number < count; ++number) {
    ASSERT_EQ(order.take(), number);
  }
  EXPECT_FALSE(overlap);
}

TEST_F(ARequest, DoesNotHoldUpThoseOfOtherConnections) {
  RawClient first(listener.path());
  RawClient second(listener.path());
  test::Mailbox<int> release;
  SampleListener blocking([&release](const ipc::Request& request) {
    if (request.value(0).int64Value() == 1) {
      release.take();
    }
    request.reply.send(Value("done"));
  });
  blocking.resume();
  RawClient blocked(blocking.path());
  RawClient free(blocking.path());
  ASSERT_TRUE(blocked.send("echo", arguments("v", "i", 1)));
  EXPECT_EQ(free.call("echo", arguments("v", "i", 2)).text, "done");
  release.put(0);
  EXPECT_EQ(blocked.nextReply(), blocked.lastCookie());
}

TEST_F(ARequest, IsLeftInTheSocketWhileSixtyFourAreUnanswered) {
  RawClient client(listener.path());
  constexpr int count = limits::unansweredRequestsPerConnection + 10;
  for (int number = 0; number < count; ++number) {
    ASSERT_TRUE(client.send("echo", arguments("v", "i", number)));
  }
  std::deque<ipc::Request> taken;
  for (int number = 0; number < limits::unansweredRequestsPerConnection; ++number) {
    taken.push_back(*listener.take());
  }
  test::settleEventLoop();
  EXPECT_EQ(listener.requests().size(), 0U);
  // A dropped reply frees a place as a sent one does.
  taken.pop_front();
  taken.front().reply.send();
  EXPECT_EQ(listener.take()->value(0), Value(limits::unansweredRequestsPerConnection));
  EXPECT_EQ(listener.take()->value(0), Value(limits::unansweredRequestsPerConnection + 1));
}

TEST_F(ARequest, IsDeliveredThoughItsClientHasGone) {
  {
    RawClient client(listener.path());
    for (int number = 0; number < 200; ++number) {
      ASSERT_TRUE(client.send("echo", arguments("v", "i", number), false));
    }
  }
  for (int number = 0; number < 200; ++number) {
    const auto request = listener.take();
    ASSERT_TRUE(request);
    EXPECT_EQ(request->value(0), Value(number));
    request->reply.send();
  }
}

TEST_F(ARequest, IsRefusedWhileItsUsersRequestsTakeTooMuchMemory) {
  RawClient client(listener.path());
  const std::string longText(limits::requestBytes - 1024, 'x');
  constexpr auto fitting = static_cast<int>(limits::heldRequestBytesPerUser / limits::requestBytes);
  std::deque<ipc::Request> taken;
  for (int number = 0; number < fitting; ++number) {
    ASSERT_TRUE(client.send("echo", arguments("v", "s", longText.c_str())));
    taken.push_back(*listener.take());
  }
  const auto answer = client.call("echo", arguments("v", "s", longText.c_str()));
  EXPECT_EQ(answer.error, SD_BUS_ERROR_LIMITS_EXCEEDED);
  EXPECT_THAT(answer.text, HasSubstr("too much memory"));
  taken.pop_back();
  test::settleEventLoop();
  ASSERT_TRUE(client.send("echo", arguments("v", "s", longText.c_str())));
  EXPECT_TRUE(listener.take());
}

}  // namespace
}  // namespace kelvane
