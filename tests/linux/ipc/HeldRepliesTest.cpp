// SPDX-License-Identifier: Apache-2.0
// What the replies of services may take in memory.
#include "platform/linux/ipc/HeldReplies.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <future>
#include <variant>
#include <vector>

#include "platform/linux/ipc/EndpointState.h"
#include "platform/linux/ipc/Hub.h"
#include "tests/linux/ipc/IpcTesting.h"
#include "tests/linux/testing/BusServer.h"

namespace kelvane {
namespace {

namespace sample = test::sample;
using testing::HasSubstr;

TEST(HeldReplies, AreLimitedForEachUserUntilTheyAreLetGo) {
  ipc::HeldReplies replies(100);
  auto first = replies.hold(1, 60);
  EXPECT_TRUE(first);
  EXPECT_EQ(replies.holdable(1), 40U);
  EXPECT_FALSE(replies.hold(1, 41));
  const auto second = replies.hold(1, 40);
  EXPECT_TRUE(second);
  EXPECT_TRUE(replies.hold(1, 0));
  EXPECT_TRUE(replies.hold(2, 100));
  EXPECT_EQ(replies.holdable(2), 100U);
  first.reset();
  EXPECT_EQ(replies.holdable(1), 60U);
}

TEST(HeldReplies, OfNothingTakeNothing) {
  ipc::HeldReplies replies(100);
  auto first = replies.hold(1, 0);
  auto second = replies.hold(1, 0);
  EXPECT_TRUE(first && second);
  first.reset();
  second.reset();
  EXPECT_EQ(replies.holdable(1), 100U);
}

/// A service whose replies take many times their length, and a caller that is long in dealing with them.
class HeldRepliesOfAService : public testing::Test {
 protected:
  using Outcome = std::variant<Value, ipc::CallError>;

  HeldRepliesOfAService() {
    int ends[2];
    EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends), 0);
    service.emplace(ends[1]);
    connection.emplace(
        ipc::Connection::toEndpoint(ipc::Endpoint(std::make_shared<ipc::Endpoint::State>(FileDescriptor(ends[0])))));
    connection->setRemoteInterface(interface);
    connection->resume();
    EXPECT_TRUE(service->shakeHands());
  }
  ~HeldRepliesOfAService() override { release(); }

  /// Has one call answered with so many pieces of data that are empty.
  Outcome ask(std::size_t pieces) {
    connection->remoteProxy(nullptr).callForOutcome(sample::echo, {Value(1)},
                                                    [outcomes = outcomes, released = released](const Outcome& outcome) {
                                                      outcomes->put(outcome);
                                                      released.wait();
                                                    });
    answer(pieces);
    return outcomes->take().value_or(Value("no outcome"));
  }
  void answer(std::size_t pieces) {
    service->answer(service->nextCall(), [pieces](sd_bus_message* message) {
      int result = sd_bus_message_open_container(message, 'v', "aay");
      result = result < 0 ? result : sd_bus_message_open_container(message, 'a', "ay");
      for (std::size_t piece = 0; piece < pieces && result >= 0; ++piece) {
        result = sd_bus_message_append_array(message, 'y', nullptr, 0);
      }
      result = result < 0 ? result : sd_bus_message_close_container(message);
      return result < 0 ? result : sd_bus_message_close_container(message);
    });
  }
  void release() {
    if (!std::exchange(isReleased, true)) {
      dealtWith.set_value();
    }
  }

  static constexpr ipc::Interface interface = {"/com/example/Sample", "com.example.Sample", sample::operations, 64,
                                               limits::serviceReplyBytes};
  /// As many as a reply can be made of.
  static constexpr std::size_t most = limits::serviceReplyBytes / sizeof(std::uint32_t) - 64;

  std::optional<test::BusServer> service;
  std::optional<ipc::Connection> connection;
  // Handlers may still be returning when the test is over.
  const std::shared_ptr<test::Mailbox<Outcome>> outcomes = std::make_shared<test::Mailbox<Outcome>>();
  std::promise<void> dealtWith;
  const std::shared_future<void> released = dealtWith.get_future().share();
  bool isReleased = false;
};

TEST_F(HeldRepliesOfAService, AreLimitedTogether) {
  std::size_t taken = 0;
  Outcome outcome = ask(most);
  while (std::holds_alternative<Value>(outcome) && taken <= limits::heldReplyBytesPerUser / most) {
    EXPECT_EQ(std::get<Value>(outcome).array()->size(), most);
    ++taken;
    outcome = ask(most);
  }
  EXPECT_GT(taken, 1U);
  EXPECT_LT(taken * most * sizeof(Value), limits::heldReplyBytesPerUser);
  ASSERT_TRUE(std::holds_alternative<ipc::CallError>(outcome));
  EXPECT_EQ(std::get<ipc::CallError>(outcome).cause, ipc::CallError::Cause::Answered);
  EXPECT_THAT(std::get<ipc::CallError>(outcome).text, HasSubstr("LimitsExceeded"));
  // Others have what is left, and all of it again later.
  EXPECT_TRUE(std::holds_alternative<Value>(ask(1)));
  release();
  EXPECT_TRUE(test::eventually([this] { return std::holds_alternative<Value>(ask(most)); }));
}

TEST_F(HeldRepliesOfAService, AreCountedUntilTheCallIsLetGo) {
  const auto holdable = std::make_shared<test::Mailbox<std::size_t>>();
  std::shared_ptr<void> heldByCall(
      nullptr, [holdable](void*) { holdable->put(ipc::Hub::shared().heldReplies.holdable(getuid())); });
  connection->remoteProxy(nullptr).callForOutcome(sample::echo, {Value(1)},
                                                  [heldByCall = std::move(heldByCall)](const Outcome&) {});
  answer(most);
  EXPECT_LT(holdable->take().value_or(SIZE_MAX), limits::heldReplyBytesPerUser);
}

}  // namespace
}  // namespace kelvane
